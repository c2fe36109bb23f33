#include "Platform/Comparison.h"

#include "Platform/AccessLists.h"
#include "Platform/FileStatus.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/limits.h>
#include <new>
#include <sys/xattr.h>
#include <unistd.h>

namespace platform {

static constexpr size_t kBlock = 128 << 10; // two of them stay in a processor's own memory
static_assert(kBlock >= XATTR_SIZE_MAX);
static constexpr uint64_t kReportEvery = 4 << 20;
static constexpr char kAccessList[] = "system.posix_acl_access";
static constexpr char kDefaultList[] = "system.posix_acl_default";
static constexpr char kCapability[] = "security.capability";
static constexpr char kUserPrefix[] = "user.";

bool Comparison::Side::MakeRoom()
{
    if (!bytes) bytes.reset(new (std::nothrow) unsigned char[kBlock]);
    if (!names) names.reset(new (std::nothrow) char[XATTR_LIST_MAX]);
    return bytes && names;
}

// Bytes read: fewer than a block only at the end, where a volume that does not know sizes says nothing more; or -1.
ssize_t Comparison::Side::ReadBlock(const ComparedFile &file, uint64_t offset)
{
    size_t done = 0;
    while (done < kBlock) {
        const ssize_t got = pread(file.fd, bytes.get() + done, kBlock - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return -1;
        done += static_cast<size_t>(got);
        if (got == 0 || (done < kBlock && offset + done == file.status.size)) break;
    }
    return static_cast<ssize_t>(done);
}

// Where the next data begins; the size if only a hole follows.
static uint64_t _NextData(const ComparedFile &file, uint64_t offset)
{
    const off_t data = lseek(file.fd, static_cast<off_t>(offset), SEEK_DATA);
    if (data < 0) return errno == ENXIO ? file.status.size : offset;
    return std::min(static_cast<uint64_t>(data), file.status.size);
}

bool Comparison::HaveSameBytes(const ComparedFile &one, const ComparedFile &other, const GoOn &goOn)
{
    if (one.status.size != other.status.size || !one_.MakeRoom() || !other_.MakeRoom()) return false;
    const bool bothHaveHoles = HasHoles(one.status) && HasHoles(other.status);
    uint64_t reported = 0;
    for (uint64_t offset = 0;;) {
        if (bothHaveHoles && offset < one.status.size)
            offset = std::max(offset, std::min(_NextData(one, offset), _NextData(other, offset)));
        const ssize_t got = one_.ReadBlock(one, offset);
        if (got < 0 || other_.ReadBlock(other, offset) != got) return false;
        const auto size = static_cast<size_t>(got);
        if (memcmp(one_.bytes.get(), other_.bytes.get(), size) != 0) return false;
        if (size < kBlock) return true;
        offset += size;
        if (offset - reported < kReportEvery) continue;
        if (!goOn(offset)) return false;
        reported = offset;
    }
}

// A file system without attributes has none.
bool Comparison::Side::ReadNames(const ComparedFile &file)
{
    const ssize_t length = flistxattr(file.fd, names.get(), XATTR_LIST_MAX);
    namesLength = length < 0 ? 0 : static_cast<size_t>(length);
    return length >= 0 || errno == ENOTSUP;
}

bool Comparison::Side::Has(const char *name) const
{
    for (size_t at = 0; at < namesLength; at += strlen(names.get() + at) + 1)
        if (strcmp(names.get() + at, name) == 0) return true;
    return false;
}

bool Comparison::Side::ReadValue(const ComparedFile &file, const char *name, size_t *size)
{
    const ssize_t length = fgetxattr(file.fd, name, bytes.get(), XATTR_SIZE_MAX);
    *size = length < 0 ? 0 : static_cast<size_t>(length);
    return length >= 0 || errno == ENODATA || errno == ENOTSUP;
}

bool Comparison::HaveSameValue(const ComparedFile &original, const ComparedFile &copy, const char *name, bool isList)
{
    size_t size = 0;
    size_t otherSize = 0;
    if (!one_.ReadValue(original, name, &size) || !other_.ReadValue(copy, name, &otherSize) || size != otherSize)
        return false;
    if (isList) {
        TakeWriteFromList(one_.bytes.get(), size);
        TakeWriteFromList(other_.bytes.get(), otherSize);
    }
    return memcmp(one_.bytes.get(), other_.bytes.get(), size) == 0;
}

// Some volumes have a list but don't name it.
bool Comparison::HaveSameList(const ComparedFile &original, const ComparedFile &copy)
{
    const bool areNamed = one_.volume.HonoursFlush(original.fd, original.status.device) &&
                          other_.volume.HonoursFlush(copy.fd, copy.status.device);
    if (areNamed && !one_.Has(kAccessList) && !other_.Has(kAccessList)) return true;
    return HaveSameValue(original, copy, kAccessList, /*isList=*/true);
}

bool Comparison::HaveSameAttributes(const ComparedFile &original, const ComparedFile &copy, const char *except)
{
    if (!one_.MakeRoom() || !other_.MakeRoom() || !one_.ReadNames(original) || !other_.ReadNames(copy)) return false;
    const auto counts = [except](const char *name) {
        const bool isUsers = strncmp(name, kUserPrefix, strlen(kUserPrefix)) == 0;
        return isUsers ? strcmp(name + strlen(kUserPrefix), except) != 0 : strcmp(name, kCapability) == 0;
    };
    for (size_t at = 0; at < other_.namesLength; at += strlen(other_.names.get() + at) + 1)
        if (counts(other_.names.get() + at) && !one_.Has(other_.names.get() + at)) return false;
    for (size_t at = 0; at < one_.namesLength; at += strlen(one_.names.get() + at) + 1) {
        const char *const name = one_.names.get() + at;
        if (counts(name) && !(other_.Has(name) && HaveSameValue(original, copy, name, /*isList=*/false))) return false;
    }
    if (!S_ISDIR(original.status.mode) || (!one_.Has(kDefaultList) && !other_.Has(kDefaultList)))
        return HaveSameList(original, copy);
    return one_.Has(kDefaultList) && other_.Has(kDefaultList) &&
           HaveSameValue(original, copy, kDefaultList, /*isList=*/false) && HaveSameList(original, copy);
}

} // namespace platform
