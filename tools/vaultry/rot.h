// What is no longer as it was sealed.

#pragma once

#include "store.h"

#include <functional>

// As a finding of a check, of which `kind` is the word for programs.
struct Rot {
    std::string generation, path;
    const char *kind;
    std::string meaning;
};

// Counted in generations.
struct SealCount {
    size_t all = 0, sealed = 0, read = 0;
};

// A generation whose info can't be read, which is a finding of its own, is in no count.
SealCount CountSealed(const Store &store);

// Reads all that is sealed, from the disk, and shows what has rotted, in the order of paths in a generation. Throws
// if a signal comes. What is removed meanwhile is passed over.
SealCount ReadSealed(const Store &store, const std::function<void(const Rot &)> &show, Problems &problems);
