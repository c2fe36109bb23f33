// Property lists from anybody: whatever the bytes, no crash, no endless work, and nothing lost on the way back.

#include "fuzz/Fuzz.h"
#include "fuzz/PlistRoundTrip.h"

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    bool accepted = false;
    const char *const fault = CheckPlistRoundTrip(bytes, size, accepted);
    Require(fault == nullptr, fault ? fault : "");
    return 0;
}
