// Property lists from anybody: whatever the bytes, no crash and no endless work. Either they are refused with a reason,
// or their value can be written and read again and is still the same.

#include "Runtime/Values.h"
#include "fuzz/Fuzz.h"

#include <vaultry/plist.h>

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    Ref<TQError> error;
    const Value data = Own(TQDataCreate(bytes, size));
    const Value value = Own(TQPropertyListCreateWithData(Cast{data}, false, error.out()));
    if (!value) {
        Require(error && TQErrorGetCode(error.get()) == 1 && !Describe(error.get()).empty(),
                "refused without a reason");
        return 0;
    }
    const Value twin = Own(TQPropertyListCreateWithData(Cast{data}, false, nullptr));
    Require(TQEqual(value.get(), twin.get()) && TQHash(value.get()) == TQHash(twin.get()), "differs from itself");
    const Value thawed = Own(TQPropertyListCreateWithData(Cast{data}, true, error.out()));
    if (!thawed) { // writing it would spell out shared containers too
        Require(Describe(error.get()).find("more memory") != std::string::npos, "is not to be had mutable");
        Require(!Describe(value.get()).empty(), "can't be described");
        return 0;
    }
    Require(TQEqual(value.get(), thawed.get()), "the mutable form differs");
    Require(TQHash(value.get()) == TQHash(thawed.get()), "equal values have different hashes");

    const Value written = Own(TQPropertyListCreateData(thawed.get(), nullptr));
    Require(static_cast<bool>(written), "can't be written");
    const Value again = Own(TQPropertyListCreateWithData(Cast{written}, false, nullptr));
    Require(TQEqual(value.get(), again.get()), "comes back different");
    const Value rewritten = Own(TQPropertyListCreateData(again.get(), nullptr));
    Require(TQEqual(written.get(), rewritten.get()), "is written differently the second time");
    Require(static_cast<bool>(Own(TQCopyDescription(value.get()))), "can't be described");
    return 0;
}
