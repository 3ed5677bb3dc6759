// The tag-letter tables and their lookups.
#include <cstring>

#include "emv/tags.hpp"

namespace kolt::emv {

const char tagList[kTagCount + 1] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ1234";

const uint64_t apduTagList[kTagCount] = {
    0x5A,   0x5F20, 0x9F62, 0x9F61, 0x57,   0x9F1F, 0x9F79, 0x9F77, 0x5F24, 0x5F34,
    0x9F78, 0,      0x9F0B, 0,      0x9F13, 0x9F02, 0x9F03, 0x5F2A, 0x9A,   0x9C,
    0x9F21, 0x9F1A, 0x9F4E, 0x9F36, 0,      0x82,   0x95,   0x9F37, 0x8C,   0x8D,
};

const char ContactStandardPDOL[] = "9F7A019F02065F2A02";
const char TAG_Issuer_Discretionary_Data[] = "BF0C";
const char TAG_DF_Name[] = "84";
const uint8_t trDetailRecordFormat[25] = {
    0x9A, 0x03,              // transaction date
    0x9F, 0x21, 0x03,        // transaction time
    0x9F, 0x02, 0x06,        // amount, authorised
    0x9F, 0x03, 0x06,        // amount, other
    0x9F, 0x1A, 0x02,        // terminal country code
    0x5F, 0x2A, 0x02,        // transaction currency code
    0x9F, 0x4E, 0x14,        // merchant name and location
    0x9C, 0x01,              // transaction type
    0x9F, 0x36, 0x02,        // application transaction counter
};

// ---------------------------------------------------------------------------

int tag_index(uint64_t tag) {
    if (tag == 0) return -1;  // L, N and Y carry no tag
    for (int i = 0; i < kTagCount; ++i) {
        if (apduTagList[i] == tag) return i;
    }
    return -1;
}

int tag_index(std::span<const uint8_t> tag) {
    if (tag.empty()) return -1;
    if (tag.size() == 1) return tag_index(static_cast<uint64_t>(tag[0]));
    return tag_index(static_cast<uint64_t>(tag[0]) * 256u + tag[1]);
}

int letter_index(char letter) {
    if (letter == '\0') return -1;
    const char* p = std::strchr(tagList, letter);
    return p == nullptr ? -1 : static_cast<int>(p - tagList);
}

}  // namespace kolt::emv
