// selftest: the buzzer, then every LED in every colour briefly, then all
// off; each step reported.
#include <kolt/kolt.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <thread>

#include "cli.hpp"

namespace kolt::cli {

namespace {

constexpr int kLitMs = 150;

struct Step {
    std::string name;
    int32_t result = 0;
};

void run_selftest(Globals& g, Output& out) {
    use_port(g);
    static const struct {
        uint32_t led;
        const char* name;
    } leds[] = {{LED_IC, "ic"}, {LED_MC, "stripe"}, {LED_RF, "contactless"}, {LED_FP, "fingerprint"}};
    static const struct {
        uint32_t colour;
        const char* name;
    } colours[] = {{LED_Color_G, "green"}, {LED_Color_R, "red"}, {LED_Color_y, "yellow"}};

    std::vector<Step> steps;
    int32_t open_rc = 0;
    // One link for the whole test; the worker stops between two steps once
    // Ctrl-C has been pressed (after switching the LEDs off).
    call_library(g, Wait{}, [&]() -> int32_t {
        open_rc = IC_initCom(g.terminal_type, g.port_no);
        if (open_rc != 0) return open_rc;
        steps.push_back({"beep", KOLT_T41_Buzz()});
        if (steps.back().result == 0) {
            for (const auto& l : leds) {
                for (const auto& c : colours) {
                    if (interrupted()) break;
                    const std::string name = std::string("LED ") + l.name + " " + c.name;
                    const int32_t on = KOLT_T41_LedOperate(l.led, c.colour, LED_Light);
                    std::this_thread::sleep_for(std::chrono::milliseconds(kLitMs));
                    const int32_t off = KOLT_T41_LedOperate(l.led, c.colour, LED_Lightout);
                    steps.push_back({name, on != 0 ? on : off});
                }
            }
            int32_t all_off = 0;
            for (const auto& l : leds) {
                const int32_t r = KOLT_T41_LedOperate(l.led, LED_Color_G, LED_Lightout);
                if (r != 0) all_off = r;
            }
            steps.push_back({"all LEDs off", all_off});
        }
        IC_CloseCom(g.terminal_type, g.port_no);
        return 0;
    });
    if (open_rc != 0) throw Failure{kExitNoDevice, open_rc, "the port could not be opened"};

    cJSON* js = cJSON_AddArrayToObject(out.root(), "steps");
    int failed = 0;
    int32_t last_failure = 0;
    for (const Step& s : steps) {
        cJSON* item = cJSON_CreateObject();
        json_string(item, "step", s.name);
        json_int(item, "result", s.result);
        cJSON_AddItemToArray(js, item);
        out.line("%-26s %s", s.name.c_str(), s.result == 0 ? "ok" : ("failed (" + std::to_string(s.result) + ")").c_str());
        if (s.result != 0) {
            ++failed;
            last_failure = s.result;
        }
    }
    json_int(out.root(), "result", last_failure);
    if (!steps.empty() && steps.front().result != 0)
        throw Failure{kExitNoDevice, steps.front().result, "the device does not answer"};
    if (failed > 0)
        throw Failure{kExitRefused, last_failure, std::to_string(failed) + " of " + std::to_string(steps.size()) + " steps failed"};
}

}  // namespace

void add_selftest_command(CLI::App& app, Runner& run) {
    CLI::App* sub = app.add_subcommand("selftest", "LED and buzzer test: a beep, each LED in each colour, all off");
    sub->callback([&run] { run = [](Globals& g, Output& out) { run_selftest(g, out); }; });
}

}  // namespace kolt::cli
