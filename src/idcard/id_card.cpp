// Identity card reading and photo.
#include "idcard/id_card.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "device/peripheral.hpp"
#include "idcard/gbk.hpp"
#include "link/deadline.hpp"
#include "link/frame.hpp"
#include "link/link_state.hpp"
#include "link/session.hpp"
#include "support/base64.hpp"
#include "support/config.hpp"
#include "support/dl.hpp"
#include "support/log.hpp"
#include "support/text.hpp"

namespace kolt::idcard {

namespace {

// The closed libraries, loaded from the working directory.
constexpr const char* kPhotoLibrary = "./libwlt.so";
constexpr const char* kPermitLibrary = "./libidpic.so";
constexpr const char* kPermitFront = "./zfmfront.bmp";
constexpr const char* kPermitBack = "./zfmback.bmp";
// unpack's third argument, set by that library.
constexpr int kUnpackArgument = 498;

using UnpackFn = int (*)(unsigned char*, unsigned char*, int);
using PermitImagesFn = int (*)(char*, char*, char*, char*, char*, char*, char*, char*, char*, char*, int,
                               const char*, const char*, int, int);

// A field of the text part: offset and size in bytes.
std::string field(std::span<const uint8_t> text, std::size_t offset, std::size_t size) {
    if (offset >= text.size()) return {};
    return field_text(text.subspan(offset, std::min(size, text.size() - offset)));
}

// Loads a closed library, trying twice as the reader's callers always did.
support::DlHandle load_twice(const char* path) {
    support::DlHandle lib(path, RTLD_LAZY);
    if (!lib) lib = support::DlHandle(path, RTLD_LAZY);
    return lib;
}

}  // namespace

CardType card_type(std::span<const uint8_t> text) {
    const uint8_t b = kCardTypeByte < text.size() ? text[kCardTypeByte] : 0;
    if (b == 'I') return CardType::foreign;
    if (b == 'J') return CardType::permit;
    return CardType::resident;
}

std::string_view sex_text(std::string_view code) {
    if (code == "1") return "\xC4\xD0";          // 男
    if (code == "2") return "\xC5\xAE";          // 女
    return "\xCE\xB4\xD6\xAA";                   // 未知
}

CardFields card_fields(std::span<const uint8_t> text) {
    CardFields f;
    f.type = card_type(text);
    switch (f.type) {
    case CardType::resident: {
        const std::string sex = field(text, 30, 2);
        const std::string nation = field(text, 32, 4);
        f.number = field(text, 122, 36);
        f.line = {field(text, 0, 30),
                  std::string(sex_text(sex)),
                  std::string(nation_name(support::atoi_value(nation))),
                  field(text, 36, 16),
                  field(text, 52, 70),
                  f.number,
                  field(text, 158, 30),
                  field(text, 188, 16),
                  field(text, 204, 16),
                  sex,
                  nation,
                  "",
                  "",
                  "",
                  "A"};
        break;
    }
    case CardType::foreign: {
        const std::string sex = field(text, 120, 2);
        f.number = field(text, 122, 30);
        f.line = {field(text, 0, 120),
                  std::string(sex_text(sex)),
                  field(text, 152, 6),
                  field(text, 220, 16),
                  "",
                  f.number,
                  field(text, 240, 8),
                  field(text, 188, 16),
                  field(text, 204, 16),
                  sex,
                  "",
                  "",
                  field(text, 158, 30),
                  field(text, 236, 4),
                  "I"};
        break;
    }
    case CardType::permit: {
        const std::string sex = field(text, 30, 2);
        f.number = field(text, 122, 36);
        f.line = {field(text, 0, 30),
                  std::string(sex_text(sex)),
                  "",
                  field(text, 36, 16),
                  field(text, 52, 70),
                  f.number,
                  field(text, 158, 30),
                  field(text, 188, 16),
                  field(text, 204, 16),
                  sex,
                  "",
                  "",
                  "",
                  "",
                  "J",
                  field(text, 220, 18),
                  field(text, 238, 4)};
        f.permit = {f.line[0], f.line[1], f.line[3], f.line[4], f.line[5],
                    f.line[6], f.line[7], f.line[8], f.line[15], f.line[16]};
        break;
    }
    }
    return f;
}

std::string card_line(const CardFields& fields) {
    std::string out;
    for (std::size_t i = 0; i < fields.line.size(); ++i) {
        if (i > 0) out += '|';
        out += fields.line[i];
    }
    return out;
}

// ---------------------------------------------------------------------------
// Photo.

namespace {
void put16(std::vector<uint8_t>& b, std::size_t at, uint16_t v) {
    b[at] = static_cast<uint8_t>(v);
    b[at + 1] = static_cast<uint8_t>(v >> 8);
}
void put32(std::vector<uint8_t>& b, std::size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) b[at + static_cast<std::size_t>(i)] = static_cast<uint8_t>(v >> (8 * i));
}
}  // namespace

std::vector<uint8_t> bmp_file(std::span<const uint8_t> rgb) {
    std::vector<uint8_t> file(kBmpFileSize, 0);
    file[0] = 'B';
    file[1] = 'M';
    put32(file, 2, static_cast<uint32_t>(kBmpFileSize));
    put32(file, 10, static_cast<uint32_t>(kBmpHeaderSize));
    put32(file, 14, 40);
    put32(file, 18, kBmpWidth);
    put32(file, 22, kBmpHeight);
    put16(file, 26, 1);
    put16(file, 28, 24);
    // The pixels as delivered, each turned from RGB to BGR; the rows keep
    // their order.
    const std::size_t row_bytes = static_cast<std::size_t>(kBmpWidth) * 3;
    for (std::size_t row = 0; row < static_cast<std::size_t>(kBmpHeight); ++row) {
        uint8_t* out = file.data() + kBmpHeaderSize + row * kBmpRowSize;
        for (std::size_t i = 0; i < row_bytes; i += 3) {
            const std::size_t at = row * row_bytes + i;
            auto px = [&](std::size_t k) -> uint8_t { return at + k < rgb.size() ? rgb[at + k] : 0; };
            out[i] = px(2);
            out[i + 1] = px(1);
            out[i + 2] = px(0);
        }
    }
    return file;
}

int32_t get_bmp(std::span<const uint8_t> photo) {
    std::vector<uint8_t> block(2048, 0);
    std::copy_n(photo.begin(), std::min(photo.size(), kPhotoSize), block.begin());
    const support::DlHandle lib = load_twice(kPhotoLibrary);
    if (!lib) {
        log::debug_text("YC_GetBmp load libwlt.so fail%s", "");
        return -98;
    }
    const auto unpack = lib.symbol<UnpackFn>("unpack");
    if (unpack == nullptr) {
        log::debug_text("YC_GetBmp load unpack fail%s", "");
        return -98;
    }
    // Room beyond the pixels the bitmap takes, for whatever the decoder
    // writes after them.
    std::vector<uint8_t> pixels(kPixelBytes + 4096, 0);
    const int rc = unpack(block.data(), pixels.data(), kUnpackArgument);
    log::debug_int("YC_GetBmp unpack result = %d", rc);

    const std::vector<uint8_t> file = bmp_file(std::span<const uint8_t>(pixels).first(kPixelBytes));
    const int fd = ::open(kPhotoFile, O_WRONLY | O_CREAT | O_TRUNC, 0777);
    int written = 0;
    if (fd >= 0) {
        const ssize_t n = ::write(fd, file.data(), file.size());
        written = n > 0 ? static_cast<int>(n) : 0;
        ::close(fd);
    }
    log::debug_int("YC_GetBmp write file size = %d", written);
    return 0;
}

std::string photo_target(std::string_view photo_path, std::string_view number) {
    if (photo_path.empty()) return {};
    auto ensure_dir = [](const std::string& dir) {
        if (dir.empty()) return;
        struct stat st{};
        if (::stat(dir.c_str(), &st) != 0) {
            const mode_t old = ::umask(0);
            ::mkdir(dir.c_str(), 0777);
            ::umask(old);
        }
    };
    const std::string path(photo_path);
    const std::string ext = path.size() >= 3 ? path.substr(path.size() - 3) : path;
    if (ext != "jpg" && ext != "bmp" && ext != "png" && ext != "gif") {
        ensure_dir(path);
        return path + (path.back() == '/' ? "" : "/") + std::string(number) + ".bmp";
    }
    const auto slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
    ensure_dir(dir);
    return dir + std::string(number) + "." + ext;
}

// ---------------------------------------------------------------------------
// Flows.

CardResult yc_id_cov_to_gbk(std::span<const uint8_t> record, std::string_view photo_path) {
    log::debug_text("YC_idCovToGBK...%s", "");
    CardResult out;
    const std::span<const uint8_t> text = record.first(std::min(record.size(), kTextSize));
    CardFields f = card_fields(text);
    static const char* const kTypeLines[] = {"YC_idCovToGBK CardType = 1%s", "YC_idCovToGBK CardType = 2%s",
                                             "YC_idCovToGBK CardType = 3%s"};
    log::debug_text(kTypeLines[static_cast<int>(f.type) - 1], "");

    const std::span<const uint8_t> photo =
        record.size() > kTextSize ? record.subspan(kTextSize) : std::span<const uint8_t>();
    const int32_t bmp = get_bmp(photo);
    if (bmp != 0) {
        log::debug_int("YC_idCovToGBK YC_GetBmp fail = %d", bmp);
        out.code = bmp;
        return out;
    }
    out.line = card_line(f);

    if (f.type == CardType::permit) {
        const support::DlHandle lib = load_twice(kPermitLibrary);
        if (!lib) {
            log::debug_text("YC_GetBmp22 load libidpic.so fail%s", "");
            out.code = -98;
            return out;
        }
        const auto images = lib.symbol<PermitImagesFn>("GetJIdPic");
        if (images == nullptr) {
            log::debug_text("YC_GetBmp load GetIdPic fail%s", "");
            out.code = -98;
            return out;
        }
        // Its result is not looked at: the images are the library's affair.
        images(f.permit[0].data(), f.permit[1].data(), f.permit[2].data(), f.permit[3].data(), f.permit[4].data(),
               f.permit[5].data(), f.permit[6].data(), f.permit[7].data(), f.permit[8].data(), f.permit[9].data(), 0,
               kPermitFront, kPermitBack, 0, 0);
    }
    if (f.type == CardType::resident && !photo_path.empty()) {
        // Where the photo would go; it stays in zp.bmp all the same.
        const std::string target = photo_target(photo_path, f.number);
        (void)target;
    }
    log::debug_text("YC_idCovToGBK ok%s", "");
    return out;
}

CardResult get_id_card_info(int32_t term_type, std::string_view dev_name, int32_t port, std::string_view aux,
                            int32_t timeout, std::string_view photo_path) {
    log::debug_text("getIdCardInfo begin*******************************%s", "");
    if (timeout == 0) timeout = kDefaultCardWait;
    CardResult out;
    link::Session session(term_type, dev_name, port, aux);
    if (!session.ok()) {
        out.code = -5;
        return out;
    }
    const link::Deadline deadline = link::Deadline::whole_seconds(std::max(timeout, 0));
    std::vector<uint8_t> reply(2048, 0);
    for (;;) {
        if (deadline.expired()) {
            out.code = -2;
            return out;
        }
        std::fill(reply.begin(), reply.end(), 0);
        const int rc = device::id_read_card(reply);
        if (rc == -1) {
            out.code = -1;
            return out;
        }
        if (rc == -2) {
            log::debug_text("drive KOLT_T41_FindCard 0x04%s", "");
            log::debug_hex("drive KOLT_T41_FindCard reply=%02x", std::span<const uint8_t>(reply).first(16));
            link::sleep_ms(1000);
            continue;
        }
        device::buzz();
        std::vector<uint8_t> record(kRecordSize, 0);
        const std::size_t have = rc > static_cast<int>(kRecordOffset) ? static_cast<std::size_t>(rc) - kRecordOffset : 0;
        std::copy_n(reply.begin() + kRecordOffset, std::min({have, kRecordSize, reply.size() - kRecordOffset}),
                    record.begin());
        out = yc_id_cov_to_gbk(record, photo_path);
        if (out.code != 0) session.release();  // the link stays open, as it always has
        return out;
    }
}

CardResult id_get_info(std::string_view port_name, int32_t timeout, std::string_view photo_path) {
    link::set_port_name(port_name);
    log::set_switch(config::ini_int("log", "debug", "./param.ini"));
    log::debug_int("ID_GetInfo getIdCardInfo g_nWriteDebugLog=%d", log::switch_value());
    CardResult out;
    {
        const support::DlHandle wlt(kPhotoLibrary, RTLD_LAZY);
        if (!wlt) {
            log::debug_text("ID_GetInfo Load libwlt.so Fail%s", "");
            out.code = -98;
            out.folded = false;
            return out;
        }
    }
    {
        const support::DlHandle idpic(kPermitLibrary, RTLD_LAZY);
        if (!idpic) log::debug_text("ID_GetInfo Load libidpic.so Fail%s", "");
    }
    // The port number is fixed at 0: the local line named by gPortName (1..9
    // would be ttyS0..ttyS8, with an auxiliary text the call never passes).
    constexpr int kPort = 0;
    const std::string device;  // port 0: no device of its own
    const std::string label = kPort == 0 ? std::string("USB") : "COM" + std::to_string(kPort);
    (void)label;  // the reader's callers never saw it
    out = get_id_card_info(0, device, kPort, "", timeout, photo_path);
    log::debug_int("ID_GetInfo getIdCardInfo nRet=%d", out.code);
    return out;
}

int32_t id_get_info_code(int32_t code) {
    if (code == 0 || code == -3) return code;
    if (code == -204) return -11;
    return -99;
}

std::vector<uint8_t> check_result_block(std::string_view code, std::string_view name, std::string_view number,
                                        std::string_view authority, std::string_view photo_base64) {
    std::string code2(code.substr(0, 2));
    while (code2.size() < 2) code2.insert(code2.begin(), '0');
    std::vector<uint8_t> block(82, 0);
    std::copy(code2.begin(), code2.end(), block.begin() + 2);
    auto put_ucs2 = [&](std::size_t at, std::string_view gbk) {
        const std::vector<uint8_t> u = gbk_to_ucs2le(std::span<const uint8_t>(
            reinterpret_cast<const uint8_t*>(gbk.data()), gbk.size()));
        std::copy_n(u.begin(), std::min<std::size_t>(u.size(), 30), block.begin() + static_cast<std::ptrdiff_t>(at));
    };
    put_ucs2(4, name);
    std::copy_n(number.begin(), std::min<std::size_t>(number.size(), 18), block.begin() + 34);
    put_ucs2(52, authority);
    if (code2 == "00") {
        const std::vector<uint8_t> photo = base64::decode(photo_base64);
        block.insert(block.end(), photo.begin(), photo.end());
    }
    const std::size_t total = std::min<std::size_t>(block.size(), 0xFFFF);
    block[0] = static_cast<uint8_t>(total >> 8);
    block[1] = static_cast<uint8_t>(total);
    return block;
}

int32_t display_check_result(int32_t term_type, std::string_view tty, int32_t port, std::string_view extend,
                             std::string_view code, std::string_view name, std::string_view number,
                             std::string_view authority, std::string_view photo_base64) {
    log::debug_int("displayCheckResult term_type=%d", term_type);
    auto text_line = [](const char* format, std::string_view text) {
        const std::string t(text);
        log::debug_text(format, t.c_str());
    };
    text_line("displayCheckResult tty_name=%s", tty);
    log::debug_int("displayCheckResult port_id=%d", port);
    text_line("displayCheckResult extend_cmd=%s", extend);
    text_line("displayCheckResult result_code=%s", code);
    text_line("displayCheckResult name=%s", name);
    text_line("displayCheckResult id=%s", number);
    text_line("displayCheckResult issue_organ=%s", authority);
    text_line("displayCheckResult photo_base64=%s", photo_base64);

    const std::vector<uint8_t> block = check_result_block(code, name, number, authority, photo_base64);
    link::Session session(term_type, tty, port, extend);
    if (!session.ok()) {
        log::debug_int("displayCheckResult KOLT_initCom flag=%d", session.result());
        return -5;
    }
    std::vector<uint8_t> reply(link::kReplyMax, 0);
    // Whatever the exchange gives, the result is sent: 0.
    link::bracket_transact(link::state().fd, 0x51, block, reply, 0);
    return 0;
}

}  // namespace kolt::idcard
