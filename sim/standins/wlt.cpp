// Stand-in for the closed photo decoder "libwlt.so": its unpack fills the
// pixel buffer with a known pattern (byte i of the RGB pixels is
// (i * 7 + first input byte) & 0xFF) and returns 1, so that tests can
// predict zp.bmp byte for byte.
#include <cstddef>

extern "C" __attribute__((visibility("default"))) int unpack(unsigned char* src, unsigned char* dst, int arg) {
    (void)arg;
    const unsigned char seed = src != nullptr ? src[0] : 0;
    constexpr std::size_t kPixels = 102 * 127 * 3;
    for (std::size_t i = 0; i < kPixels; ++i) dst[i] = static_cast<unsigned char>((i * 7 + seed) & 0xFF);
    return 1;
}
