// Error objects, and the error for property lists.

#pragma once

#include "Runtime/Object.h"

#include <vaultry/error.h>

struct TQError : Object {
    static constexpr Type kType = kTypeError;

    TQError(TQString *ofDomain, intptr_t ofCode, TQDictionary *info) noexcept; // takes both references over
    // A constant.
    constexpr TQError(const Kind *ofKind, TQString *ofDomain, intptr_t ofCode, TQString *text) noexcept
        : Object(ofKind, kImmortal), domain(ofDomain), code(ofCode), userInfo(nullptr), constantText(text)
    {
    }
    ~TQError();

    TQString *domain;
    intptr_t code;
    TQDictionary *userInfo;           // null when there is none
    TQString *constantText = nullptr; // the description of a constant, which has no user information
};

// The error for a lack of memory. It is a constant, so that a caller always gets an error.
TQError *NoMemoryError();

// An error of the library's domain with code 1; NoMemoryError if there is no memory for it, or `text` is null.
TQError *MakeGeneralError(TQString *text);
