// How long the name of a generation may be.

#pragma once

#include <cstddef>

// In bytes, and for a name that is a string also in UTF-16 units. It is one less than file systems hold.
inline constexpr size_t kGenerationNameLimit = 254;
