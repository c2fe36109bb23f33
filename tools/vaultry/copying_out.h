// Copying a generation out to a path where nothing is.
//
// It shows a bar, and can't be stopped half-way: after Ctrl-C what it made is removed as soon as it is through.

#pragma once

#include "store.h"

#include <functional>

// What the InterruptGuard says that has to live meanwhile.
inline constexpr char kCopyIsRemoved[] = "\nvaultry: stopping: the copy is removed as soon as it is through; "
                                         "once more ends at once and leaves what is there\n";

// `copy` makes `destination` of the generation `name`. Throws if it fails or was interrupted; `what` was being done.
void CopyOut(const Store &store, const std::string &name, const std::string &destination, const std::string &what,
             const std::function<bool(TQError **error)> &copy);
