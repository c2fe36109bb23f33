// Copying a generation out to a path where nothing is.
//
// It shows a bar, and can't be stopped half-way: if Ctrl-C comes too late, the caller decides what becomes of the copy.

#pragma once

#include "store.h"

#include <functional>

// `copy` makes `destination` of the generation `name`. Throws if it fails, or was interrupted before anything was made.
// `what` begins the message of a failure.
void CopyOut(const Store &store, const std::string &name, const std::string &destination, const std::string &what,
             const std::function<bool(TQError **error)> &copy);
