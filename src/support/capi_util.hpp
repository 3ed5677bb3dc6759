// Conversions shared by the C entry points (*_capi.cpp files): caller
// pointers and lengths to spans and views, time-outs to int seconds, and
// results copied back into caller buffers. Nothing here knows a subsystem.
#pragma once

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kolt::capi {

// A caller's text; nullptr reads as empty.
inline std::string_view text(const char* p) { return p == nullptr ? std::string_view() : std::string_view(p); }

// A caller's text up to max characters (never reads past them).
inline std::string_view text(const char* p, std::size_t max) {
    return p == nullptr ? std::string_view() : std::string_view(p, ::strnlen(p, max));
}

// A caller's buffer of len elements; empty for nullptr or len <= 0.
template <class T>
std::span<T> span(T* p, int32_t len) {
    if (p == nullptr || len <= 0) return {};
    return std::span<T>(p, static_cast<std::size_t>(len));
}

// The bytes of a text (no terminator).
inline std::span<const uint8_t> bytes(std::string_view s) {
    return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}
inline const uint8_t* bytes(const char* p) { return reinterpret_cast<const uint8_t*>(p); }

// An unsigned time-out in seconds as the int the link takes (saturated).
inline int seconds(uint32_t t) { return static_cast<int>(std::min<uint32_t>(t, INT_MAX)); }

// Copies text and a terminator into out, cut to room - 1 characters.
// Nothing happens for a null out or a zero room.
inline void copy_text(char* out, std::string_view text, std::size_t room = SIZE_MAX) {
    if (out == nullptr || room == 0) return;
    const std::size_t n = std::min(text.size(), room - 1);
    if (n > 0) std::memcpy(out, text.data(), n);
    out[n] = '\0';
}

// copy_text of a result that may hold no text (then nothing is written).
inline void copy_text_if(char* out, const std::optional<std::string>& text) {
    if (text) copy_text(out, std::string_view(*text));
}

// Copies bytes into out (no terminator); nothing for a null out.
inline void copy_bytes(uint8_t* out, std::span<const uint8_t> bytes) {
    if (out != nullptr && !bytes.empty()) std::memcpy(out, bytes.data(), bytes.size());
}

// Stores a value through an optional out-pointer.
template <class T, class V>
void put(T* out, V value) {
    if (out != nullptr) *out = static_cast<T>(value);
}

}  // namespace kolt::capi
