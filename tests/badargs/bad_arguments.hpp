// The bad-argument cases of the exported functions: what
// tests/gen_bad_arguments.cmake emits from the public header (one Function
// per KOLT_API line, its parameters and cases) and the argument slots its
// call thunks read.
#pragma once

#include <array>
#include <cstdint>
#include <type_traits>
#include <vector>

#include "kolt/kolt.h"

namespace kolt::test::badargs {

// What a parameter is, from its type and name (see the generator).
enum class Kind {
    k_text,     // const char* text
    k_hex,      // const char* hexadecimal text
    k_letters,  // const char* tag-letter list
    k_out,      // non-const pointer: output or in-place buffer
    k_in,       // const pointer to bytes or a structure
    k_outint,   // int32_t* out (or in/out) value
    k_length,   // a count of bytes or characters
    k_timeout,  // seconds
    k_termtype,
    k_port,
    k_fd,
    k_int,
    k_byte,
    k_char,
    k_u64,
    k_real,
};

// One bad value.
enum class Value {
    v_null,
    v_empty,
    v_long_text,    // 10,000 characters
    v_odd_hex,      // "ABC"
    v_non_hex,      // "G1ZZ"
    v_bad_letters,  // letters outside the tag-letter alphabet
    v_minus_one,
    v_uint_max,     // -1 of an unsigned parameter
    v_zero,
    v_int_min,
    v_int_max,
    v_seven,        // terminal type between the built-in ones and the file's
    v_thousand,     // terminal type far above
    v_nine,         // port above the eight the terminals have
    v_byte_ff,
    v_nul_char,
    v_bad_char,     // '#': no tag letter, no separator of the texts
    v_u64_max,
    v_minus_one_real,
};

enum class Return { r_none, r_pointer, r_unsigned32, r_signed32 };

struct Param {
    const char* name;
    const char* type;
    Kind kind;
    long long room;  // bytes the header gives an output buffer, -1 when it names none
};

struct Case {
    int param;
    Value value;
};

// One argument; a thunk reads the member of its parameter's type.
struct Slot {
    long long i = 0;
    double d = 0;
    void* p = nullptr;
};

struct Slots {
    std::array<Slot, 16> s{};
    template <class T>
    T get(int k) const {
        if constexpr (std::is_pointer_v<T>) {
            return static_cast<T>(s[static_cast<std::size_t>(k)].p);
        } else if constexpr (std::is_floating_point_v<T>) {
            return static_cast<T>(s[static_cast<std::size_t>(k)].d);
        } else {
            return static_cast<T>(s[static_cast<std::size_t>(k)].i);
        }
    }
};

struct Function {
    const char* name;
    const char* family;  // header section: "support_base64", "link", "icc", ...
    Return ret;
    long long (*call)(Slots&);
    int arity;
    std::vector<Param> params;
    std::vector<Case> cases;
};

// Every exported function in header order (generated).
const std::vector<Function>& functions();

}  // namespace kolt::test::badargs
