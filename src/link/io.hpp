// Timed read and write primitives of the device link.
//
// Time-outs are whole seconds measured against the wall clock's seconds
// field: a wait of t seconds ends when the seconds field has advanced by t,
// so it lasts between t - 1 and t seconds. The loops wait on the
// descriptor, so data is taken as soon as it arrives.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace kolt::link {

// The line speed the read pacing assumes, whatever speed the line runs at.
inline constexpr int ibaud = 9600;

// Half the time the missing bytes need at ibaud, 8 bits a byte, capped at
// one second and raised to at least 2 ms before halving (microseconds).
long pacing_us(long missing);

// Writes until every byte is out or the time is up; the count written.
int write_buf(int fd, std::span<const uint8_t> buf, int timeout_s);
// Reads until buf is full or the time is up; the count read.
int rcv_buf(int fd, std::span<uint8_t> buf, int timeout_s);
// As rcv_buf, into buf from `have` on (the bytes before are kept), also
// ending as soon as buf's content ends with tail (when given) or *cancel
// becomes non-zero (noticed within kCancelSliceMs): the count read now.
int rcv_buf_until(int fd, std::span<uint8_t> buf, std::size_t have, int timeout_s, std::span<const uint8_t> tail,
                  const volatile int32_t* cancel);
// As rcv_buf, but the first byte above 0x3F ends the read: its position + 1.
int rcv_buf_100s(int fd, std::span<uint8_t> buf, int timeout_s);
// Skips bytes until head arrives (-1 when the time runs out first), keeps
// it in buf[0] and reads the rest with a fresh time-out; the total count.
int rcv_from_head(int fd, std::span<uint8_t> buf, uint8_t head, int timeout_s);
// As rcv_from_head with two possible head bytes.
int rcv_from_2heads(int fd, std::span<uint8_t> buf, uint8_t head_a, uint8_t head_b, int timeout_s);
// Discards pending input; -1 when data keeps coming for more than 5 s.
int clear_com_buf(int fd);
// Waits for fd to become readable (mode bit 1) and/or writable (mode bit
// 2) for the whole seconds of seconds; the number of ready conditions,
// 0 on time-out, -1 on error.
int select_fd(int fd, int mode, double seconds);

// Writes aux_lead, the block and aux_end to the link (fd of the link
// state). In local mode lead and end are empty. Returns the count of the
// block's bytes written.
int write_wrapped(std::span<const uint8_t> block, int timeout_s = 3);
// As write_wrapped, on a given descriptor.
int write_wrapped_fd(int fd, std::span<const uint8_t> block, int timeout_s);
// Waits at most ms milliseconds for fd to become readable (replaces the
// fixed pauses before a reply is read).
void wait_for_data(int fd, long long ms);
// Writes a text (an escape sequence) to the link unwrapped.
void write_text(std::string_view text);

}  // namespace kolt::link
