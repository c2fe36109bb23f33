// Shared by every fuzzer and its replay.

#pragma once

#include "support/Disk.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size);
