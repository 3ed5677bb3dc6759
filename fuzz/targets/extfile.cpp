// The teller terminal's command file: kolt::kl::read_term_commands,
// read_transfer_command and convert_value, and the exported
// KOLT_getTermCmdFromExtfile, KOLT_getTransferCmdFromExtfile and
// convertStr2Bytebuf (outputs of 256 bytes, as the header asks).
//
// Input: short fields with the terminal type text, the port text and the
// pass-through letter, then the file's content. The file is written to
// $DCCHOME/lxbs/font/idcread.ext with DCCHOME set to
// /tmp/kolt_fuzz_extfile_<pid>, where the exported calls look for it; the
// content is also given to convert_value as one value.
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "common/fuzz_input.hpp"
#include "kolt/kolt.h"
#include "link/extfile.hpp"

using namespace kolt::fuzz;
namespace kl = kolt::link;

namespace {

constexpr std::size_t kOutRoom = 256;

// The directory DCCHOME names for this process, removed at its end.
class Home {
public:
    Home() : dir_("/tmp/kolt_fuzz_extfile_" + std::to_string(::getpid())), file_(dir_ + "/lxbs/font/idcread.ext") {
        std::filesystem::create_directories(dir_ + "/lxbs/font");
        ::setenv("DCCHOME", dir_.c_str(), 1);
    }
    ~Home() {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    const std::string& file() const { return file_; }

private:
    std::string dir_;
    std::string file_;
};

void check_text(const Heap& out, const char* what) {
    check(::strnlen(out.chars(), kOutRoom) < kOutRoom, what);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const Home home;
    Input in(data, size);
    const std::string type = in.short_string();
    const std::string port = in.short_string();
    const std::string letter = in.short_string();
    const auto content = in.rest();
    {
        std::FILE* fp = std::fopen(home.file().c_str(), "wb");
        if (fp == nullptr) fail("cannot write the terminal file");
        if (!content.empty() && std::fwrite(content.data(), 1, content.size(), fp) != content.size()) {
            fail("cannot write the terminal file");
        }
        std::fclose(fp);
    }

    {
        kl::TermCommands cmds;
        const int n = kl::read_term_commands(home.file(), type, port, cmds);
        check(n >= 0, "read_term_commands: the file was written but not read");
        for (const std::string* s : {&cmds.open, &cmds.close, &cmds.lock, &cmds.unlock, &cmds.lead, &cmds.end}) {
            check(s->size() <= kl::kExtValueMax, "read_term_commands: value longer than 255");
        }
    }
    {
        std::string out;
        const int rc = kl::read_transfer_command(home.file(), type, letter, out);
        check(rc == 0 || rc == -2, "read_transfer_command: result not 0 or -2");
        check(out.size() <= kl::kExtValueMax, "read_transfer_command: value longer than 255");
    }
    const std::string value = Input::str(content);
    (void)kl::convert_value(value);
    (void)kl::bytes_of_hex(value);

    const auto c_type = Heap::text(type);
    const auto c_port = Heap::text(port);
    const auto c_letter = Heap::text(letter);
    {
        Heap open(kOutRoom), close(kOutRoom), lock(kOutRoom), unlock(kOutRoom), lead(kOutRoom), end(kOutRoom);
        const int32_t n = KOLT_getTermCmdFromExtfile(c_type->chars(), c_port->chars(), open.chars(), close.chars(),
                                                     lock.chars(), unlock.chars(), lead.chars(), end.chars());
        check(n >= 0, "KOLT_getTermCmdFromExtfile: the file was written but not read");
        for (const Heap* h : {&open, &close, &lock, &unlock, &lead, &end}) {
            check_text(*h, "KOLT_getTermCmdFromExtfile: output not terminated within 256 bytes");
        }
    }
    {
        Heap out(kOutRoom);
        const int32_t rc = KOLT_getTransferCmdFromExtfile(c_type->chars(), c_letter->chars(), out.chars());
        check(rc == 0 || rc == -2, "KOLT_getTransferCmdFromExtfile: result not 0 or -2");
        if (rc == 0) check_text(out, "KOLT_getTransferCmdFromExtfile: output not terminated within 256 bytes");
    }
    {
        const auto text = Heap::text(content);
        Heap out(kOutRoom);
        const int32_t n = convertStr2Bytebuf(text->chars(), out.chars());
        check(n >= 0 && n <= static_cast<int32_t>(kl::kExtValueMax), "convertStr2Bytebuf: count outside 0..255");
    }
    return 0;
}
