// Identifies this machine and its current boot.
//
// Several machines may share a volume. A process of another machine can't be looked up here, and a process of an
// earlier boot no longer runs.

#pragma once

namespace platform {

struct Machine {
    char id[80];   // the installation's; if it has none, the machine's name
    char boot[80]; // "-" where the kernel does not tell
    char name[80]; // for people
};

// Read once and kept. Keeps errno.
const Machine &ThisMachine();

} // namespace platform
