// Built-in escape sequences of the teller terminals with an auxiliary port
// (internal terminal types 1 to 5). Types 50 and above take theirs from the
// terminal command file "idcread.ext".
#pragma once

#include <array>

namespace kolt::link {

// Open sequences, indexed by (type - 1) * 4 + (port - 1).
extern const std::array<const char*, 20> termOpenAux;
// Close sequences, same index. Only 19 entries: type 5 port 4 has none and
// closes with an empty sequence.
extern const std::array<const char*, 19> termCloseAux;
// Per-type rows, indexed by type - 1.
extern const std::array<const char*, 5> dataAuxLead;
extern const std::array<const char*, 5> dataAuxEnd;
extern const std::array<const char*, 5> keyLockCmd;
extern const std::array<const char*, 5> keyUnlockCmd;
// Pass-through port commands (hex text) for transfer ports A, B, C, D, K.
extern const std::array<const char*, 5> transferCmd;
// Type digit pair and port digit of every table row ("011" to "054");
// carried with the tables, not consulted.
extern const std::array<const char*, 20> termTypeAuxno;

}  // namespace kolt::link
