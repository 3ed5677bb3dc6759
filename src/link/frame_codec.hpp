// Device frame codecs: pure functions over byte spans, no descriptor, no
// clock, no log. The link layer moves the bytes; these build what it sends
// and judge what it received.
//
// Three frame families:
//  - the main frame: 02, then every byte as two characters '0' + high nibble,
//    '0' + low nibble, then 03. Logically: length (data + 2, big-endian),
//    class, code, data, XOR check of class, code and data. A reply carries
//    the status pair s1 s2 in place of class and code. One reply (the
//    identity-card read) carries its body as raw base64 text instead, its
//    length field counting characters;
//  - the bracket frame: "(", three base64 characters of the count, the
//    command byte, base64 data, two base64 check characters, ")";
//  - the 0x86 frame of the older device family, in nibble text, checked
//    with an additive sum.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kolt::link::codec {

// How the body of a main reply travels.
enum class Body {
    nibbles,  // every byte as two characters; the length counts bytes
    base64,   // raw base64 characters; the length counts characters
};

// Wire bytes before the body of each reply family, read first to learn how
// much more to read.
inline constexpr std::size_t kMainHead = 5;     // 02 and four length characters
inline constexpr std::size_t kBracketHead = 4;  // "(" and three count characters
inline constexpr std::size_t k100sHead = 6;     // "86" and four length characters

// ---------------------------------------------------------------------------
// Main frame.

// Logical frame: 02, length, class, code, data, check, 03.
std::vector<uint8_t> main_frame(uint8_t cls, uint8_t code, std::span<const uint8_t> data);
// Wire form of a logical frame: 02 and 03 raw, every byte between them as
// two nibble characters.
std::vector<uint8_t> nibble_wire(std::span<const uint8_t> logical);

// Wire bytes that follow the head of a main reply (body, two check
// characters, 03); -1 for a head that is not one. head holds kMainHead bytes.
long main_rest(std::span<const uint8_t> head, Body body);
// Decoded size of a main reply with that head: what the caller needs room for.
long main_decoded_size(std::span<const uint8_t> head, Body body);

// Decodes a whole main reply as received (head and rest) into out: 02,
// length, s1, s2, data, check, 03 (a base64 body is decoded, its count in
// the length bytes and 0x30 0x03 after the data). Returns the decoded
// length; -1 (Lenth_Error) when the wire is shorter than its length field
// says or out has no room, -2 (Revdata_Error) on a wrong check byte.
int decode_main(std::span<const uint8_t> wire, Body body, std::span<uint8_t> out);

// Decodes in place the base64 body of a reply already in logical form:
// L = reply[1..2], the L characters from reply[3]. The decoded count n goes
// to reply[1..2], 0x30 and 0x03 follow the data. Returns n + 5; -1 when L
// runs past the reply's room.
int unbase64_reply(std::span<uint8_t> reply);

// ---------------------------------------------------------------------------
// Bracket frame.

std::vector<uint8_t> bracket_frame(uint8_t cmd, std::span<const uint8_t> data);
// Wire bytes after the head of a bracket reply (the count it announces).
long bracket_rest(std::span<const uint8_t> head);
// Decodes a whole bracket reply into out: the data bytes. Returns their
// count; -1 when the reply is short or out has no room, -2 on a check
// mismatch.
int decode_bracket(std::span<const uint8_t> wire, std::span<uint8_t> out);

// ---------------------------------------------------------------------------
// 0x86 frame.

// 86 00 03 cmd cmd+3 16 in nibble text.
std::vector<uint8_t> frame_100s(uint8_t cmd);
// Wire bytes after the head of an 0x86 reply; -1 for a bad head.
long reply_100s_rest(std::span<const uint8_t> head);
// Decodes a whole 0x86 reply (nibble text) into out. Returns the decoded
// length; -1 when short or out has no room, -2 on a sum mismatch.
int decode_100s(std::span<const uint8_t> wire, std::span<uint8_t> out);

// ---------------------------------------------------------------------------
// Device probe: an 0x86-family query followed by a bracket-family command
// "A"; each family ignores the other's frame and answers its own.
inline constexpr char kProbe[] = "860003101316(AAQAEA)";

}  // namespace kolt::link::codec
