// kolt, the command-line tool of libkolt: the parts its commands share. The
// tool sees the library through its public header only.
#pragma once

#include <cjson/cJSON.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

namespace kolt::cli {

// Exit codes: one for every kind of outcome (documented in kolt.1 and in
// the footer of "kolt --help").
enum Exit : int {
    kExitOk = 0,         // success
    kExitRefused = 1,    // the device, the card or the clerk server refused the operation
    kExitUsage = 2,      // bad command line
    kExitNoDevice = 3,   // the port could not be opened, or the device does not answer
    kExitNothing = 4,    // nothing presented in time: no card, no swipe, no finger
    kExitCancelled = 5,  // cancelled with Ctrl-C
    kExitServer = 6,     // a server could not be reached or answered badly (clerk server, issuer)
    kExitDeclined = 7,   // the transaction was declined by the card or the issuer
    kExitUnusable = 8,   // the card or its data is not usable (no such application, locked, bad reply)
    kExitSetup = 9,      // something the library needs is missing (./libwlt.so, the server settings)
};

struct ExitCodeText {
    int code;
    const char* text;
};
// Every exit code with its meaning, in order.
const std::vector<ExitCodeText>& exit_codes();

// A failure: the exit code, the library's result (0 when no library call
// is concerned) and a one-line message.
struct Failure {
    int exit_code = kExitRefused;
    int32_t library_result = 0;
    std::string message;
};

// The global options.
struct Globals {
    std::string port;       // below /dev/, e.g. "pts/3"
    std::string port_file;  // read the port name from this file
    int terminal_type = 0;  // 0 local serial port, 1..5 teller terminal, 50+ command file
    int port_no = 1;
    std::optional<int> timeout;  // seconds
    bool json = false;
    bool no_countdown = false;
    bool utf8_locale = false;  // the locale's character set is UTF-8

    int timeout_or(int fallback) const { return timeout ? *timeout : fallback; }
    bool local() const { return terminal_type == 0; }
};

// ---------------------------------------------------------------------------
// Output: readable text on stdout, or one JSON object on stdout at the end
// (--json); messages always on stderr.
class Output {
public:
    explicit Output(bool json);
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    bool json() const { return json_; }
    // A line of readable output (nothing in JSON mode).
    void line(const char* format, ...) __attribute__((format(printf, 2, 3)));
    // A message on stderr, prefixed "kolt: ".
    static void note(const char* format, ...) __attribute__((format(printf, 1, 2)));
    // The JSON object the command fills (printed at the end in JSON mode).
    cJSON* root() { return root_; }
    // Prints this text in place of the object at the end (JSON mode).
    void json_as_is(std::string text) { as_is_ = std::move(text); }
    // Prints the JSON object (JSON mode) and returns the exit code.
    int finish();
    // Reports a failure: the message on stderr and, in JSON mode, the
    // object with its "error" member; returns the exit code.
    int fail(const Failure& f);

private:
    bool json_;
    cJSON* root_;
    std::string as_is_;
};

// cJSON helpers (values are UTF-8).
void json_string(cJSON* obj, const char* key, std::string_view value);
void json_int(cJSON* obj, const char* key, long long value);
void json_bool(cJSON* obj, const char* key, bool value);

// ---------------------------------------------------------------------------
// Library calls that block: they run on a worker thread while the main
// thread counts down (on a terminal) and watches for Ctrl-C.

struct Wait {
    std::string what;          // "a swipe", "a finger", ...: the countdown's text; empty: no countdown
    int seconds = 0;           // the countdown's length
    bool cancellable = false;  // the call ends early when cancelOperation is set
};

// Installs the SIGINT handler (the first Ctrl-C sets the flag and
// cancelOperation, the second ends the process at once).
void install_signal_handler();
// Whether Ctrl-C has been pressed.
bool interrupted();

// Runs call on a worker thread and returns its result. Throws the cancel
// failure when Ctrl-C was pressed before or during the call.
int32_t call_library(const Globals& g, const Wait& wait, const std::function<int32_t()>& call);

// Sleeps ms milliseconds, or less when Ctrl-C is pressed.
void pause_ms(int ms);

// ---------------------------------------------------------------------------
// The port.

// The port name as the library takes it: "/dev/pts/3" and "pts/3" give
// "pts/3". Empty when the name does not fit gPortName.
std::string port_below_dev(std::string_view given);
// Makes gPortName name the port of the global options (reading the port
// file first, waiting up to 10 s for it), and checks that the local port
// can be opened. Throws a Failure.
void use_port(Globals& g);
// After a result that may mean a silent device: asks the device for its
// version (1 s). The failure when the port cannot be opened or the device
// does not answer, else nullopt.
std::optional<Failure> device_failure_after(const Globals& g, int32_t rc);
// The N of a port named "COMN" (or "/dev/COMN") with N of 1..8, else nullopt.
std::optional<int> com_port_number(std::string_view port);

// ---------------------------------------------------------------------------
// Text.

// GBK text of the library to UTF-8 (undecodable bytes become U+FFFD).
std::string gbk_to_utf8(std::string_view gbk);
// UTF-8 text to GBK for the library (nullopt when a character has no GBK code).
std::optional<std::string> utf8_to_gbk(std::string_view utf8);
// GBK text for the terminal: UTF-8 on a UTF-8 locale, else as it is.
std::string shown(const Globals& g, std::string_view gbk);
bool is_hex(std::string_view text);
std::string upper(std::string text);
std::string trim_right(std::string text);
// Minor units as units and hundredths ("000000012345" -> "123.45"); the
// text itself when it is not all digits.
std::string money(std::string_view digits);

// A run of one-byte-length TLVs in hex text (field 55, the issuer's answer).
struct Tlv {
    std::string tag, value;
};
std::optional<std::vector<Tlv>> split_tlvs(const std::string& hex);
const char* tag_name(const std::string& tag);
// The cryptogram type of a field 55 ("TC", "ARQC", "AAC", "AAR"), "" when unknown.
std::string cryptogram_type(const std::string& field55);

// Letter fields: a letter, three digits of length, the value; repeated.
struct Field {
    char letter;
    std::string value;
};
std::optional<std::vector<Field>> split_fields(std::string_view text);

// ---------------------------------------------------------------------------
// Commands: each adds its subcommand to the application; the runner it
// sets is called after parsing.
using Runner = std::function<void(Globals&, Output&)>;

void add_device_command(CLI::App& app, Runner& run);
void add_card_commands(CLI::App& app, Runner& run);  // card, log, arqc, transaction
void add_stripe_command(CLI::App& app, Runner& run);
void add_idcard_command(CLI::App& app, Runner& run);
void add_finger_commands(CLI::App& app, Runner& run);  // finger, clerk
void add_selftest_command(CLI::App& app, Runner& run);

}  // namespace kolt::cli
