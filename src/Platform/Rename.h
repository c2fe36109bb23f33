// Renames that replace nothing.

#pragma once

namespace platform {

// 0, or -1 with errno: EEXIST if there is anything at `to`, a dangling link too. errno is untouched on success.
int RenameIntoNothing(const char *from, const char *to);

} // namespace platform
