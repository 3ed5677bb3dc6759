// Helpers of the tests that drive the card flows (IC card commands,
// application selection, card information, transaction log) through the
// simulated reader: the shipped cards, what the card and the reader
// received, silent reads, the failure texts the flows write, one formatted
// log record. (The simulator with the link open, the debug log capture and
// descriptor 0 on another line are in sim_fixture.hpp, test_util.hpp and
// pty_util.hpp.)
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "common/pty_util.hpp"
#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "kolt_sim/card.hpp"
#include "kolt_sim/simulator.hpp"

namespace kolt::test {

// ---------------------------------------------------------------------------
// Failure texts the flows write in place of data (GBK bytes).
inline const std::string kPortOpenError = "\xB4\xF2\xBF\xAA\xB6\xCB\xBF\xDA\xB4\xED\xCE\xF3";   // 打开端口错误
inline const std::string kPowerOnError = "\xBF\xA8\xC9\xCF\xB5\xE7\xB4\xED\xCE\xF3";           // 卡上电错误
inline const std::string kCardInitError = "\xBF\xA8\xB3\xF5\xCA\xBC\xBB\xAF\xB4\xED\xCE\xF3";  // 卡初始化错误
inline const std::string kReadRecordError = "\xB6\xC1\xBC\xC7\xC2\xBC\xB4\xED\xCE\xF3";        // 读记录错误
inline const std::string kContactNotInserted =                                                  // 接触方式读卡时卡未插入
    "\xBD\xD3\xB4\xA5\xB7\xBD\xCA\xBD\xB6\xC1\xBF\xA8\xCA\xB1\xBF\xA8\xCE\xB4\xB2\xE5\xC8\xEB";
inline const std::string kNoLogEntry =                                                          // 没有交易记录文件入口
    "\xC3\xBB\xD3\xD0\xBD\xBB\xD2\xD7\xBC\xC7\xC2\xBC\xCE\xC4\xBC\xFE\xC8\xEB\xBF\xDA";
inline const std::string kLogFormatError =                                                      // 获取交易记录格式错误
    "\xBB\xF1\xC8\xA1\xBD\xBB\xD2\xD7\xBC\xC7\xC2\xBC\xB8\xF1\xCA\xBD\xB4\xED\xCE\xF3";

// ---------------------------------------------------------------------------
// Cards.

// A shipped card profile, sim/cards/<name>.json; the name may carry the
// ".json" suffix.
std::shared_ptr<kolt::sim::ProfileCard> load_card(const std::string& name);

// The APDUs the card received, as upper-case hex without blanks.
std::vector<std::string> apdus_hex(const kolt::sim::Card& card);
// READ RECORDs (record, SFI) the card received after its last GET
// PROCESSING OPTIONS: the records of the AFL walk.
std::vector<std::pair<int, int>> afl_reads(const kolt::sim::Card& card);
// READ RECORDs (record, SFI) of one SFI the card received.
std::vector<std::pair<int, int>> reads_of_sfi(const kolt::sim::Card& card, int sfi);
// GET DATA tags (t1 t2 as one number) the card received.
std::vector<int> get_data_tags(const kolt::sim::Card& card);

// What the shipped cards hold for a card-information request, and what
// their application selection gives (0, -7 locked, or the failure code).
struct ShippedCard {
    std::string name;  // sim/cards/<name>.json
    bool contactless = false;
    int32_t init = 0;
    std::string pan, holder, track2, expiry, sequence;  // 5A, 5F20, 57, 5F24, 5F34 as read
};
const std::vector<ShippedCard>& shipped_cards();
void PrintTo(const ShippedCard& card, std::ostream* os);  // its name, for test names

// Ways the application selection of a flow fails, each set up on a fresh
// simulator, with what the selection reports: no card in the contact slot
// (ICC_Contact_Not_Insert), a failed power-on (-1), a card that does not
// answer the power-on (-12), a locked application (-7) and a GPO answer in
// format 2 (-6). The flows use the contact slot.
struct SelectionFailure {
    std::string name;
    int32_t init = 0;
    void (*setup)(kolt::sim::Simulator& sim) = nullptr;
};
const std::vector<SelectionFailure>& selection_failures();
void PrintTo(const SelectionFailure& failure, std::ostream* os);  // its name, for test names

// A field of a card-information answer: letter, "%03d" length, value.
std::string field(char letter, const std::string& value);

// ---------------------------------------------------------------------------
// The reader.

// Main-frame commands the reader received, as "CLS CODE DATA" hex text.
std::vector<std::string> commands(const kolt::sim::Simulator& sim);
// Whether the reader received a main-frame command of that class and code.
bool sent(const kolt::sim::Simulator& sim, uint8_t cls, uint8_t code);

// The reader's replies to READ RECORD of one SFI (of one record of it, when
// record > 0) arrive damaged (a wrong check byte): the library's read fails
// at once, with the same result as a read that got no reply. The card
// itself receives and answers the command. (No test waits for a silent
// READ RECORD: six seconds each, for the same result.)
void fail_read_record(kolt::sim::Simulator& sim, int sfi, int record = 0);

// ---------------------------------------------------------------------------
// One transaction-log record as the library formats it: amount, other amount
// (zero), currency 0156, date, type, time, country 0156, merchant (filled to
// 20 characters with blanks) and the ATC in decimal, each behind its letter
// and three-digit length.
std::string log_record(const std::string& amount, const std::string& date, const std::string& type,
                       const std::string& time, std::string merchant, int atc);

// What the library appends to its error log (below the program's directory)
// from construction on; the log switch must be on for anything to be written.
class ErrorLogTail {
public:
    ErrorLogTail();
    std::string text() const;

private:
    std::string path_;
    std::size_t start_ = 0;
};

// Expects every line in the log text, each as a whole line after its time
// stamp ("] " + line + newline).
void expect_logged(const std::string& log, const std::vector<std::string>& lines);

// The two error-log lines both IC_ cores write when the card does not answer
// the power-on.
inline const std::vector<std::string> kNoAnswerInitLogs = {"IC_GetInfo KOLT_T41_InitICCardApp flag=-12",
                                                           "IC_GetInfo KOLT_T41_InitICCardApp flag =-12"};

// The STAR_ calls' setting: a simulated reader behind the teller terminal of
// type 1 on auxiliary port `port`, and descriptor 0 (the terminal line) on
// the simulator's line, for the lifetime of the object.
class TerminalSimulator {
public:
    explicit TerminalSimulator(int port);
    kolt::sim::Simulator* operator->() { return &sim_.get(); }

private:
    ScopedSimulator sim_;
    ScopedStdin stdin_;
};

// A contact card whose log (SFI 11) holds `count` records of the reference
// layout and whose log entry announces `announced`; format is the log
// format's hex text (empty: the reference one), atc(i) the counter of record
// i (i + 1 when not given).
std::shared_ptr<kolt::sim::Card> card_with_log(int count, int announced, const std::string& format = "",
                                               const std::function<int(int)>& atc = nullptr);

}  // namespace kolt::test
