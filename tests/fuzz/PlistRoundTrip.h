// What must hold for any bytes: they are refused with an error, or they are a value that can be written, read again
// and is still the same. Shared by the fuzzer and by the test that replays its corpus.

#pragma once

#include "Runtime/Ref.h"

#include <vaultry/collections.h>
#include <vaultry/data.h>
#include <vaultry/error.h>
#include <vaultry/plist.h>
#include <vaultry/string.h>

#include <cstdint>

// Null if it holds; else what does not. `accepted` tells whether the bytes were a property list.
inline const char *CheckPlistRoundTrip(const uint8_t *bytes, size_t size, bool &accepted)
{
    const auto data = Ref<TQData>::Adopt(TQDataCreate(bytes, size));
    Ref<TQError> error;
    const auto value = Ref<TQValue>::Adopt(TQPropertyListCreateWithData(data.get(), false, error.out()));
    accepted = static_cast<bool>(value);
    if (!value) {
        if (!error || TQErrorGetCode(error.get()) != 1) return "refused without an error of code 1";
        const auto text = Ref<TQString>::Adopt(TQErrorCopyDescription(error.get()));
        return TQStringGetLength(text.get()) > 0 ? nullptr : "refused without a description";
    }
    const auto mutableValue = Ref<TQValue>::Adopt(TQPropertyListCreateWithData(data.get(), true, nullptr));
    if (!TQEqual(value.get(), mutableValue.get())) return "the mutable form differs";
    if (TQHash(value.get()) != TQHash(mutableValue.get())) return "equal values have different hashes";

    const auto written = Ref<TQData>::Adopt(TQPropertyListCreateData(mutableValue.get(), nullptr));
    if (!written) return "can't be written";
    const auto again = Ref<TQValue>::Adopt(TQPropertyListCreateWithData(written.get(), false, nullptr));
    if (!TQEqual(value.get(), again.get())) return "comes back different";
    const auto rewritten = Ref<TQData>::Adopt(TQPropertyListCreateData(again.get(), nullptr));
    if (!TQEqual(written.get(), rewritten.get())) return "is written differently the second time";
    const auto description = Ref<TQString>::Adopt(TQCopyDescription(value.get()));
    return description ? nullptr : "can't be described";
}
