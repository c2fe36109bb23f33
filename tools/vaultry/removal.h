// Takes generations out of the store.

#pragma once

#include "store.h"

// By one call of the library. Where it can't remove one, the others still go, and each that stays is one of the
// problems; so is each that is pinned by then, unless `pinnedToo`. Returns those that went.
std::vector<std::string> RemoveAll(const Store &store, const std::vector<std::string> &names, bool pinnedToo,
                                   Problems &problems);
