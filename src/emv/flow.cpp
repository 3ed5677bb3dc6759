// Pieces shared by the card-information and transaction-log flows.
#include "emv/flow.hpp"

#include <cstdlib>
#include <cstring>

#include "device/icc.hpp"
#include "emv/tags.hpp"
#include "kolt/kolt.h"
#include "link/port.hpp"
#include "support/log.hpp"
#include "support/text.hpp"

namespace kolt::emv {

namespace {
constexpr uint32_t kInitTimeout = 20;  // power-on and selection
}  // namespace


link::Session open_link(int32_t term_type, int32_t port, const FlowTrace& trace) {
    link::Session session = link::open_teller(term_type, port);
    if (!session.ok()) trace.error_int("KOLT_initCom flag=%d", session.result());
    return session;
}

AppInit start_app(std::span<const uint8_t> aid_list) {
    return init_app(kInitTimeout, static_cast<uint32_t>(state().slot()), aid_list);
}

AppInit start_app_psbc(const char* aid_text) {
    return init_app_psbc(kInitTimeout, static_cast<uint32_t>(state().slot()), bounded(aid_text, kFieldMax));
}


InitFailure ic_init_failure(int32_t init_result, const FlowTrace& trace) {
    switch (init_result) {
    case kInitNoResponse:
        log::error_int("IC_GetInfo KOLT_T41_InitICCardApp flag=%d", init_result);
        log::error_int("IC_GetInfo KOLT_T41_InitICCardApp flag =%d", init_result);
        return {-2, gbk::kPowerOnError, false};
    case kInitPowerOnFailed:
        trace.init_power_on_failed(init_result);
        return {-1, gbk::kPowerOnError, false};
    case ICC_Contact_Not_Insert:
        trace.init_not_inserted();
        return {-9, gbk::kContactNotInserted, true};
    case kInitAppLocked:
        trace.init_locked();
        return {-10, gbk::kCardInitError, true};
    default:
        trace.init_other(init_result);
        return {-10, gbk::kCardInitError, true};
    }
}

FlowResult ic_init_result(int32_t init_result, const FlowTrace& trace, device::PoweredCard& card) {
    const InitFailure failure = ic_init_failure(init_result, trace);
    if (!failure.power_off) card.release();  // the card never came up
    return failed(failure.power_off ? Stage::init : Stage::power_on, failure.code, std::string(failure.text));
}

}  // namespace kolt::emv
