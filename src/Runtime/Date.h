// Dates. A property list counts seconds from 2001, clients from 1970; near 1970 the former is coarser (about
// a tenth of a microsecond). Both are kept: a client gets back what it gave, and dates are equal when a
// property list could not tell them apart, so that what is read back equals what was written.

#pragma once

#include "Runtime/Object.h"

#include <vaultry/data.h>

struct TQDate : Object {
    static constexpr Type kType = kTypeDate;
    static constexpr double kSecondsTo2001 = 978307200;

    TQDate(double from1970, double from2001) noexcept;
    ~TQDate() = default;

    double sinceUnix;
    double since2001;
};

TQDate *MakeDateSince2001(double seconds);
