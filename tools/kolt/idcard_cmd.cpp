// idcard: the identity card on the reader (ID_GetInfo), its fields in
// UTF-8 and where the photo went.
#include <kolt/kolt.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "cli.hpp"

namespace kolt::cli {

namespace {

constexpr int kDefaultCardWait = 10;

struct IdOptions {
    std::string photo_dir;
};

// The fields of the card line by card type: position and name. The
// positions left out are empty in that layout.
struct Named {
    int index;
    const char* key;
    const char* label;
};

const std::vector<Named> kResident = {
    {0, "name", "name"},           {1, "sex", "sex"},
    {9, "sex_code", "sex code"},   {2, "nation", "nation"},
    {10, "nation_code", "nation code"}, {3, "birth", "birth"},
    {4, "address", "address"},     {5, "number", "number"},
    {6, "authority", "authority"}, {7, "valid_from", "valid from"},
    {8, "valid_to", "valid to"},
};
const std::vector<Named> kForeign = {
    {0, "english_name", "English name"}, {12, "chinese_name", "Chinese name"},
    {1, "sex", "sex"},                   {9, "sex_code", "sex code"},
    {2, "country", "country"},           {3, "birth", "birth"},
    {5, "card_number", "card number"},   {6, "authority_code", "authority code"},
    {7, "valid_from", "valid from"},     {8, "valid_to", "valid to"},
    {13, "card_version", "card version"},
};
const std::vector<Named> kPermit = {
    {0, "name", "name"},           {1, "sex", "sex"},
    {9, "sex_code", "sex code"},   {3, "birth", "birth"},
    {4, "address", "address"},     {5, "number", "number"},
    {6, "authority", "authority"}, {7, "valid_from", "valid from"},
    {8, "valid_to", "valid to"},   {15, "pass_number", "pass number"},
    {16, "issue_count", "issue count"},
};

std::vector<std::string> split_line(const std::string& line) {
    std::vector<std::string> out;
    size_t start = 0;
    for (;;) {
        const size_t bar = line.find('|', start);
        out.push_back(line.substr(start, bar == std::string::npos ? std::string::npos : bar - start));
        if (bar == std::string::npos) break;
        start = bar + 1;
    }
    return out;
}

// After ID_GetInfo's -99 (the port, no card in time, or no answer): which
// of them, asked of the device in a short exchange.
Failure diagnose(const Globals& g, int32_t rc, int seconds) {
    if (auto f = device_failure_after(g, rc)) return *f;
    return {kExitNothing, rc, "no identity card was read within " + std::to_string(seconds) + " s"};
}

void run_idcard(Globals& g, Output& out, const IdOptions& o) {
    if (!g.local())
        throw Failure{kExitUsage, 0, "the identity card is read through the local port only (terminal type 0)"};
    use_port(g);
    if (!o.photo_dir.empty() && ::chdir(o.photo_dir.c_str()) != 0) {
        const int e = errno;
        throw Failure{kExitUsage, 0, "cannot change to " + o.photo_dir + ": " + std::strerror(e)};
    }
    namespace fs = std::filesystem;
    std::error_code ec;
    const fs::path cwd = fs::current_path(ec);
    // The library decodes the photo with ./libwlt.so of the working
    // directory, and reads nothing without it.
    if (::access("./libwlt.so", R_OK) != 0)
        throw Failure{kExitSetup, 0,
                      "./libwlt.so is missing in " + cwd.string() +
                          ": the identity-card reader needs it for the photo (give --photo-dir with a directory that "
                          "holds it; the simulator's stand-in is build/sim/standins/libwlt.so)"};

    const int seconds = g.timeout_or(kDefaultCardWait);
    std::vector<char> info(KOLT_IDINFO_MAX + 16, 0);
    if (::isatty(STDERR_FILENO) == 1) Output::note("place the identity card on the reader");
    const std::string port = g.port;
    const int32_t rc = call_library(g, Wait{"an identity card", seconds, false}, [&] {
        return ID_GetInfo(port.c_str(), 0, 0, seconds, "", 0, 0, 0, info.data());
    });
    if (rc == -98) throw Failure{kExitSetup, rc, "./libwlt.so could not be loaded from " + cwd.string()};
    if (rc != 0) throw diagnose(g, rc, seconds);

    const std::vector<std::string> fields = split_line(info.data());
    const std::string type = fields.size() >= 15 ? fields[14] : "";
    const std::vector<Named>* names = type == "I" ? &kForeign : type == "J" ? &kPermit : &kResident;
    const char* type_key = type == "I" ? "foreign" : type == "J" ? "permit" : "resident";
    const char* type_text = type == "I"   ? "foreign permanent resident card"
                            : type == "J" ? "residence permit"
                                          : "resident identity card";
    json_int(out.root(), "result", rc);
    json_string(out.root(), "card_type", type_key);
    cJSON* jf = cJSON_AddObjectToObject(out.root(), "fields");
    out.line("%-15s %s", "card type:", type_text);
    for (const Named& n : *names) {
        const std::string value = n.index < static_cast<int>(fields.size()) ? fields[n.index] : "";
        json_string(jf, n.key, gbk_to_utf8(value));
        out.line("%-15s %s", (std::string(n.label) + ":").c_str(), shown(g, value).c_str());
    }
    const fs::path photo = cwd / "zp.bmp";
    json_string(out.root(), "photo", photo.string());
    out.line("%-15s %s", "photo:", photo.string().c_str());
    if (type == "J") {
        const bool pictures = ::access("./libidpic.so", R_OK) == 0;
        if (pictures) {
            json_string(out.root(), "front", (cwd / "zfmfront.bmp").string());
            json_string(out.root(), "back", (cwd / "zfmback.bmp").string());
        }
        out.line("%-15s %s", "card pictures:",
                 pictures ? ((cwd / "zfmfront.bmp").string() + ", " + (cwd / "zfmback.bmp").string()).c_str()
                          : "none (./libidpic.so is missing)");
    }
}

}  // namespace

void add_idcard_command(CLI::App& app, Runner& run) {
    auto o = std::make_shared<IdOptions>();
    CLI::App* sub = app.add_subcommand("idcard", "Identity card on the reader (ID_GetInfo): its fields and photo");
    sub->add_option("--photo-dir", o->photo_dir,
                    "Run the call in DIR: the photo goes to DIR/zp.bmp, and DIR must hold libwlt.so")
        ->check(CLI::ExistingDirectory.description(""))
        ->type_name("DIR");
    sub->footer(
        "The library writes the photo to zp.bmp in the working directory and needs ./libwlt.so there. Waits 10 s for "
        "a card unless --timeout says otherwise. Exit codes: see kolt --help.");
    sub->callback([&run, o] { run = [o](Globals& g, Output& out) { run_idcard(g, out, *o); }; });
}

}  // namespace kolt::cli
