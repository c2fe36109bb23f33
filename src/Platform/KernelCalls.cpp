#include "Platform/KernelCalls.h"

#include "Platform/ErrnoKeeper.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <linux/openat2.h>
#include <unistd.h>

namespace platform::kernel {

// Calls as recent as these have the same number on every architecture.
enum : long {
    kOpenAt2 = 437,
    kFchmodAt2 = 452,
    kSetXattrAt = 463,
    kGetXattrAt = 464,
    kRemoveXattrAt = 466,
    kFileGetAttr = 468,
    kFileSetAttr = 469,
};

// Whether the running kernel has one call; asked once.
class Presence {
public:
    explicit constexpr Presence(long number) : number_(number) {}

    bool Absent()
    {
        int known = state_.load(std::memory_order_relaxed);
        if (known == kUnknown) {
            known = Probe() ? kPresent : kAbsent;
            state_.store(known, std::memory_order_relaxed);
        }
        if (known == kAbsent) errno = ENOSYS;
        return known == kAbsent;
    }

private:
    enum : int { kUnknown, kPresent, kAbsent };

    // Each of the calls refuses an invalid descriptor with an empty name and unknown flags at once.
    bool Probe() const
    {
        const ErrnoKeeper keeper;
        const long result = syscall(number_, -1L, "", -1L, 0L, -1L, 0L);
        return result >= 0 || (errno != ENOSYS && errno != EPERM);
    }

    const long number_;
    std::atomic<int> state_{kUnknown};
};

int OpenBelow(int directory, const char *path, int flags)
{
    static Presence presence(kOpenAt2);
    if (presence.Absent()) return -1;
    open_how how{};
    how.flags = static_cast<__u64>(flags | O_LARGEFILE);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;
    return static_cast<int>(syscall(kOpenAt2, directory, path, &how, sizeof how));
}

int FchmodAt2(int directory, const char *name, mode_t mode, int atFlags)
{
    static Presence presence(kFchmodAt2);
    if (presence.Absent()) return -1;
    return static_cast<int>(syscall(kFchmodAt2, directory, name, mode, atFlags));
}

// What the calls that carry a value expect. The pointer takes eight bytes on every architecture.
struct XattrArgs {
    alignas(8) uint64_t value;
    uint32_t size;
    uint32_t flags;
};

static XattrArgs _ArgsFor(const void *value, size_t size)
{
    return {reinterpret_cast<uintptr_t>(value), static_cast<uint32_t>(size), 0};
}

ssize_t GetXattrAt(int directory, const char *name, int atFlags, const char *attribute, void *buffer, size_t size)
{
    static Presence presence(kGetXattrAt);
    if (presence.Absent()) return -1;
    // No value is larger than this, and the field has 32 bits.
    XattrArgs args = _ArgsFor(buffer, size > UINT32_MAX ? UINT32_MAX : size);
    return syscall(kGetXattrAt, directory, name, atFlags, attribute, &args, sizeof args);
}

int SetXattrAt(int directory, const char *name, int atFlags, const char *attribute, const void *value, size_t size)
{
    static Presence presence(kSetXattrAt);
    if (presence.Absent()) return -1;
    if (size > UINT32_MAX) {
        errno = E2BIG;
        return -1;
    }
    XattrArgs args = _ArgsFor(value, size);
    return static_cast<int>(syscall(kSetXattrAt, directory, name, atFlags, attribute, &args, sizeof args));
}

int RemoveXattrAt(int directory, const char *name, int atFlags, const char *attribute)
{
    static Presence presence(kRemoveXattrAt);
    if (presence.Absent()) return -1;
    return static_cast<int>(syscall(kRemoveXattrAt, directory, name, atFlags, attribute));
}

int FileGetAttr(int directory, const char *name, FileAttr *attr, int atFlags)
{
    static Presence presence(kFileGetAttr);
    if (presence.Absent()) return -1;
    return static_cast<int>(syscall(kFileGetAttr, directory, name, attr, sizeof *attr, atFlags));
}

int FileSetAttr(int directory, const char *name, const FileAttr &attr, int atFlags)
{
    static Presence presence(kFileSetAttr);
    if (presence.Absent()) return -1;
    return static_cast<int>(syscall(kFileSetAttr, directory, name, &attr, sizeof attr, atFlags));
}

} // namespace platform::kernel
