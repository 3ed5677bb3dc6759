// Built-in escape sequences of the teller terminals (types 1 to 5).
#include "link/aux_tables.hpp"

namespace kolt::link {

const std::array<const char*, 20> termOpenAux = {
    // type 1, ports 1..4
    "\x1b!0;0;0;0Y\x1b[/54l\x1b[/53h\x1b[/50h",
    "\x1b!0;0;0;0Z\x1b[/54l\x1b[/53h\x1b[/50h",
    "\x1b!0;0;0;0X\x1b[/54l\x1b[/53h\x1b[/50h",
    "\x1b!0;0;0;0V\x1b[/54l\x1b[/53h\x1b[/50h",
    // type 2: the same four as type 1
    "\x1b!0;0;0;0Y\x1b[/54l\x1b[/53h\x1b[/50h",
    "\x1b!0;0;0;0Z\x1b[/54l\x1b[/53h\x1b[/50h",
    "\x1b!0;0;0;0X\x1b[/54l\x1b[/53h\x1b[/50h",
    "\x1b!0;0;0;0V\x1b[/54l\x1b[/53h\x1b[/50h",
    // type 3
    "\x1b[/1;1;8;0;1;0M\x1b[/54l",
    "\x1b[/2;1;8;0;1;0M\x1b[/54l",
    "\x1b[/3;1;8;0;1;0M\x1b[/54l",
    "\x1b[/4;1;8;0;1;0M\x1b[/54l",
    // type 4
    "\x1b[>",
    "\x1b[1>",
    "\x1b[2>",
    "\x1b[3>",
    // type 5: as type 1
    "\x1b!0;0;0;0Y\x1b[/54l\x1b[/53h\x1b[/50h",
    "\x1b!0;0;0;0Z\x1b[/54l\x1b[/53h\x1b[/50h",
    "\x1b!0;0;0;0X\x1b[/54l\x1b[/53h\x1b[/50h",
    "\x1b!0;0;0;0V\x1b[/54l\x1b[/53h\x1b[/50h",
};

const std::array<const char*, 19> termCloseAux = {
    "\x1b[/50l", "\x1b[/50l", "\x1b[/50l", "\x1b[/50l",  // type 1
    "\x1b[/50l", "\x1b[/50l", "\x1b[/50l", "\x1b[/50l",  // type 2
    "\x1b[/M",   "\x1b[/M",   "\x1b[/M",   "\x1b[/M",    // type 3
    "\x1b[<",    "\x1b[<",    "\x1b[<",    "\x1b[<",     // type 4
    // type 5: port 1 closes twice, deliberately; port 4 has no entry.
    "\x1b[/50l\x1b[/50l", "\x1b[/50l", "\x1b[/50l",
};

const std::array<const char*, 5> dataAuxLead = {
    "\x1b[/51h", "\x1b[/51h", "\x1b[/|", "", "\x1b[/51h",
};

const std::array<const char*, 5> dataAuxEnd = {
    "\x1b[/51l", "\x1b[/51l", "|", "", "\x1b[/51l",
};

const std::array<const char*, 5> keyLockCmd = {
    "\x1b[2h", "\x1b[2h", "\x1b[2h", "\x1b[2h", "\x1b[2h",
};

const std::array<const char*, 5> keyUnlockCmd = {
    "\x1b[2l", "\x1b[2l", "\x1b[2l", "\x1b[2l", "\x1b[2l",
};

const std::array<const char*, 5> transferCmd = {
    "1B2541", "1B2542", "1B2543", "1B2544", "1B254B",
};

const std::array<const char*, 20> termTypeAuxno = {
    "011", "012", "013", "014", "021", "022", "023", "024", "031", "032",
    "033", "034", "041", "042", "043", "044", "051", "052", "053", "054",
};

}  // namespace kolt::link
