/* A teller application in miniature, built against an installed libkolt:
 * opens the link to the reader named on the command line (a name below
 * /dev/, e.g. pts/4), reads the firmware version and closes the link.
 * Prints the version bytes as hex and exits 0 when all succeeded. */
#include <stdio.h>
#include <string.h>

#include <kolt/kolt.h>

int main(int argc, char **argv) {
    if (argc != 2 || strlen(argv[1]) >= sizeof gPortName) {
        fprintf(stderr, "usage: kolt-consumer PORT (e.g. pts/4)\n");
        return 2;
    }
    strcpy(gPortName, argv[1]);
    if (IC_initCom(0, 0) != 0) {
        fprintf(stderr, "kolt-consumer: cannot open /dev/%s\n", gPortName);
        return 1;
    }
    uint8_t version[KOLT_VERSION_MAX];
    const int32_t n = KOLT_T41_GetVersion(4, version, 2);
    IC_CloseCom(0, 0);
    if (n <= 0) {
        fprintf(stderr, "kolt-consumer: no version (%d)\n", (int)n);
        return 1;
    }
    printf("version:");
    for (int32_t i = 0; i < n; ++i) printf(" %02X", version[i]);
    printf("\n");
    return 0;
}
