// Hex text, BCD, search and whole-file helpers. Their edge behaviour is
// relied on by the link and the card flows and is kept exactly: the 0x3A
// digit, the odd final hex character, the sense of the digit checks, the
// same bytes from two random draws within one second.
#include "support/hex.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "kolt/kolt.h"
#include "support/file.hpp"

namespace kolt::support {
namespace {

uint32_t digit_of(unsigned char c) {
    // 0x30..0x3A: the colon counts as ten, as the device's own tools write it.
    if (c >= 0x30 && c <= 0x3A) return c - 0x30u;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10u;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10u;
    return 0;
}

// One pair of characters read as base-16 text (strtol: leading blanks and a
// sign are accepted, conversion stops at the first non-digit; none gives 0).
uint8_t pair_value(const char* text, size_t len, size_t pos) {
    char pair[3] = {0, 0, 0};
    if (pos < len) pair[0] = text[pos];
    if (pos + 1 < len) pair[1] = text[pos + 1];
    return static_cast<uint8_t>(std::strtol(pair, nullptr, 16));
}

// Packs even-length digit text into len/2 bytes by base-16 pairs.
std::vector<uint8_t> pack_pairs(const std::string& text) {
    std::vector<uint8_t> out(text.size() / 2);
    for (size_t i = 0; i < out.size(); ++i) out[i] = pair_value(text.data(), text.size(), 2 * i);
    return out;
}

// The replace loop: after each replacement the search starts again at the
// beginning. A to that contains from would never end that way, so then
// every occurrence is replaced once, left to right. The text never grows
// beyond max_len characters, and the number of rounds is bounded.
std::string replace_core(std::string text, std::string_view from, std::string_view to, size_t max_len) {
    if (from.empty()) return text;
    if (to.find(from) != std::string_view::npos) {
        std::string out;
        size_t pos = 0;
        for (;;) {
            const size_t hit = text.find(from, pos);
            if (hit == std::string::npos) break;
            out.append(text, pos, hit - pos);
            out.append(to);
            pos = hit + from.size();
        }
        out.append(text, pos, std::string::npos);
        if (out.size() > max_len) out.resize(max_len);
        return out;
    }
    for (size_t rounds = 0; rounds < 65536; ++rounds) {
        const size_t hit = text.find(from);
        if (hit == std::string::npos) break;
        if (text.size() - from.size() + to.size() > max_len) break;
        text.replace(hit, from.size(), to);
    }
    return text;
}

}  // namespace

std::string to_hex_upper(std::span<const uint8_t> bytes) {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (const uint8_t b : bytes) {
        out += digits[b >> 4];
        out += digits[b & 15];
    }
    return out;
}

uint32_t hex_value(std::string_view text) {
    uint32_t value = 0;
    for (const char c : text) value = value * 16 + digit_of(static_cast<unsigned char>(c));
    return value;
}

std::vector<uint8_t> from_hex(std::string_view text) {
    std::vector<uint8_t> out((text.size() + 1) / 2);
    for (size_t i = 0; i < out.size(); ++i) {
        const uint32_t hi = digit_of(static_cast<unsigned char>(text[2 * i]));
        const uint32_t lo = 2 * i + 1 < text.size() ? digit_of(static_cast<unsigned char>(text[2 * i + 1])) : 0;
        out[i] = static_cast<uint8_t>(hi * 16 + lo);
    }
    return out;
}

std::vector<uint8_t> pack_bcd(std::string_view digits) {
    std::string text(digits);
    if (text.size() % 2 != 0) text.insert(text.begin(), '0');
    return pack_pairs(text);
}

std::string replace_all(std::string text, std::string_view from, std::string_view to) {
    const size_t limit = std::max<size_t>(text.size(), 1023) + 65536;
    return replace_core(std::move(text), from, to, limit);
}

bool read_file(const std::string& path, std::vector<uint8_t>& out) {
    File fp(std::fopen(path.c_str(), "rb"));
    if (!fp) return false;
    out.clear();
    uint8_t buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, fp.get())) > 0) out.insert(out.end(), buf, buf + n);
    return true;
}

}  // namespace kolt::support

// ---------------------------------------------------------------------------
// C interface

namespace ks = kolt::support;

extern "C" {

KOLT_API uint32_t KOLT_hexstrtoint(const char* text, int32_t n) {
    if (text == nullptr || n <= 0) return 0;
    // The caller names n characters; a terminator inside them ends the read
    // (it would contribute a zero digit, the rest lies beyond the text).
    uint32_t value = 0;
    bool ended = false;
    for (int32_t i = 0; i < n; ++i) {
        const unsigned char c = ended ? 0 : static_cast<unsigned char>(text[i]);
        if (c == 0) ended = true;
        value = value * 16 + ks::digit_of(c);
    }
    return value;
}

KOLT_API int32_t KOLT_hexstrtointBuf(const char* text, uint8_t* out) {
    if (out == nullptr) return 0;
    std::memset(out, 0, 8);
    if (text == nullptr) return 0;
    const size_t len = std::strlen(text);
    for (size_t i = 0; i < len; i += 2) out[i / 2] = static_cast<uint8_t>(KOLT_hexstrtoint(text + i, 2));
    return 0;
}

KOLT_API int32_t KOLT_hexStrToIntStr(const char* text, uint8_t* out) {
    if (text == nullptr || out == nullptr) return 0;
    const size_t len = std::strlen(text);
    // One step per input character, not per pair: out receives len bytes,
    // the first len/2 of them meaningful, the rest the values of the pairs
    // beyond the text (a lone last digit, then zeros).
    for (size_t i = 0; i < len; ++i) out[i] = ks::pair_value(text, len, 2 * i);
    return static_cast<int32_t>(len / 2);
}

KOLT_API int32_t BCDBuf2HexCharBuf(const uint8_t* bytes, int32_t n, char* out) {
    if (out == nullptr) return 0;
    if (bytes == nullptr || n < 0) n = 0;
    const std::string hex = ks::to_hex_upper(std::span<const uint8_t>(bytes, static_cast<size_t>(n)));
    std::memcpy(out, hex.c_str(), hex.size() + 1);
    return 2 * n;
}

KOLT_API int32_t KOLT_buf2HexStrBuf(char* out, int32_t n, uint8_t* bytes) {
    if (out == nullptr || bytes == nullptr || n <= 0) return 0;
    static constexpr char digits[] = "0123456789abcdef";
    for (int32_t i = 0; i < n; ++i) {
        out[2 * i] = digits[bytes[i] >> 4];
        out[2 * i + 1] = digits[bytes[i] & 15];
    }
    // The routine upper-cases its source, not its output: the hex text stays
    // lower case (use BCDBuf2HexCharBuf for upper case). Only the n source
    // bytes that exist are upper-cased; the source is never written past
    // its end.
    for (int32_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(std::toupper(bytes[i]));
    return 2 * n;
}

KOLT_API int32_t Decimal2BCDBuf(int32_t value, uint8_t* out, int32_t width) {
    if (out == nullptr) return -1;
    char text[16] = {0};
    std::snprintf(text, sizeof text, "%d", value);
    const std::vector<uint8_t> packed = ks::pack_bcd(text);
    if (width < 0 || packed.size() > static_cast<size_t>(width)) return -1;
    // Right-aligned; the bytes to the left of the digits are left as they
    // are (callers clear them).
    std::memcpy(out + (width - static_cast<int32_t>(packed.size())), packed.data(), packed.size());
    return width;
}

KOLT_API int32_t byteBuf2BCDBuf(const char* digits, int32_t n, uint8_t* out, int32_t width) {
    if (digits == nullptr || out == nullptr || n < 0 || width < 0) return -1;
    if ((n + 1) / 2 > width) return -1;
    // n characters, but never past a terminator inside them.
    const std::vector<uint8_t> packed = ks::pack_bcd(std::string_view(digits, ::strnlen(digits, static_cast<size_t>(n))));
    // Only the packed bytes are written, right-aligned in out[0..width-1];
    // nothing beyond width is touched.
    std::memcpy(out + (width - static_cast<int32_t>(packed.size())), packed.data(), packed.size());
    return width;
}

KOLT_API int32_t KOLT_atoiLen(const char* text, int32_t n) {
    if (text == nullptr || n <= 0) return 0;
    const std::string copy(text, ::strnlen(text, static_cast<size_t>(n)));
    return std::atoi(copy.c_str());
}

KOLT_API char* KOLT_itoa(uint64_t value, char* out, int32_t base) {
    if (out == nullptr) return out;
    if (base < 2 || base > 36) {
        // Base 0 (and any base that cannot spell a number) writes "0".
        out[0] = '0';
        out[1] = 0;
        return out;
    }
    static constexpr char digits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
    char tmp[72];
    int n = 0;
    do {
        tmp[n++] = digits[value % static_cast<uint64_t>(base)];
        value /= static_cast<uint64_t>(base);
    } while (value != 0);
    for (int i = 0; i < n; ++i) out[i] = tmp[n - 1 - i];
    out[n] = 0;
    return out;
}

KOLT_API int32_t KOLT_strpos(const char* needle, const char* haystack) {
    if (needle == nullptr || needle[0] == 0) return -2;
    if (haystack == nullptr || haystack[0] == 0) return -3;
    const char* hit = std::strstr(haystack, needle);
    return hit == nullptr ? -1 : static_cast<int32_t>(hit - haystack);
}

KOLT_API int32_t KOLT_SubBufPos(const uint8_t* needle, int32_t needleLen, const uint8_t* buffer, int32_t bufferLen) {
    if (needle == nullptr || needleLen < 1) return -2;
    if (buffer == nullptr || bufferLen < needleLen) return -3;
    const auto* end = buffer + bufferLen;
    const auto* hit = std::search(buffer, end, needle, needle + needleLen);
    return hit == end ? -1 : static_cast<int32_t>(hit - buffer);
}

KOLT_API int32_t KOLT_GetSubStr(const char* text, char* out, char separator, int32_t k) {
    if (out == nullptr) return 0;
    out[0] = 0;
    if (text == nullptr || k < 1) return 0;
    // Walk to the start of field k; a text with fewer fields gives an empty
    // field.
    size_t start = 0;
    for (int32_t i = 1; i < k; ++i) {
        const char* sep = std::strchr(text + start, separator);
        if (sep == nullptr || separator == 0) return 0;
        start = static_cast<size_t>(sep - text) + 1;
    }
    const char* sep = separator == 0 ? nullptr : std::strchr(text + start, separator);
    if (sep == nullptr) {
        // The last field: the whole rest, and 0.
        std::strcpy(out, text + start);
        return 0;
    }
    const size_t n = static_cast<size_t>(sep - (text + start));
    std::memcpy(out, text + start, n);
    out[n] = 0;
    return static_cast<int32_t>(start);
}

KOLT_API int32_t KOLT_strreplace(const char* from, const char* to, char* text) {
    if (from == nullptr || to == nullptr || text == nullptr) return 0;
    // The working copy holds at most 1023 characters and a terminator.
    std::string work(text, ::strnlen(text, 1023));
    work = ks::replace_core(std::move(work), from, to, 1023);
    std::memcpy(text, work.c_str(), work.size() + 1);
    return 0;
}

KOLT_API int32_t KOLT_CharIsNum(uint8_t c) { return (c >= '0' && c <= '9') ? 0 : -1; }

KOLT_API int32_t KOLT_isNum(const uint8_t* bytes, int32_t n) {
    if (bytes == nullptr && n > 0) return -1;
    for (int32_t i = 0; i < n; ++i)
        if (KOLT_CharIsNum(bytes[i]) != 0) return -1;
    return 0;
}

KOLT_API int32_t KOLT_GetRandByte(uint8_t* out, int32_t n) {
    // Seeded from the time in seconds on every call: two calls within the
    // same second give the same bytes, which the card flows accept.
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    for (int32_t i = 0; out != nullptr && i < n; ++i) out[i] = static_cast<uint8_t>(std::rand() & 0xFF);
    return n;
}

KOLT_API int32_t KOLT_getFileSize(const char* path) {
    if (path == nullptr) return -1;
    ks::File fp(std::fopen(path, "rb"));
    if (!fp) return -1;
    if (std::fseek(fp.get(), 0, SEEK_END) != 0) return -1;
    return static_cast<int32_t>(std::ftell(fp.get()));
}

KOLT_API int32_t KOLT_copyfile(const char* destination, const char* source) {
    if (destination == nullptr || source == nullptr) return -1;
    std::vector<uint8_t> data;
    {
        // The source is opened for reading and update, as the teller
        // system's own copies are.
        ks::File in(std::fopen(source, "rb+"));
        if (!in) return -1;
        uint8_t buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, in.get())) > 0) data.insert(data.end(), buf, buf + n);
    }
    ks::File out(std::fopen(destination, "wb"));
    if (!out) return -2;
    if (!data.empty() && std::fwrite(data.data(), 1, data.size(), out.get()) != data.size()) return -2;
    return 0;
}

KOLT_API int32_t KOLT_readFile2Buf(const char* path, uint8_t* buffer, int32_t n) {
    if (path == nullptr) return -1;
    ks::File fp(std::fopen(path, "rb"));
    if (!fp) return -1;
    if (buffer != nullptr && n > 0) {
        const size_t got = std::fread(buffer, 1, static_cast<size_t>(n), fp.get());
        (void)got;  // a shorter file still answers n
    }
    return n;
}

KOLT_API int32_t KOLT_readFileToBuf(const char* path, uint8_t* buffer) {
    if (path == nullptr) return -1;
    std::vector<uint8_t> data;
    if (!ks::read_file(path, data)) return -1;
    if (buffer != nullptr && !data.empty()) std::memcpy(buffer, data.data(), data.size());
    return static_cast<int32_t>(data.size());
}

KOLT_API int32_t KOLT_writeBuf2File(const char* path, const uint8_t* buffer, int32_t n) {
    if (path == nullptr || n < 0 || (buffer == nullptr && n > 0)) return -1;
    // Never overwrites: an existing path is refused, and the exclusive
    // create closes the gap between the check and the open.
    if (::access(path, F_OK) == 0) return -1;
    const ks::UniqueFd fd(::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (fd.get() < 0) return -1;
    size_t done = 0;
    while (done < static_cast<size_t>(n)) {
        const ssize_t w = ::write(fd.get(), buffer + done, static_cast<size_t>(n) - done);
        if (w <= 0) break;
        done += static_cast<size_t>(w);
    }
    return done == static_cast<size_t>(n) ? 0 : -1;
}

}  // extern "C"
