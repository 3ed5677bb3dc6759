// Stand-in for the closed card-image library "libidpic.so": its GetJIdPic
// writes the two named bitmap files, each holding the texts it was given
// (one per line), so that tests can see what the reader passed.
#include <cstdio>
#include <initializer_list>

extern "C" __attribute__((visibility("default"))) int GetJIdPic(char* name, char* sex, char* birth, char* address,
                                                                 char* number, char* authority, char* from, char* to,
                                                                 char* pass, char* issues, int a11, const char* front,
                                                                 const char* back, int a14, int a15) {
    const char* texts[] = {name, sex, birth, address, number, authority, from, to, pass, issues};
    for (const char* path : {front, back}) {
        std::FILE* f = std::fopen(path, "wb");
        if (f == nullptr) return -1;
        for (const char* t : texts) std::fprintf(f, "%s\n", t != nullptr ? t : "(null)");
        std::fprintf(f, "%d %d %d\n", a11, a14, a15);
        std::fclose(f);
    }
    return 0;
}
