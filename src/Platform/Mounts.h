// What is mounted where.

#pragma once

namespace platform {

// Whether something is mounted on the item at `path`, or on anything below it, according to the kernel's list of
// mounts. A final link is not followed. 0, or -1 with errno; errno is untouched on success.
int HasMountInside(const char *path, bool *has);

// The numbers by which the kernel's lists call the volume of an open item. Those in its status may be of a part of it;
// they are told where the volume is in no list. False, with errno, if there is no status.
bool GetVolumeNumber(int fd, unsigned *major, unsigned *minor);

} // namespace platform
