// Numbers and booleans. An integer that fits is always an int64_t, so that a value has one form.

#pragma once

#include "Runtime/Object.h"

#include <vaultry/number.h>

struct TQNumber : Object {
    static constexpr Type kType = kTypeNumber;

    explicit TQNumber(int64_t value) noexcept;
    explicit TQNumber(uint64_t value) noexcept; // greater than INT64_MAX
    explicit TQNumber(double value) noexcept;
    ~TQNumber() = default;

    TQNumberKind numberKind;
    union {
        int64_t int64;
        uint64_t uint64;
        double real;
    };
};

struct TQBoolean : Object {
    static constexpr Type kType = kTypeBoolean;

    constexpr TQBoolean(const Kind *ofKind, bool truth) noexcept : Object(ofKind, kImmortal), value(truth) {}
    ~TQBoolean() = default;

    bool value;
};
