// KL560T41 device simulator.
//
// A Simulator opens a pseudo-terminal pair and plays the KOLT KL560T41
// peripheral on its master side. Programs under test open the slave side
// (port_name() is the text to put into gPortName, e.g. "pts/4") and talk to
// it exactly as to the real reader on a serial line. Optionally it also plays
// the teller terminal in front of the reader (auxiliary-port mode).
//
// The server runs in its own thread between start() and stop(); every
// accessor may be called from any thread at any time.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "kolt_sim/card.hpp"
#include "kolt_sim/idcard.hpp"

namespace kolt::sim {

// How a command reached the simulator.
enum class Framing {
    Main,      // 0x02 ... 0x03, nibble characters
    Bracket,   // "(" len cmd base64 check ")"
    Legacy86,  // 0x86 family, nibble characters
    Probe,     // the 20-character device-family probe
    Raw,       // bytes outside any frame that matched a raw rule
    Escape,    // the stripe reader's escape sequences (ESC ...), unframed
    Ef01,      // the fingerprint module's packets (EF 01 ...)
};

const char* framing_name(Framing f);

// Bytes as readable text for logs and prompts: ESC as "ESC", other control
// and high bytes as \xNN.
std::string printable(std::string_view bytes);

// One decoded command.
//   Main:     cls/code as sent, data = the data field.
//   Bracket:  cls = 0, code = the command byte, data = the decoded body.
//   Legacy86: cls = 0x86, code = the command byte, data = empty.
//   Probe:    cls = 0, code = 0, data = empty.
//   Raw:      cls = 0, code = 0, data = the trigger bytes of the rule.
//   Escape:   cls = 0x1B, code = the letter after ESC ('O' read, 't' write,
//             '0' reset), data = the whole sequence as received.
//   Ef01:     cls = 0xEF, code = the instruction (first payload byte),
//             data = the payload.
struct Command {
    Framing framing = Framing::Main;
    uint8_t cls = 0;
    uint8_t code = 0;
    std::vector<uint8_t> data;
};

// A deliberate misbehaviour applied to one reply.
struct Fault {
    enum Kind {
        NoReply,        // the command is swallowed
        BadCheck,       // the check field of the reply is wrong
        Truncate,       // only the first half of the reply is sent
        GarbageBefore,  // a few stray bytes precede the reply
        LengthTooLong,  // the length field claims 4 more bytes than follow
        Delay,          // the reply is sent after delay_ms
        CloseMidFrame,  // half the reply goes out, then the line is dead for
                        // delay_ms (default 1000): whatever the host sends in
                        // that time is dropped, as if the cable was pulled
                        // (behind a terminal, the reader's cable: the
                        // terminal still follows its sequences)
        GarbageInside,  // a few stray bytes in the middle of the reply
        Trickle,        // the reply goes out a byte at a time, delay_ms
                        // (default 200) between two bytes; the rest is given
                        // up as soon as the host sends again
        SplitBytes,     // the reply goes out a byte at a time, each its own
                        // write, delay_ms (default 1) between two: the whole
                        // reply, just in pieces
        OtherReply,     // a well-formed reply to another command: the answer
                        // to the version query (31 11 04) in place of any
                        // main-frame, identity-read, 0x86, fingerprint or
                        // stripe reply (the version query itself: the serial
                        // number's, 35 87); the greeting and the disconnect
                        // answer each with the other's reply
        LengthHuge,     // the length field claims its largest value (0xFFFF),
                        // more than any reply buffer holds
    };
    Kind kind = NoReply;
    int delay_ms = 0;
};

// Reply to a main-frame command: the status pair and the data.
struct Reply {
    uint8_t s1 = 0;
    uint8_t s2 = 0;
    std::vector<uint8_t> data;
};

struct LedState {
    uint8_t color = 0;  // 0 green, 1 red, 2 yellow
    uint8_t mode = 0;   // 0 off, 1 on, 2 flashing
};

// A magnetic-stripe card: the text of its three tracks as the stripe holds
// it, e.g. track 2 ";6299990000001234560=30122201234567890?". The start
// sentinel (";", "%" on track 1) and the end sentinel "?" may be left out;
// the framed read sends the tracks with them, the escape read without. An
// empty string: no data on that track.
struct StripeCard {
    std::string track1, track2, track3;
    bool operator==(const StripeCard&) const = default;
};

// How the stripe unit words its answers to the escape sequences (and its
// status bytes). See sim/README.md for the exact bytes.
struct StripeStyle {
    // The reply goes out in pieces: the first pieces have these sizes, the
    // last one takes the rest; piece_delay_ms between two pieces. Empty: the
    // reply is sent at once.
    std::vector<size_t> pieces;
    int piece_delay_ms = 0;
    // Field separator of track 2 and 3 text in escape replies: the reader
    // sends this in place of "=" ('=', '\'', '>' or '|').
    char separator = '=';
    // Mode 23 (tracks 2 and 3): no "A" between the two tracks.
    bool omit_a = false;
    // Bytes sent after the first "?" FS of a read reply, e.g. "12?\x1C".
    std::vector<uint8_t> trailer;
    // Last byte of the write status when the write fails (success: 'p').
    uint8_t write_fail_byte = 0x41;
    // Status of a track without data in the framed read reply (non-zero).
    uint8_t no_data_status = 0x01;
};

// The stripe unit's part of a profile.
struct StripeProfile {
    // The card a swipe by hand uses (kolt-sim prompt, SIGUSR1).
    StripeCard card;
    // Whether `card` stays in the reader and answers every read command
    // swipe_delay_ms after it arrives (set_stripe_card).
    bool card_stays = false;
    int swipe_delay_ms = 0;
    StripeStyle style;
    bool write_fails = false;
};

// The fingerprint sensor's part of a profile.
struct FingerProfile {
    // "none" (no sensor: neither variant answers), "framed" (class 0x37 of
    // the main frame) or "ef01" (the module speaking EF01 packets).
    std::string type = "none";
    // The finger's 256 feature bytes; empty: default_finger_features().
    std::vector<uint8_t> features;
    // A finger lies on the sensor this many ms after the simulator is made;
    // -1: only when placed (place_finger, the prompt's "finger").
    int finger_after_ms = -1;
    // Framed sensor: status pair of a capture without a finger.
    std::array<uint8_t, 2> no_finger_status{0x00, 0x01};
    // EF01 module: confirmation code of a capture without a finger.
    uint8_t no_finger_code = 0x02;
};

// The built-in finger: 256 bytes, byte i = 0x5A ^ (7 * i).
std::vector<uint8_t> default_finger_features();

// The built-in demonstration card of the stripe unit.
StripeCard default_stripe_card();
// A stripe card from JSON: {"track1": "...", "track2": "...", "track3": "..."},
// every key optional. Throws std::runtime_error on bad input.
StripeCard parse_stripe_card(const std::string& json_text);
StripeCard load_stripe_card(const std::string& path);

// Static description of the simulated unit. Built in (default_profile())
// or read from a JSON file (see sim/README.md and sim/profiles/).
struct DeviceProfile {
    std::string name = "KL560T41";
    // Which family answers the device probe and which of the two older
    // framings the unit speaks: "bracket" (greeting/disconnect) or "legacy86".
    std::string family = "bracket";
    // Decoded data of the greeting reply (command 0x41); 11 bytes from 0x90.
    std::vector<uint8_t> greeting;
    // Decoded data of the disconnect reply (command 0x42); 1 byte.
    std::vector<uint8_t> disconnect;
    // Payload bytes of a 0x86-family reply (between the length and the sum).
    std::vector<uint8_t> legacy86_reply;
    // Version bytes by selector (command 0x31 0x11).
    std::map<uint8_t, std::vector<uint8_t>> versions;
    // Identity-module serial number (command 0x35 0x87), 16 bytes.
    std::vector<uint8_t> module_serial;
    // Identity-module answer to a read (0x35 0x82) after the device status
    // pair: text length, photo length (both big-endian), text, photo.
    // Empty when no identity card lies on the reader.
    std::vector<uint8_t> id_answer;
    // Status pair of find/select/read when no identity card is present.
    uint8_t id_no_card_s1 = 0x00;
    uint8_t id_no_card_s2 = 0x80;
    // Answer to any command the unit does not know; nullopt = no answer.
    std::optional<Reply> unknown_reply = Reply{0x00, 0x01, {}};
    // Fixed status pairs for individual main-frame commands, key cls << 8 | code.
    std::map<uint16_t, std::pair<uint8_t, uint8_t>> status_overrides;
    // The magnetic stripe unit.
    StripeProfile stripe;
    // The fingerprint sensor.
    FingerProfile finger;
};

// The built-in profile (the same as sim/profiles/default.json).
DeviceProfile default_profile();
// Reads a profile; keys that are absent keep the built-in values.
// Throws std::runtime_error naming the problem on a bad file.
DeviceProfile load_device_profile(const std::string& path);
DeviceProfile parse_device_profile(const std::string& json_text);

// Builds the identity-module answer (after the device status pair) from a
// 256-byte text block and a photo block: 2-byte text length, 2-byte photo
// length (big-endian), text, photo.
std::vector<uint8_t> make_id_answer(std::span<const uint8_t> text, std::span<const uint8_t> photo);

// The teller terminal in front of the reader.
struct TerminalConfig {
    // 0: none, the pseudo-terminal is a plain serial line. 1..5: the
    // built-in escape sequences of that terminal type. >= 50: the
    // [TERM_<type>_KOLT510QX] section of the terminal command file.
    int type = 0;
    int port = 1;  // auxiliary port 1..4
    // Terminal command file for types >= 50; empty: $DCCHOME/lxbs/font/idcread.ext
    // or /dcc/lxbs/font/idcread.ext.
    std::string ext_file;
};

// The escape sequences a terminal configuration uses (empty = none).
struct TerminalSequences {
    std::string open, close, lock, unlock, lead, end;
    std::vector<std::string> transfer;  // pass-through port commands
};
// Sequences of a built-in type 1..5 (type 5 port 4 has an empty close).
// Throws std::invalid_argument for other types or ports.
TerminalSequences builtin_terminal(int type, int port);
// Sequences of a type >= 50 read from a terminal command file.
// Throws std::runtime_error when the file or the section is missing.
TerminalSequences ext_file_terminal(const std::string& path, int type, int port);

struct Options {
    DeviceProfile profile = default_profile();
    TerminalConfig terminal;
    // A true 9600 baud 8N1 line, 10 bits (about 1.04 ms) a byte, both ways.
    // Replies go out a byte at a time at that pace. The host's bytes cross a
    // line that is busy until the bytes before them have crossed: bytes read
    // at time t count as received at max(t, line busy until) + n byte times,
    // and only then are they recorded (raw_received) and parsed, so every
    // command is answered no earlier than its last byte could have arrived.
    bool pace = false;
    bool verbose = false;  // log decoded commands and faults to stderr
};

class Simulator {
public:
    explicit Simulator(Options options = {});
    ~Simulator();  // stops
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    // Opens the pseudo-terminal (once) and starts serving. Throws
    // std::runtime_error on failure. stop() ends the server thread; the
    // pseudo-terminal stays until destruction, so start() may follow again.
    void start();
    void stop();
    bool running() const;

    std::string slave_path() const;  // e.g. "/dev/pts/4"
    std::string port_name() const;   // slave path without "/dev/", e.g. "pts/4"

    // --- what the host sent -------------------------------------------
    std::vector<Command> transcript() const;
    void clear_transcript();
    // Waits until the transcript holds at least n commands.
    bool wait_for_commands(size_t n, int timeout_ms) const;
    std::vector<uint8_t> raw_received() const;  // every byte from the host
    std::vector<uint8_t> raw_sent() const;      // every byte to the host
    void clear_raw();
    // Frames that arrived damaged (bad check, wrong terminator, ...), as text.
    std::vector<std::string> frame_errors() const;

    // --- device state ---------------------------------------------------
    std::map<uint8_t, LedState> leds() const;  // by LED number 1..4
    int buzzer_count() const;
    bool rf_on() const;

    // --- cards ----------------------------------------------------------
    // nullptr removes the card. A card is unpowered when inserted.
    void set_contact_card(std::shared_ptr<Card> card);
    void set_contactless_card(std::shared_ptr<Card> card);
    // Identity-module answer (see DeviceProfile::id_answer); nullopt or an
    // empty vector takes the identity card away. Also forgets a card still
    // to come (id_card_after).
    void set_id_answer(std::optional<std::vector<uint8_t>> answer);
    // The identity card on the reader, from its fields (make_id_card_answer);
    // nullopt takes it away. Throws std::runtime_error for fields that do
    // not fit the card.
    void set_id_card(std::optional<IdCardFields> card);
    // Takes the identity card away now; `card` comes after `looks` find
    // (35 80) or read (35 82) commands have been answered "no card" (select
    // answers "no card" meanwhile without counting).
    void id_card_after(int looks, IdCardFields card);
    // The same, but the card comes `ms` milliseconds from now.
    void id_card_after_ms(int ms, IdCardFields card);
    // While on, the identity read (35 82) answers the status pair s1 s2
    // alone, whether a card lies there or not (find and select answer as
    // usual). The default pair 00 41 is the module's "read failed".
    void set_id_module_error(bool on, uint8_t s1 = 0x00, uint8_t s2 = 0x41);
    // The data of every display command (bracket 0x51) received, in order.
    std::vector<std::vector<uint8_t>> id_displays() const;
    void clear_id_displays();

    // --- scripting and faults ------------------------------------------
    // Fault for the next `count` replies (count < 0: until clear_faults()).
    void inject(Fault fault, int count = 1);
    // Fault for the next `count` replies to one command (bracket: cls 0 and
    // the command byte; 0x86 family: cls 0x86; probe: 0, 0).
    void inject_for(uint8_t cls, uint8_t code, Fault fault, int count = 1);
    // As inject_for, but only for the commands that `match` accepts (say,
    // the APDU command carrying one particular READ RECORD). match runs on
    // the server thread with the simulator's lock held: it must not call
    // back into the Simulator.
    using Match = std::function<bool(const Command&)>;
    void inject_when(uint8_t cls, uint8_t code, Match match, Fault fault, int count = 1);
    void clear_faults();
    // Overrides the status pair of one main-frame command (data kept).
    void set_status(uint8_t cls, uint8_t code, uint8_t s1, uint8_t s2);
    void clear_status(uint8_t cls, uint8_t code);
    // Fixed reply for one main-frame command, replacing the built-in one.
    void set_reply(uint8_t cls, uint8_t code, Reply reply);
    // Computed reply for one main-frame command; return nullopt for silence.
    // The handler runs on the server thread with the simulator's lock held:
    // it must not call back into the Simulator.
    using Handler = std::function<std::optional<Reply>(const Command&)>;
    void set_handler(uint8_t cls, uint8_t code, Handler handler);
    void clear_reply(uint8_t cls, uint8_t code);
    // Bytes outside any frame: when `trigger` has arrived, `reply` is sent
    // as is (for the raw stripe-reader and fingerprint protocols).
    void add_raw_rule(std::vector<uint8_t> trigger, std::vector<uint8_t> reply);
    void clear_raw_rules();
    // Sends bytes to the host as they are (terminal-mode unwrapped).
    void write_raw(std::span<const uint8_t> bytes);

    // --- magnetic stripe unit ---------------------------------------------
    // A read or write command (framed 36 91, or escape) waits for a swipe.
    // swipe() queues a card: it is swiped after_ms after the next stripe
    // command arrives, or after_ms from now when a command is waiting
    // already. Swipes are taken in the order given, one per command.
    void swipe(StripeCard card, int after_ms = 0);
    // Swipes the card in the reader's memory (stripe_card()) again, e.g. to
    // read back what a write left on it.
    void swipe_again(int after_ms = 0);
    // Forgets the queued swipes and the staying card: a waiting command
    // stays unanswered (the host times out).
    void no_swipe();
    // A card that stays: every read or write command is answered after_ms
    // after it arrives with this card (a write changes it). nullopt: none.
    void set_stripe_card(std::optional<StripeCard> card, int after_ms = 0);
    void set_stripe_style(StripeStyle style);
    StripeStyle stripe_style() const;
    void set_stripe_write_fails(bool fails);
    // The escape sequences received, in order, ESC "0" included.
    std::vector<std::vector<uint8_t>> stripe_commands() const;
    void clear_stripe_commands();
    // How many resets (ESC "0") came.
    int stripe_resets() const;
    // The card last swiped, as a write left it; nullopt before any swipe.
    std::optional<StripeCard> stripe_card() const;
    // Whether a command is waiting for a swipe.
    bool stripe_waiting() const;
    // Swipes queued and not yet taken.
    size_t stripe_swipes_queued() const;

    // --- fingerprint sensor ---------------------------------------------------
    // The sensor variant: "none", "framed" or "ef01" (as the profile's).
    void set_finger_type(std::string type);
    // A finger with these 256 feature bytes (empty: the profile's) lies on
    // the sensor from after_ms from now on.
    void place_finger(std::vector<uint8_t> features = {}, int after_ms = 0);
    void lift_finger();
    // Makes one step fail: 1 capture, 2 generate, 3 store, 4 load, 5 merge,
    // 6 upload (EF01 module: the confirmation code; framed sensor, step 1
    // only: the second status byte of the capture); code < 0: no answer.
    // Step 7, the data packets: code < 0 none come, code > 0 the first one
    // has a length field 4096 too long.
    void set_finger_failure(int step, int code);
    void clear_finger_failures();
    // Capture commands received (framed 37 96 or EF01 capture image).
    int finger_captures() const;

    // --- terminal mode --------------------------------------------------
    // Every sequence the terminal did not expect, in order, as readable text.
    std::vector<std::string> terminal_errors() const;
    // The recognised terminal events in order: "lock", "open", "lead",
    // "end", "transfer", "close", "unlock".
    std::vector<std::string> terminal_events() const;
    bool aux_open() const;
    bool keyboard_locked() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kolt::sim
