// Copying a generation out to a path where nothing is.
//
// It shows a bar, and can't be stopped half-way: if Ctrl-C comes too late, the caller decides what becomes of the copy.

#pragma once

#include <vaultry/error.h>

#include <functional>
#include <string>

// `copy` makes `destination` of what lies in a store at `source`. Throws if it fails, or was interrupted before
// anything was made. `what` begins the message of a failure.
void CopyOut(const std::string &source, const std::string &destination, const std::string &what,
             const std::function<bool(TQError **error)> &copy);
