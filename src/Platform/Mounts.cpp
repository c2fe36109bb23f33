#include "Platform/Mounts.h"

#include "Platform/ErrnoKeeper.h"
#include "Platform/ProcPath.h"
#include "Platform/UniqueFd.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/limits.h>
#include <sys/stat.h>

namespace platform {

namespace {

using Path = std::array<char, PATH_MAX>;

struct MountList {
    FILE *file = fopen("/proc/thread-self/mountinfo", "re");
    char *line = nullptr;
    size_t capacity = 0;

    MountList() = default;
    MountList(const MountList &) = delete;
    MountList &operator=(const MountList &) = delete;
    ~MountList()
    {
        const ErrnoKeeper keeper;
        free(line);
        if (file) (void)fclose(file);
    }
};

// What the kernel calls the item, whatever links led there.
bool GetCanonicalPath(const char *path, Path &canonical)
{
    const UniqueFd fd(open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) return false;
    const ssize_t length = readlink(ProcPath(fd.get()).c_str(), canonical.data(), canonical.size());
    if (length < 0) return false;
    if (static_cast<size_t>(length) == canonical.size()) {
        errno = ENAMETOOLONG;
        return false;
    }
    canonical[static_cast<size_t>(length)] = '\0';
    return true;
}

bool IsOctal(const char *text)
{
    return text[0] >= '0' && text[0] <= '3' && text[1] >= '0' && text[1] <= '7' && text[2] >= '0' && text[2] <= '7';
}

// Decodes in place: the list writes blanks, line ends and backslashes as a backslash and three octal digits.
void DecodeEscapes(char *text)
{
    char *to = text;
    for (const char *from = text; *from;) {
        const bool isEscape = *from == '\\' && IsOctal(from + 1);
        *to++ = isEscape ? static_cast<char>((from[1] - '0') << 6 | (from[2] - '0') << 3 | (from[3] - '0')) : *from;
        from += isEscape ? 4 : 1;
    }
    *to = '\0';
}

bool IsAtOrBelow(const char *path, const char *top)
{
    const size_t length = strlen(top);
    if (strncmp(path, top, length) != 0) return false;
    return path[length] == '\0' || path[length] == '/' || top[length - 1] == '/';
}

// A mount that is covered by another one is still in the list, but can't be reached. If that can't be told, it counts
// as reached.
bool IsReached(const char *mountPoint, uint64_t id)
{
    struct statx status;
    if (statx(AT_FDCWD, mountPoint, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_MNT_ID, &status) != 0) return true;
    return (status.stx_mask & STATX_MNT_ID) == 0 || status.stx_mnt_id == id;
}

// A line of the list: "36 35 98:0 /root-of-mount /mount/point rw,noatime …".
bool IsMountInside(char *line, const char *top)
{
    const uint64_t id = strtoull(line, nullptr, 10);
    char *field = line;
    for (int i = 0; i < 4; ++i) {
        field = strchr(field, ' ');
        if (!field) return false;
        ++field;
    }
    field[strcspn(field, " \n")] = '\0';
    DecodeEscapes(field);
    return IsAtOrBelow(field, top) && IsReached(field, id);
}

} // namespace

int HasMountInside(const char *path, bool *has)
{
    const int before = errno;
    Path top;
    if (!GetCanonicalPath(path, top)) return -1;
    MountList list;
    if (!list.file) return -1;
    bool found = false;
    errno = 0;
    while (!found && getline(&list.line, &list.capacity, list.file) > 0) {
        found = IsMountInside(list.line, top.data());
        errno = 0;
    }
    if (!found && errno != 0) return -1;
    errno = before;
    *has = found;
    return 0;
}

bool GetVolumeNumber(int fd, unsigned *major, unsigned *minor)
{
    struct statx status;
    if (statx(fd, "", AT_EMPTY_PATH | AT_NO_AUTOMOUNT, STATX_MNT_ID, &status) != 0) return false;
    *major = status.stx_dev_major;
    *minor = status.stx_dev_minor;
    if ((status.stx_mask & STATX_MNT_ID) == 0) return true;
    MountList list;
    unsigned long long id = 0;
    unsigned listedMajor = 0, listedMinor = 0;
    while (list.file && getline(&list.line, &list.capacity, list.file) > 0) {
        if (sscanf(list.line, "%llu %*u %u:%u", &id, &listedMajor, &listedMinor) != 3 || id != status.stx_mnt_id)
            continue;
        *major = listedMajor;
        *minor = listedMinor;
    }
    return true;
}

} // namespace platform
