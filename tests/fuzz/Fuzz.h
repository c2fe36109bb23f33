// What every fuzzer shares: what does not hold ends the process, whoever runs it.

#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size);

inline void Require(bool holds, const std::string &what)
{
    if (holds) return;
    (void)std::fprintf(stderr, "fuzzer: %s\n", what.c_str());
    std::abort();
}
