// DOL data (PDOL, CDOL1, CDOL2): the values a card asks for in its data
// object lists, taken from the tag-letter slots and the terminal's fixed
// values.
#pragma once

#include <cstdint>
#include <span>

namespace kolt::emv {

// Room the exported KOLT_GetApduDataFromCDOL assumes in its out buffer: the
// data of one command.
inline constexpr int kDolRoom = 256;

// Walks dol (tag of one or two bytes, one length byte L per entry) and
// appends each entry's data to out; out_len receives the bytes counted.
//   95    always 5 bytes 00 00 00 08 00 (also stored in the slot of 95)
//   9F37  always the 4 random bytes (also stored in the slot of 9F37)
//   9A    the date text packed as BCD into L bytes (YYYYMMDD drops "YY")
//   9F4E  L raw bytes of the merchant slot
//   other table tags: the slot's digit text packed as BCD into L bytes
//   9F66  F4 00 00 00 (L is what is counted)
//   9F7A  01 (one byte counted, whatever L says)
//   any other tag: L characters "0" (0x30)
// Returns 0, or -1 when the DOL is empty or its data does not fit in out.
int build_dol(std::span<const uint8_t> dol, std::span<const uint8_t, 4> random, std::span<uint8_t> out,
              int32_t& out_len);

}  // namespace kolt::emv
