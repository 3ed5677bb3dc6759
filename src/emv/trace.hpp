// The trace of one card flow. It knows the entry point's name and the
// family whose phrasing its lines follow, and writes the fixed lines of the
// steps the flows share (record walk, log read, initiation failures), so a
// flow never assembles format texts itself. The texts are the ones teller
// sites have always grepped their logs for, byte for byte.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace kolt::emv {

// A trace line of a text of known length (an empty text is logged as such,
// never as a terminated string at a null pointer), or of its bytes in hex.
void log_text(const char* format, std::string_view text);
void log_hex(const char* format, std::string_view bytes);

enum class Family {
    icrt,  // KOLT_ICRT_ cores
    ic,    // IC_ cores
};

class FlowTrace {
public:
    FlowTrace(std::string_view entry, Family family) : entry_(entry), family_(family) {}

    // entry + " " + rest: the format of one line (rest holds its conversion).
    std::string format(std::string_view rest) const;
    void debug_text(std::string_view rest, std::string_view text) const;
    void debug_int(std::string_view rest, int value) const;
    void error_text(std::string_view rest, std::string_view text) const;
    void error_int(std::string_view rest, int value) const;
    void debug_hex(std::string_view rest, std::span<const uint8_t> bytes) const;
    void error_hex(std::string_view rest, std::span<const uint8_t> bytes) const;
    // The 30 letter slots, four lines each ("<entry> apduTagList i =%d" ...).
    void slots() const;

    // The AFL record walk.
    void walk_entry(int index) const;
    void walk_record(int record) const;
    void walk_parsed(std::string_view found) const;
    void walk_all_found() const;
    void walk_read_failed(int32_t result) const;

    // The transaction-log read.
    void log_get_data() const;
    void log_get_data_failed() const;
    void log_format(std::span<const uint8_t> format) const;
    void log_record_reply(std::span<const uint8_t> reply) const;
    void log_formatted(int running_length, std::string_view text) const;

    // Initiation failures of the IC_ family.
    void init_power_on_failed(int32_t result) const;
    void init_not_inserted() const;
    void init_locked() const;
    void init_other(int32_t result) const;

private:
    std::string entry_;
    Family family_;
};

}  // namespace kolt::emv
