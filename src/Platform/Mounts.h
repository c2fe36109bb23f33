// What is mounted where.

#pragma once

namespace platform {

// Whether something is mounted on the item at `path`, or on anything below it, according to the kernel's list of
// mounts. A final link is not followed. 0, or -1 with errno; errno is untouched on success.
int HasMountInside(const char *path, bool *has);

} // namespace platform
