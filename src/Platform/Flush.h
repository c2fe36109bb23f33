// Making what was written survive a power cut.
//
// Both return 0, or -1 with errno; errno is untouched on success. A file system that can't flush answers EINVAL or
// ENOTSUP: it promises nothing that a failure here could tell anybody, so it is passed over. What failed is never tried
// again: the kernel has dropped what it could not write, and the next call would succeed.

#pragma once

namespace platform {

// The content and the attributes of one open item; the entries of a directory.
int FlushFd(int fd);

// All that lies on the file system of an open item. Errors of writing back what was written since it was opened are
// reported, those from before too if nobody has heard of them.
int FlushVolumeOfFd(int fd);

} // namespace platform
