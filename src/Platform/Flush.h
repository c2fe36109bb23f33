// Making what was written survive a power cut.
//
// Both return 0, or -1 with errno; errno is untouched on success. A file system that can't flush answers EINVAL or
// ENOTSUP. It promises nothing, so this counts as success. A flush that failed is never tried again: the kernel has
// dropped what it could not write, and the next call would succeed.

#pragma once

namespace platform {

// The content and the attributes of one open item; the entries of a directory.
int FlushFd(int fd);

// Everything on the file system of an open item. Reports errors in writing back what was written since the item was
// opened, and earlier ones if nobody was told of them yet.
int FlushVolumeOfFd(int fd);

// Begins to write the content of an open file, without waiting for it. Only the flush that follows can tell a failure.
void BeginFlushOfFd(int fd);

// Whether so much that anybody has written waits for a disk that a flush of the volume of an open item could take long.
// True if that can't be told.
bool MuchWaitsToBeWritten(int fd);

} // namespace platform
