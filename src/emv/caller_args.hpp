// The caller's arguments of the card flows: bounds of caller texts, the
// fields of a STAR_ input, the port name, the IC type codes and the card kind
// reported back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "link/link_state.hpp"

namespace kolt::emv {

// ---------------------------------------------------------------------------
// Bounds of caller texts.

// Tag letters of one request, and each field of a STAR_ input text: texts
// are read up to this many characters (a 256-byte field with its
// terminator); the rest is ignored.
inline constexpr std::size_t kFieldMax = 255;
// A STAR_ input text is read up to this many characters before it is split.
inline constexpr std::size_t kStarInputMax = 1023;
// Room of a port name (gPortName): 31 characters and a terminator.
inline constexpr std::size_t kPortNameMax = 31;
// Room of the application data block IC_GetInfo keeps for itself: the six
// letters "AJZ34Y", each with a length byte and up to 255 value bytes.
inline constexpr std::size_t kAppDataMax = 6 * (2 + 255);

// A caller's text up to max characters (nullptr reads as empty).
std::string_view bounded(const char* text, std::size_t max);

// The first kFieldMax characters of a STAR_ input's k-th field (from 1).
std::string star_field(std::string_view input, int k);

// What a STAR_ input text carries for the library: the port (field 2, read
// with atoi) and field 4. Traced under the entry point's name ("<name>
// ......", "<name>  datain=", "<name>  iPort=", "<name>  <label>=").
struct StarInput {
    int32_t port = 0;
    std::string field4;
};
StarInput read_star_input(std::string_view input, std::string_view name, std::string_view field4_label);
// The closing trace line "<name>  strReturn=" with the text written.
void log_star_return(std::string_view name, const std::optional<std::string>& text);

// Clears gPortName and copies the name into it (link::set_port_name).
using link::set_port_name;

// ---------------------------------------------------------------------------
// IC type of the public interface to card slot: 0/20 contact (0), 1/21
// contactless (255), 2/22 automatic (2), anything else contact. For the six
// listed codes *flag (when given) receives -1; otherwise it is untouched.
int32_t do_ic_type(int32_t ic_type, int32_t* flag);

// The IC type of an IC_ caller, who counts from 1 (1 contact, 2
// contactless, 3 automatic), in the codes above: one less. The lowest int
// wraps round to the highest, which reads as contact like any other code.
int32_t ic_type_from_one(int32_t caller_type);

// Card kind reported to IC_ callers: 2 for the contactless slot, else 1.
int32_t card_kind_of_slot(int32_t slot);

}  // namespace kolt::emv
