// Exported C entry points.
#include <algorithm>
#include <cctype>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "kolt/kolt.h"
#include "link/aux_tables.hpp"
#include "link/extfile.hpp"
#include "link/frame.hpp"
#include "link/io.hpp"
#include "link/port.hpp"
#include "support/capi_util.hpp"
#include "support/log.hpp"

using namespace kolt;

namespace {

// The terminal type and port texts of the C entry points, read once.
link::LinkTarget target(const char* type_text, const char* port_text) {
    return link::LinkTarget::from_text(capi::text(type_text), capi::text(port_text));
}

}  // namespace

extern "C" {

// Device name below "/dev/" that the link opens.
KOLT_API char gPortName[32] = {0};

KOLT_API int32_t KOLT_DoTermType(int32_t termType) { return link::do_term_type(termType); }

KOLT_API int32_t IC_initCom(int32_t termType, int32_t port) { return link::ic_init_com(termType, port); }

KOLT_API int32_t IC_CloseCom(int32_t termType, int32_t port) { return link::ic_close_com(termType, port); }

KOLT_API int32_t KOLT_initCom(int32_t type, const char* ttyName, int32_t port, const char* transfer) {
    return link::init_com(type, capi::text(ttyName), port, capi::text(transfer));
}

KOLT_API int32_t KOLT_freeCom(int32_t type, int32_t port, const char* transfer) {
    (void)transfer;
    return link::free_com(type, port);
}

KOLT_API int32_t KOLT_openComOrAux(const char* ttyName, const char* typeText, const char* portText,
                                   const char* transferType, const char* transferData) {
    return link::open_com_or_aux(capi::text(ttyName), target(typeText, portText), capi::text(transferType),
                                 capi::text(transferData));
}

KOLT_API int32_t KOLT_closeComOrAux(const char* typeText, const char* portText) {
    return link::close_com_or_aux(target(typeText, portText));
}

KOLT_API int32_t KOLT_closeAux(const char* typeText, const char* portText) {
    return link::close_aux(target(typeText, portText));
}

KOLT_API int32_t KOLT_connectDevice(const char* ttyName, const char* typeText, const char* portText,
                                    const char* transferTypeText, const char* transferPort) {
    return link::connect_device(capi::text(ttyName), target(typeText, portText), capi::text(transferTypeText),
                                capi::text(transferPort));
}

KOLT_API int32_t KOLT_disconnectDevice(const char* typeText, const char* portText) {
    return link::disconnect_device(target(typeText, portText));
}

KOLT_API int32_t KOLT_getAuxCmdOnTermtypeAuxno(const char* typeText, const char* portText, char* openOut,
                                               char* closeOut) {
    if (openOut == nullptr || closeOut == nullptr) return Para_Error;
    return link::get_aux_cmd(target(typeText, portText), std::span<char, link::kSeqSize>(openOut, link::kSeqSize),
                             std::span<char, link::kSeqSize>(closeOut, link::kSeqSize));
}

KOLT_API int32_t KOLT_getBPCommand(const char* typeText, const char* transferPort, char* out) {
    if (out == nullptr) return Para_Error;
    return link::get_bp_command(capi::text(typeText), capi::text(transferPort),
                                std::span<char, link::kSeqSize>(out, link::kSeqSize));
}

KOLT_API int32_t KOLT_openCom(int32_t port, int32_t baud) { return link::open_com(port, baud); }

KOLT_API int32_t KOLT_setTerm(void) { return link::set_term(); }

KOLT_API int32_t KOLT_resetTerm(void) { return link::reset_term(); }

}  // extern "C"
