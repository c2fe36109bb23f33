#include "Platform/Volume.h"

#include "Platform/UniqueFd.h"

#include <cstring>
#include <fcntl.h>
#include <sys/vfs.h>

namespace platform {

struct VolumeType {
    uint32_t magic;
    const char *name;
    bool native;  // local, persistent, with attributes and flags
    bool honours; // see VolumeHonoursFlush
};

// ext2 and ext3 carry the number of ext4, and the ext4 driver serves them. "zfs" and "bcachefs" hold
// attributes but were never tried, so they do not count as native.
static constexpr VolumeType kVolumeTypes[] = {
    {0x0000EF53, "ext4", true, true},       {0x58465342, "xfs", true, true},
    {0x9123683E, "btrfs", true, true},      {0x01021994, "tmpfs", false, true},
    {0x858458F6, "ramfs", false, false},    {0x794C7630, "overlay", false, false},
    {0x65735546, "fuse", false, false},     {0x00006969, "nfs", false, false},
    {0xFF534D42, "cifs", false, false},     {0xFE534D42, "smb2", false, false},
    {0x01021997, "9p", false, false},       {0x00C36400, "ceph", false, false},
    {0x00004D44, "vfat", false, false},     {0x2011BAB0, "exfat", false, false},
    {0x5346544E, "ntfs", false, false},     {0x7366746E, "ntfs3", false, false},
    {0xF2F52010, "f2fs", false, false},     {0x2FC12FC1, "zfs", false, false},
    {0xCA451A4E, "bcachefs", false, false}, {0x3153464A, "jfs", false, false},
    {0x52654973, "reiserfs", false, false}, {0x00003434, "nilfs2", false, false},
    {0x00009660, "iso9660", false, false},  {0x15013346, "udf", false, false},
    {0x73717368, "squashfs", false, false}, {0xE0F5E1E2, "erofs", false, false},
    {0x0000F15F, "ecryptfs", false, false}, {0x00009FA0, "proc", false, false},
    {0x62656572, "sysfs", false, false},    {0x786F4256, "vboxsf", false, false},
};

static const VolumeType *_TypeByMagic(uint32_t magic)
{
    for (const VolumeType &type : kVolumeTypes)
        if (type.magic == magic) return &type;
    return nullptr;
}

int GetVolumeStatus(const char *path, TQVolumeStatus *out)
{
    const UniqueFd fd(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd) return -1;
    struct statfs read;
    if (fstatfs(fd.get(), &read) != 0) return -1;

    const VolumeType *type = _TypeByMagic(static_cast<uint32_t>(read.f_type));
    *out = {};
    strncpy(out->typeName, type ? type->name : "unknown", sizeof out->typeName - 1);
    out->blockSize = static_cast<uint32_t>(read.f_bsize);
    out->blockCount = read.f_blocks;
    return 0;
}

bool IsNativeVolumeType(const char *typeName)
{
    for (const VolumeType &type : kVolumeTypes)
        if (strcmp(type.name, typeName) == 0) return type.native;
    return false;
}

std::optional<bool> AskWhetherVolumeHonoursFlush(int fd)
{
    struct statfs read;
    if (fstatfs(fd, &read) != 0) return std::nullopt;
    const VolumeType *type = _TypeByMagic(static_cast<uint32_t>(read.f_type));
    return type && type->honours;
}

bool VolumeHonoursFlush(int fd)
{
    const ErrnoKeeper keeper;
    return AskWhetherVolumeHonoursFlush(fd).value_or(false);
}

} // namespace platform
