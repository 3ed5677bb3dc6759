/* Compiled as strict C99 against the public header and linked with the
 * shared object: the header must be valid C and the calls must resolve. */
#include <kolt/kolt.h>
#include <stdio.h>
#include <string.h>

int main(void) {
    uint8_t buf[16] = {0x41, 0x42, 0x43};
    int32_t n = KOLT_Base64(buf, 3);
    if (n != 4 || memcmp(buf, "QUJD", 4) != 0) {
        fprintf(stderr, "KOLT_Base64 gave %d\n", (int)n);
        return 1;
    }
    n = KOLT_UnBase64(buf, 4);
    if (n != 3 || memcmp(buf, "ABC", 3) != 0) {
        fprintf(stderr, "KOLT_UnBase64 gave %d\n", (int)n);
        return 1;
    }
    if (sizeof gPortName != 32 || cancelOperation != 0) {
        fprintf(stderr, "exported globals have the wrong shape\n");
        return 1;
    }
    strcpy(gPortName, "ttyS0");
    return 0;
}
