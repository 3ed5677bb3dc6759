// Transaction data of the cryptogram and issuer-authentication calls.
#include "emv/tr_data.hpp"

#include <cstdio>

#include "emv/state.hpp"
#include "emv/tags.hpp"
#include "support/text.hpp"

namespace kolt::emv {

namespace {

std::string_view as_text(std::span<const uint8_t> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

constexpr std::size_t kIcrtHead = 4;  // letter and three digits

// The length of an ICRT field (three characters read as atoi reads them).
int32_t icrt_length(std::span<const uint8_t> digits) { return support::atoi_value(as_text(digits.first(3))); }

}  // namespace

std::vector<TrField> split_icrt(std::span<const uint8_t> text) {
    std::vector<TrField> fields;
    std::size_t pos = 0;
    while (fields.size() < kTrFieldsMax && pos < text.size() && text[pos] != 0) {
        if (text.size() - pos < kIcrtHead) break;
        const int32_t n = icrt_length(text.subspan(pos + 1, 3));
        if (n < 0) break;
        const std::size_t start = pos + kIcrtHead;
        const std::size_t len = std::min<std::size_t>(static_cast<std::size_t>(n), text.size() - start);
        fields.push_back({static_cast<char>(text[pos]), text.subspan(start, len)});
        if (len < static_cast<std::size_t>(n)) break;
        pos = start + len;
    }
    return fields;
}

std::vector<TrField> split_ic(std::span<const uint8_t> block) {
    std::vector<TrField> fields;
    std::size_t pos = 0;
    while (fields.size() < kTrFieldsMax && pos < block.size() && block[pos] != 0) {
        if (block.size() - pos < 2) break;
        const std::size_t n = block[pos + 1];
        const std::size_t start = pos + 2;
        const std::size_t len = std::min(n, block.size() - start);
        fields.push_back({static_cast<char>(block[pos]), block.subspan(start, len)});
        pos = start + len;
    }
    return fields;
}

std::size_t ic_block_extent(const uint8_t* p) {
    if (p == nullptr) return 0;
    std::size_t pos = 0;
    for (std::size_t k = 0; k < kTrFieldsMax && p[pos] != 0; ++k) pos += 2 + p[pos + 1];
    return pos;
}

char icrt_letter(char letter) {
    // The renamings run one after another on the same letter.
    if (letter == 'J') letter = 'W';
    if (letter == 'K') letter = '2';
    if (letter == 'L') letter = '1';
    if (letter == 'V') letter = 'W';
    return letter;
}

char ic_letter(char letter) { return letter == 'V' ? 'W' : letter; }

void store_tr_field(int index, char letter, std::span<const uint8_t> value) {
    char text[32];
    switch (letter) {
    case 'P':
    case 'Q':
        std::snprintf(text, sizeof text, "%012d", support::atoi_value(as_text(value)));
        set_slot_text(index, text);
        return;
    case 'R':
        std::snprintf(text, sizeof text, "%04d", support::atoi_value(as_text(value)));
        set_slot_text(index, text);
        // The terminal country code follows the currency when the caller
        // gave none.
        if (slot_value(kCountry).empty()) set_slot_text(kCountry, text);
        return;
    default:
        set_slot(index, value);
        return;
    }
}

int32_t store_tr_fields(const std::vector<TrField>& fields, char (*rename)(char)) {
    for (const TrField& f : fields) {
        const char letter = rename(f.letter);
        const int index = letter_index(letter);
        if (index < 0) return -2;
        store_tr_field(index, letter, f.value);
    }
    return 0;
}

std::string encode_ic(std::string_view letters) {
    std::string block;
    for (char c : letters) {
        const auto value = slot_value(letter_index(c));
        if (value.empty()) continue;
        block += c;
        block += static_cast<char>(value.size());
        block += as_text(value);
    }
    return block;
}

int32_t parse_tr_data_icrt(std::span<const uint8_t> text) { return store_tr_fields(split_icrt(text), icrt_letter); }

int32_t parse_tr_data_ic(std::span<const uint8_t> block) { return store_tr_fields(split_ic(block), ic_letter); }

std::string para_deal(std::span<const uint8_t> text) {
    std::string out;
    std::size_t pos = 0;
    while (pos < text.size() && text[pos] != 0 && text.size() - pos >= kIcrtHead) {
        const int32_t n = icrt_length(text.subspan(pos + 1, 3));
        if (n < 0) break;
        const std::size_t start = pos + kIcrtHead;
        const std::size_t len = std::min<std::size_t>(static_cast<std::size_t>(n), text.size() - start);
        std::string value(as_text(text.subspan(start, len)));
        value = value.substr(0, value.find('\0'));
        const char letter = static_cast<char>(text[pos]);
        std::size_t width = 0;
        int32_t shown = n;
        if (letter == 'P' || letter == 'Q') {
            width = 12;
            shown = 12;
        } else if (letter == 'R') {
            width = 4;
            shown = 4;
        }
        char head[16];
        std::snprintf(head, sizeof head, "%c%03d", letter, static_cast<int>(shown));
        out += head;
        // Right-justified in the width with blanks; a longer value is not cut.
        if (value.size() < width) out.append(width - value.size(), ' ');
        out += value;
        if (len < static_cast<std::size_t>(n)) break;
        pos = start + len;
    }
    return out;
}

}  // namespace kolt::emv
