// Volumes: statistics, native type, and what can be relied on there.

#pragma once

#include <vaultry/file_status.h>

#include <optional>

namespace platform {

// Never follows a final link (ELOOP) and never blocks on a FIFO. 0, or -1 with errno.
int GetVolumeStatus(const char *path, TQVolumeStatus *out);

// Whether volumes of this type are local, persistent, and hold attributes and flags.
bool IsNativeVolumeType(const char *typeName);

// Whether the volume of an open item is of a type that is known to keep its word: a flush of the volume reaches all
// that lies on it, a late error is told to a descriptor that did not write, the access lists of an item are among the
// names of its attributes, and the size of a file is what it holds. Empty, with errno, if it can't be told.
std::optional<bool> AskWhetherVolumeHonoursFlush(int fd);

// The same for callers to whom false is the safe answer: it is false if it can't be told. errno is untouched.
bool VolumeHonoursFlush(int fd);

// The same, but asks again only when the device changes.
class VolumeMemory {
public:
    bool HonoursFlush(int fd, uint64_t device)
    {
        if (device_ != device) honours_ = VolumeHonoursFlush(fd);
        device_ = device;
        return honours_;
    }

private:
    std::optional<uint64_t> device_;
    bool honours_ = false;
};

} // namespace platform
