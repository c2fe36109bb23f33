// How long the name of a generation may be.

#pragma once

#include <cstddef>

// Bytes, and UTF-16 units of a name that is a string: one less than file systems hold.
inline constexpr size_t kGenerationNameLimit = 254;
