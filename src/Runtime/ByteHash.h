// The hash of bytes, keyed afresh in every process, so that nobody can prepare a document whose keys all
// fall into one bucket.

#pragma once

#include <cstddef>
#include <cstdint>

uintptr_t HashBytes(const void *bytes, size_t length);
uintptr_t HashInteger(uint64_t value);
