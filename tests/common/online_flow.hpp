// Helpers of the tests of the online transaction (ARQC and field 55, issuer
// authentication and scripts): the failure texts of these calls, the
// IC-encoded fields, what the card received, and card set-ups.
#pragma once

#include <string>
#include <vector>

#include "kolt_sim/card.hpp"

namespace kolt::test {

// GBK failure texts of the online calls.
inline const std::string kPortInitErrorArqc = "\xB3\xF5\xCA\xBC\xBB\xBB\xB6\xCB\xBF\xDA\xB4\xED\xCE\xF3";  // 初始换端口错误
inline const std::string kPortInitError = "\xB3\xF5\xCA\xBC\xBB\xAF\xB6\xCB\xBF\xDA\xB4\xED\xCE\xF3";      // 初始化端口错误
inline const std::string kArqcError = "\xC9\xFA\xB3\xC9\x41\x52\x51\x43\xB4\xED\xCE\xF3";                   // 生成ARQC错误

// An IC-encoded field: letter, binary length, value.
std::string ic_field(char letter, const std::string& value);

// The GENERATE AC commands the card received, as hex.
std::vector<std::string> generate_acs(const kolt::sim::Card& card);

// The card answers EXTERNAL AUTHENTICATE with 9000 whatever the ARPC.
void accept_external_authenticate(kolt::sim::ProfileCard& card);

// The card answers EXTERNAL AUTHENTICATE and the application-unblock
// script command (84 18) with 9000 whatever their cryptograms: for the
// tests of the flow itself.
void accept_issuer(kolt::sim::ProfileCard& card);

// The card refuses its second GENERATE AC with 6985.
void refuse_second_generate_ac(kolt::sim::ProfileCard& card);

}  // namespace kolt::test
