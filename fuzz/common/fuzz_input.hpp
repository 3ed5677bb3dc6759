// Helpers shared by the fuzz targets: a reader that splits one fuzz input
// into fields, exactly sized heap copies (so that AddressSanitizer sees any
// access past what a caller would hand over) and a scratch file for the
// readers of files.
//
// Field layout, as fuzz/make_seeds.py writes it: fixed-size fields are read
// from the front in order, a "short" field is one length byte followed by
// that many bytes, and the rest of the input is the last field. A field
// that runs past the end of the input is cut there.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kolt::fuzz {

class Input {
public:
    Input(const uint8_t* data, std::size_t size) : data_(data), size_(size) {}

    std::size_t left() const { return size_ - pos_; }

    uint8_t u8() { return pos_ < size_ ? data_[pos_++] : 0; }
    // Big-endian, missing bytes read as zero.
    uint16_t u16() { return static_cast<uint16_t>((u8() << 8) | u8()); }
    uint32_t u32() { return (static_cast<uint32_t>(u16()) << 16) | u16(); }
    int32_t i32() { return static_cast<int32_t>(u32()); }

    std::span<const uint8_t> bytes(std::size_t n) {
        if (n > left()) n = left();
        const std::span<const uint8_t> s(data_ + pos_, n);
        pos_ += n;
        return s;
    }
    // One length byte, then that many bytes.
    std::span<const uint8_t> short_field() { return bytes(u8()); }
    std::string short_string() { return str(short_field()); }
    std::span<const uint8_t> rest() { return bytes(left()); }

    static std::string str(std::span<const uint8_t> b) { return std::string(b.begin(), b.end()); }

private:
    const uint8_t* data_;
    std::size_t size_;
    std::size_t pos_ = 0;
};

// A heap block of exactly n bytes (at least one allocation even for n == 0,
// so that the pointer is valid but any access is reported).
class Heap {
public:
    explicit Heap(std::size_t n) : n_(n), p_(static_cast<uint8_t*>(std::malloc(n == 0 ? 1 : n))) {
        if (p_ == nullptr) std::abort();
        std::memset(p_, 0xA5, n == 0 ? 1 : n);
    }
    Heap(std::span<const uint8_t> content, std::size_t n) : Heap(n) {
        const std::size_t k = content.size() < n ? content.size() : n;
        if (k > 0) std::memcpy(p_, content.data(), k);
    }
    ~Heap() { std::free(p_); }
    Heap(const Heap&) = delete;
    Heap& operator=(const Heap&) = delete;

    uint8_t* data() { return p_; }
    const uint8_t* data() const { return p_; }
    char* chars() { return reinterpret_cast<char*>(p_); }
    const char* chars() const { return reinterpret_cast<const char*>(p_); }
    std::size_t size() const { return n_; }
    std::span<uint8_t> span() { return {p_, n_}; }

    // The bytes given and a terminating zero, in exactly that many bytes.
    static std::unique_ptr<Heap> text(std::span<const uint8_t> b) {
        auto h = std::make_unique<Heap>(b, b.size() + 1);
        h->p_[b.size()] = 0;
        return h;
    }
    static std::unique_ptr<Heap> text(std::string_view s) {
        return text(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(s.data()), s.size()));
    }

private:
    std::size_t n_;
    uint8_t* p_;
};

// Stops the run with a message: the harness's own checks of what a decoder
// promises (an abort is a finding like a sanitizer report).
[[noreturn]] inline void fail(const char* what) {
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
}
inline void check(bool ok, const char* what) {
    if (!ok) fail(what);
}

// A scratch file under /tmp named after the target and the process id,
// rewritten for every input and removed when the process ends.
class ScratchFile {
public:
    explicit ScratchFile(const std::string& target)
        : path_("/tmp/kolt_fuzz_" + target + "_" + std::to_string(::getpid())) {}
    ~ScratchFile() { std::remove(path_.c_str()); }
    const std::string& path() const { return path_; }
    void write(std::span<const uint8_t> content) const {
        std::FILE* fp = std::fopen(path_.c_str(), "wb");
        if (fp == nullptr) fail("cannot write the scratch file");
        if (!content.empty() && std::fwrite(content.data(), 1, content.size(), fp) != content.size()) {
            fail("cannot write the scratch file");
        }
        std::fclose(fp);
    }

private:
    std::string path_;
};

// Reads every byte of a span, so that a span reaching outside its block is
// reported even when the code under test only hands it on.
inline unsigned touch(std::span<const uint8_t> s) {
    volatile const uint8_t* p = s.data();
    unsigned sum = 0;
    for (std::size_t i = 0; i < s.size(); ++i) sum += p[i];
    return sum;
}

// One reply decoder that reads a head first: bytes 0-1 of the input are the
// room of the output (up to room_max), the rest the reply as received. The
// head is measured on its own, then the whole reply decoded; the result must
// be -1, -2 or a length within the room.
template <class Rest, class Decode>
int fuzz_reply_decoder(const uint8_t* data, std::size_t size, std::size_t room_max, std::size_t head, Rest rest,
                       Decode decode, const char* what) {
    Input in(data, size);
    const std::size_t room = in.u16() % (room_max + 1);
    const auto wire_bytes = in.rest();
    Heap wire(wire_bytes, wire_bytes.size());
    Heap out(room);
    if (wire.size() >= head) (void)rest(std::span<const uint8_t>(wire.data(), head));
    const int n = decode(std::span<const uint8_t>(wire.data(), wire.size()), out.span());
    check(n == -1 || n == -2 || (n >= 0 && static_cast<std::size_t>(n) <= room), what);
    return 0;
}

}  // namespace kolt::fuzz
