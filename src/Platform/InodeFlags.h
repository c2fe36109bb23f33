// Flags of an open item whose status is known already, for callers that have just read it.

#pragma once

#include <vaultry/file_status.h>

namespace platform {

// Gives the open item `fd` exactly the bits of `flags`; `status` is what statx said of it. Otherwise it is as
// SetFlagsOfFd.
int SetFlagsOfKnown(int fd, const TQFileStatus &status, uint32_t flags);

} // namespace platform
