# Writes the bad-argument cases of every exported function, read from the
# public header, as a C++ source for bad_arguments_test.
#   cmake -DHEADER=<kolt.h> -DOUT=<generated .cpp> -P gen_bad_arguments.cmake
#
# For each KOLT_API function line it emits a call thunk (the arguments come
# from a slot array), the parameters with their kind, and the cases: one
# bad value for one parameter, every other argument valid. The kind of a
# parameter comes from its type and name:
#   text      const char*            NULL, "", 10,000 characters
#   hex       hex text (hex in the parameter or function name, ARPC, AID
#             text, application data text)
#                                    also odd length, not hex
#   letters   tag-letter list        also unknown letters
#   out       char* / uint8_t* / void* (an output or in-place buffer)   NULL
#   in        const uint8_t* / const void* / struct pointers            NULL
#   outint    int32_t*               NULL
#   length    a count of bytes or characters   -1, 0, INT32_MIN, INT32_MAX (UINT32_MAX unsigned)
#   timeout   seconds                0, -1 / UINT32_MAX, INT32_MIN, INT32_MAX
#   termtype  terminal type          -1, 7, 1000, INT32_MIN, INT32_MAX
#   port      port number            -1, 9, INT32_MIN, INT32_MAX
#   fd        descriptor             -1, INT32_MIN, INT32_MAX
#   int       any other integer      -1 / UINT32_MAX, INT32_MIN, INT32_MAX
#   byte, char, u64, real            0xFF / '\0' and '#' / UINT64_MAX / -1.0
foreach(var HEADER OUT)
  if(NOT ${var})
    message(FATAL_ERROR "gen_bad_arguments.cmake: -D${var}= is missing")
  endif()
endforeach()

file(READ ${HEADER} text)
# One list element per line; the characters CMake lists give a meaning to
# are kept out of the way.
string(REPLACE ";" "@SEMI@" text "${text}")
string(REPLACE "[" "@LB@" text "${text}")
string(REPLACE "]" "@RB@" text "${text}")
string(REPLACE "\\" "@BS@" text "${text}")
string(REPLACE "\n" ";" lines "${text}")

set(family "none")
set(expect_heading FALSE)
set(thunks "")
set(table "")
set(count_functions 0)
set(count_cases 0)

function(kind_of type name fn out_var)
  string(REGEX REPLACE " +" " " type "${type}")
  string(STRIP "${type}" type)
  string(TOLOWER "${fn}" fn_lower)
  set(kind int)
  if(type MATCHES "\\*.*\\*")
    set(kind out)
  elseif(type MATCHES "^const char \\*$")
    if(name MATCHES "^(tagList|letters)$")
      set(kind letters)
    elseif(name MATCHES "[Hh]ex|^arpc$|^aidText$|^appData$" OR fn_lower MATCHES "hex")
      set(kind hex)
    else()
      set(kind text)
    endif()
  elseif(type MATCHES "^const ")
    set(kind in)
  elseif(type MATCHES "^int32_t \\*$")
    set(kind outint)
  elseif(type MATCHES "^(tlv_t|tlv_field_t) \\*$")
    set(kind out)
  elseif(type MATCHES "\\*$")
    set(kind out)
  elseif(type STREQUAL "uint8_t")
    set(kind byte)
  elseif(type STREQUAL "char")
    set(kind char)
  elseif(type STREQUAL "uint64_t")
    set(kind u64)
  elseif(type STREQUAL "double")
    set(kind real)
  elseif(name MATCHES "[Tt]imeout|[Ss]econds|[Ss]ecs$")
    set(kind timeout)
  elseif(name MATCHES "^(termType|type)$")
    set(kind termtype)
  elseif(name MATCHES "^(port|portId|serverPort)$")
    set(kind port)
  elseif(name STREQUAL "fd")
    set(kind fd)
  elseif(name MATCHES "^(len|n|size|lc|width|avail|length|[a-z]+Len)$")
    set(kind length)
  endif()
  set(${out_var} ${kind} PARENT_SCOPE)
endfunction()

foreach(line IN LISTS lines)
  # Families: the banner headings of the support section, then the
  # KOLT-<NAME>-BEGIN markers of the subsystems.
  if(expect_heading)
    set(expect_heading FALSE)
    if(line MATCHES "^ \\* ([A-Za-z][^:(]*)(: ([^(]*))?")
      set(head "${CMAKE_MATCH_1}")
      if(CMAKE_MATCH_3)
        set(head "${CMAKE_MATCH_1} ${CMAKE_MATCH_3}")
      endif()
      string(TOLOWER "${head}" head)
      string(REGEX REPLACE "[^a-z0-9]+" "_" head "${head}")
      string(REGEX REPLACE "^_+|_+$" "" head "${head}")
      set(family "${head}")
    endif()
    continue()
  endif()
  if(line MATCHES "^/\\* =+$")
    set(expect_heading TRUE)
    continue()
  endif()
  if(line MATCHES "^/\\* ---- KOLT-([A-Z0-9]+)-BEGIN")
    string(TOLOWER "${CMAKE_MATCH_1}" family)
    continue()
  endif()
  if(NOT line MATCHES "^KOLT_API ")
    continue()
  endif()
  if(line MATCHES "^KOLT_API extern ")
    continue()
  endif()
  if(NOT line MATCHES "^KOLT_API (.*[ *])([A-Za-z_][A-Za-z0-9_]*)\\(([^)]*)\\)@SEMI@")
    message(FATAL_ERROR "gen_bad_arguments.cmake: cannot read: ${line}")
  endif()
  set(ret "${CMAKE_MATCH_1}")
  set(fn "${CMAKE_MATCH_2}")
  set(params "${CMAKE_MATCH_3}")
  string(STRIP "${ret}" ret)
  math(EXPR count_functions "${count_functions} + 1")

  set(args "")
  set(param_rows "")
  set(case_rows "")
  set(index 0)
  # The room of the one output buffer whose size the comment names by a
  # constant of the header (KOLT_..._MAX or _SIZE).
  set(room_macro "")
  if(line MATCHES "\\)@SEMI@ */\\*(.*)\\*/")
    string(REGEX MATCHALL "KOLT_[A-Z0-9_]+_(MAX|SIZE)" macros "${CMAKE_MATCH_1}")
    list(REMOVE_DUPLICATES macros)
    string(REGEX MATCHALL "(^|,) *(char|uint8_t) \\*" outs "${params}")
    list(LENGTH macros n_macros)
    list(LENGTH outs n_outs)
    if(n_macros EQUAL 1 AND n_outs EQUAL 1)
      set(room_macro "${macros}")
    endif()
  endif()
  if(NOT params STREQUAL "void")
    string(REPLACE "," ";" plist "${params}")
    foreach(p IN LISTS plist)
      string(STRIP "${p}" p)
      if(NOT p MATCHES "^(.*[ *])([A-Za-z_][A-Za-z0-9_]*)$")
        message(FATAL_ERROR "gen_bad_arguments.cmake: parameter '${p}' of ${fn}")
      endif()
      set(ptype "${CMAKE_MATCH_1}")
      set(pname "${CMAKE_MATCH_2}")
      string(STRIP "${ptype}" ptype)
      kind_of("${ptype}" "${pname}" "${fn}" kind)
      set(unsigned FALSE)
      if(ptype MATCHES "^uint32_t$")
        set(unsigned TRUE)
      endif()
      list(APPEND args "a.get<${ptype}>(${index})")
      set(room -1)
      if(room_macro AND ptype MATCHES "^(char|uint8_t) \\*$")
        set(room ${room_macro})
      endif()
      string(APPEND param_rows "{\"${pname}\", \"${ptype}\", Kind::k_${kind}, ${room}},")
      # The bad values of the kind.
      set(values "")
      if(kind MATCHES "^(text|hex|letters)$")
        set(values null empty long_text)
        if(kind STREQUAL "hex")
          list(APPEND values odd_hex non_hex)
        elseif(kind STREQUAL "letters")
          list(APPEND values bad_letters)
        endif()
      elseif(kind MATCHES "^(out|in|outint)$")
        set(values null)
      elseif(kind STREQUAL "length")
        set(values minus_one zero int_min int_max)
      elseif(kind STREQUAL "timeout")
        set(values zero minus_one int_min int_max)
      elseif(kind STREQUAL "termtype")
        set(values minus_one seven thousand int_min int_max)
      elseif(kind STREQUAL "port")
        set(values minus_one nine int_min int_max)
      elseif(kind STREQUAL "fd")
        set(values minus_one int_min int_max)
      elseif(kind STREQUAL "int")
        set(values minus_one int_min int_max)
      elseif(kind STREQUAL "byte")
        set(values byte_ff)
      elseif(kind STREQUAL "char")
        set(values nul_char bad_char)
      elseif(kind STREQUAL "u64")
        set(values u64_max)
      elseif(kind STREQUAL "real")
        set(values minus_one_real)
      endif()
      foreach(v IN LISTS values)
        # For an unsigned parameter -1 is UINT32_MAX: named so.
        if(unsigned AND v STREQUAL "minus_one")
          set(v uint_max)
        endif()
        string(APPEND case_rows "{${index}, Value::v_${v}},")
        math(EXPR count_cases "${count_cases} + 1")
      endforeach()
      math(EXPR index "${index} + 1")
    endforeach()
  endif()

  list(JOIN args ", " arglist)
  if(ret STREQUAL "void")
    set(body "${fn}(${arglist}); return 0;")
    set(rkind "Return::r_none")
  elseif(ret MATCHES "\\*$")
    set(body "return ${fn}(${arglist}) != nullptr ? 1 : 0;")
    set(rkind "Return::r_pointer")
  elseif(ret STREQUAL "uint32_t")
    set(body "return static_cast<long long>(${fn}(${arglist}));")
    set(rkind "Return::r_unsigned32")
  else()
    set(body "return static_cast<long long>(${fn}(${arglist}));")
    set(rkind "Return::r_signed32")
  endif()
  string(APPEND thunks "long long call_${fn}(Slots& a) { (void)a; ${body} }\n")
  string(APPEND table "    {\"${fn}\", \"${family}\", ${rkind}, call_${fn}, ${index},\n     {${param_rows}},\n     {${case_rows}}},\n")
endforeach()

string(CONFIGURE [=[// Generated by tests/gen_bad_arguments.cmake from include/kolt/kolt.h: do
// not edit. @count_functions@ functions, @count_cases@ cases.
#include "bad_arguments.hpp"

namespace kolt::test::badargs {
namespace {

@thunks@
}  // namespace

const std::vector<Function>& functions() {
    static const std::vector<Function> all = {
@table@    };
    return all;
}

}  // namespace kolt::test::badargs
]=] content @ONLY)
string(REPLACE "@SEMI@" ";" content "${content}")
string(REPLACE "@LB@" "[" content "${content}")
string(REPLACE "@RB@" "]" content "${content}")
string(REPLACE "@BS@" "\\" content "${content}")
file(WRITE ${OUT} "${content}")
