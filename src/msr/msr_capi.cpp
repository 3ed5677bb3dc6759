// The stripe reader's cancel flag: another thread of the application sets it
// to 1 to abandon a waiting read or write.
#include "kolt/kolt.h"

extern "C" {
KOLT_API volatile int32_t cancelOperation = 0;
}
