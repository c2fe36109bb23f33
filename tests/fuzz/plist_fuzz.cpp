// Property lists from anybody: whatever the bytes, no crash, no endless work, and nothing lost on the way back.

#include "PlistRoundTrip.h"

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size);

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    bool accepted = false;
    if (const char *fault = CheckPlistRoundTrip(bytes, size, accepted)) {
        (void)std::fprintf(stderr, "%s\n", fault);
        std::abort();
    }
    return 0;
}
