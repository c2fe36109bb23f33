// Which machine this is, and which of its starts.
//
// Several machines may share a volume. What a process of another one noted can't be looked up here, and what one of an
// earlier start noted is over.

#pragma once

namespace platform {

struct Machine {
    char id[80];   // of the installation; without one the machine's name
    char boot[80]; // "-" where the kernel does not tell
};

// Read once and kept. Keeps errno.
const Machine &ThisMachine();

} // namespace platform
