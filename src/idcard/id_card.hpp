// Reading a second-generation identity card through the reader's identity
// module: the card text as one "|"-separated GBK line in three card layouts,
// the photo decoded by the closed library "./libwlt.so" into "zp.bmp", the
// residence permit's front and back images drawn by "./libidpic.so", and the
// display of an online verification result on the reader.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kolt::idcard {

// The card record: 256 bytes of UCS-2LE text, then the 1024-byte photo
// block; it starts 9 bytes into the identity module's read reply.
inline constexpr std::size_t kTextSize = 256;
inline constexpr std::size_t kPhotoSize = 1024;
inline constexpr std::size_t kRecordSize = kTextSize + kPhotoSize;
inline constexpr std::size_t kRecordOffset = 9;
// Byte of the card-type unit that selects the layout.
inline constexpr std::size_t kCardTypeByte = 248;

enum class CardType : int {
    resident = 1,  // resident identity card
    foreign = 2,   // foreign permanent resident card ("I")
    permit = 3,    // residence permit ("J")
};
CardType card_type(std::span<const uint8_t> text);

// The fields of one card, converted to GBK with their blanks removed, in
// the order of the output line; the sex text derived.
struct CardFields {
    CardType type = CardType::resident;
    std::vector<std::string> line;  // the output line's fields
    // For the residence permit's images: name, sex text, birth date,
    // address, number, authority, valid from, valid to, pass number, issue
    // count.
    std::array<std::string, 10> permit{};
    std::string number;  // the identity number (photo file name)
};

// The fields of a record's text part (shorter text reads as blanks).
CardFields card_fields(std::span<const uint8_t> text);
// "|"-joined.
std::string card_line(const CardFields& fields);

// The sex text of a sex code: "1" 男, "2" 女, anything else 未知 (GBK).
std::string_view sex_text(std::string_view code);

// ---------------------------------------------------------------------------
// Photo.

// zp.bmp: 102 x 126 pixels, 24 bits, rows of 306 bytes padded to 308.
inline constexpr int kBmpWidth = 102;
inline constexpr int kBmpHeight = 126;
inline constexpr std::size_t kBmpHeaderSize = 54;
inline constexpr std::size_t kBmpRowSize = 308;
inline constexpr std::size_t kBmpFileSize = kBmpHeaderSize + kBmpHeight * kBmpRowSize;  // 38862
// Pixels unpack delivers: 102 x 127 of 3 bytes (RGB).
inline constexpr std::size_t kPixelBytes = 102 * 127 * 3;
inline constexpr const char* kPhotoFile = "zp.bmp";

// The bitmap file of unpack's RGB pixels (the first kPixelBytes are read):
// header, then the first 126 rows as delivered, each pixel BGR.
std::vector<uint8_t> bmp_file(std::span<const uint8_t> rgb);

// YC_GetBmp: "./libwlt.so"'s unpack, then zp.bmp in the working directory.
// 0, or -98 when the library or its unpack is not there.
int32_t get_bmp(std::span<const uint8_t> photo);

// Where a type-1 card's photo would be stored for a photo path: a
// directory (created when missing) + "/" + number + ".bmp", or, for a path
// ending in jpg, bmp, png or gif, its directory (created) + number + "." +
// the extension. Computed and not used: the photo stays in zp.bmp.
std::string photo_target(std::string_view photo_path, std::string_view number);

// ---------------------------------------------------------------------------
// Flows.

struct CardResult {
    int32_t code = 0;
    std::string line;   // the output line (written only when code is 0)
    bool folded = true; // ID_GetInfo folds the code (not its own -98)
};

// YC_idCovToGBK: fields, photo, line; for a residence permit also the two
// card images. 0, -98, or get_bmp's code.
CardResult yc_id_cov_to_gbk(std::span<const uint8_t> record, std::string_view photo_path);

// getIdCardInfo: opens the link (KOLT_initCom's four arguments), waits for
// a card (0 s: 864000 s), reads it. 0; -5 link; -2 no card in time; -1
// module error; or yc_id_cov_to_gbk's code (the link is then left open).
inline constexpr int kDefaultCardWait = 864000;
CardResult get_id_card_info(int32_t term_type, std::string_view dev_name, int32_t port, std::string_view aux,
                            int32_t timeout, std::string_view photo_path);

// ID_GetInfo: the port name into gPortName, the log switch from
// ./param.ini, the closed libraries checked (-98 without ./libwlt.so, not
// folded), then getIdCardInfo on the local line, whose result the caller
// folds with id_get_info_code (-3 stays, -204 is -11, other non-zero -99).
CardResult id_get_info(std::string_view port_name, int32_t timeout, std::string_view photo_path);
// The folding of ID_GetInfo.
int32_t id_get_info_code(int32_t code);

// displayCheckResult's data block: total length (2, high first), result
// code (2 characters, "0"-filled on the left), name (UCS-2LE, 30 bytes),
// number (18 characters), authority (UCS-2LE, 30 bytes), then the photo
// decoded from Base64 when the code is "00".
std::vector<uint8_t> check_result_block(std::string_view code, std::string_view name, std::string_view number,
                                        std::string_view authority, std::string_view photo_base64);
// displayCheckResult: 0, or -5 when the link cannot be opened.
int32_t display_check_result(int32_t term_type, std::string_view tty, int32_t port, std::string_view extend,
                             std::string_view code, std::string_view name, std::string_view number,
                             std::string_view authority, std::string_view photo_base64);

}  // namespace kolt::idcard
