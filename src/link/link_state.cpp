// Process-wide link state.
#include "kolt/kolt.h"

extern "C" {
KOLT_API char gPortName[32] = {0};
}
