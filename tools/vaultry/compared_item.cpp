// See compared_item.h.

#include "compared_item.h"

#include "failure.h"
#include "quiet_walk.h"
#include "text.h"

#include <algorithm>
#include <vaultry/library.h>

#include <cerrno>
#include <cstring>
#include <endian.h>
#include <fcntl.h>
#include <linux/limits.h>
#include <memory>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>

static constexpr char kCapability[] = "security.capability";

bool IsUsersAttribute(std::string_view name)
{
    static constexpr std::string_view kUser = "user.", kStore = "com.corvane.vaultry.";
    static constexpr std::string_view kOfStore[] = {"orig_perms_v1", "info", "origdisplayname", "gen_options"};
    if (!name.starts_with(kUser)) return false;
    name.remove_prefix(kUser.size());
    return !name.starts_with(kStore) ||
           std::find(std::begin(kOfStore), std::end(kOfStore), name.substr(kStore.size())) == std::end(kOfStore);
}

static CommandFailure _Unreadable(const std::string &what, const std::string &path)
{
    const int reason = errno;
    return CommandFailure::Errno("can't read " + what + Quoted(path), reason);
}

static unsigned char _KindOfTop(const std::string &path)
{
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) throw CommandFailure::Errno("can't look at " + Quoted(path), errno);
    return static_cast<unsigned char>(IFTODT(status.st_mode));
}

// A compressed item comes back as it is stored, which is plain.
static uint32_t _FlagsOf(uint64_t attributes)
{
    uint32_t flags = 0;
    if (attributes & STATX_ATTR_NODUMP) flags |= kTQFlagNoDump;
    if (attributes & STATX_ATTR_IMMUTABLE) flags |= kTQFlagImmutable;
    if (attributes & STATX_ATTR_APPEND) flags |= kTQFlagAppend;
    return flags;
}

ComparedItem::ComparedItem(const ComparedTree &tree)
    : ComparedItem(tree, "", AT_FDCWD, tree.path.c_str(), _KindOfTop(tree.path))
{
}

ComparedItem::ComparedItem(const ComparedTree &tree, const std::string &below, int directory, const char *name,
                           unsigned char kindOfEntry)
    : kind(kindOfEntry), path_(below.empty() ? tree.path : tree.path + "/" + below), directory_(directory)
{
    struct statx status {};
    if (statx(directory, name, AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS, &status) != 0)
        throw CommandFailure::Errno("can't look at " + Quoted(path_), errno);
    if (IFTODT(status.stx_mode) != kind)
        throw CommandFailure(kExitFailure, Quoted(path_) + " was replaced while it was looked at");
    mode = status.stx_mode & 07777;
    flags = _FlagsOf(status.stx_attributes);
    owner = status.stx_uid;
    group = status.stx_gid;
    size = status.stx_size;
    hasHoles = status.stx_blocks * 512 < status.stx_size;
    modified = {status.stx_mtime.tv_sec, static_cast<long>(status.stx_mtime.tv_nsec)};
    device_ = makedev(status.stx_dev_major, status.stx_dev_minor);
    inode_ = status.stx_ino;
    if (IsLink()) {
        char text[PATH_MAX];
        const ssize_t length = readlinkat(directory, name, text, sizeof text);
        if (length < 0) throw _Unreadable("the link ", path_);
        target.assign(text, static_cast<size_t>(length));
    }
    if (!tree.isKept || (!IsFile() && !IsFolder())) return;
    TQFileStatus recorded;
    if (TQLibraryInternalStatGeneration(path_.c_str(), &recorded) != 0)
        throw _Unreadable("the record of the document's permissions on ", path_);
    mode = recorded.mode & 07777;
    flags = recorded.flags;
}

ComparedItem::ComparedItem(ComparedItem &&other) noexcept
    : kind(other.kind), mode(other.mode), flags(other.flags), owner(other.owner), group(other.group), size(other.size),
      hasHoles(other.hasHoles), modified(other.modified), target(std::move(other.target)),
      path_(std::move(other.path_)), directory_(other.directory_), fd_(std::exchange(other.fd_, -1)),
      device_(other.device_), inode_(other.inode_)
{
}

ComparedItem::~ComparedItem()
{
    if (fd_ >= 0) (void)close(fd_);
}

const char *ComparedItem::name() const
{
    return path_.c_str() + (directory_ == AT_FDCWD ? 0 : path_.rfind('/') + 1);
}

void ComparedItem::Open()
{
    if (fd_ < 0) fd_ = OpenQuietly(directory_, name(), IsFolder() ? O_DIRECTORY : 0);
    if (fd_ < 0) throw _Unreadable(IsFolder() ? "the directory " : "", path_);
}

bool ComparedItem::IsFolder() const
{
    return kind == DT_DIR;
}

bool ComparedItem::IsFile() const
{
    return kind == DT_REG;
}

bool ComparedItem::IsLink() const
{
    return kind == DT_LNK;
}

bool ComparedItem::IsSameInode(const ComparedItem &other) const
{
    return device_ == other.device_ && inode_ == other.inode_;
}

std::map<std::string, unsigned char> ComparedItem::Entries() const
{
    const int fd = OpenQuietly(fd_, ".", O_DIRECTORY);
    const std::unique_ptr<DIR, int (*)(DIR *)> folder(fd < 0 ? nullptr : fdopendir(fd), closedir);
    if (!folder) throw _Unreadable("the directory ", path_);
    std::map<std::string, unsigned char> entries;
    const dirent *entry = nullptr;
    while (errno = 0, (entry = readdir(folder.get())) != nullptr) {
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        const unsigned char its = KindOf(fd, *entry);
        if (its == DT_DIR || name.substr(0, 2) != "._") entries.emplace(name, its);
    }
    if (errno != 0) throw _Unreadable("the directory ", path_);
    return entries;
}

// False if there is no such attribute.
bool ComparedItem::ReadAttribute(const std::string &name, std::string &value) const
{
    char buffer[XATTR_SIZE_MAX];
    const ssize_t length = fgetxattr(fd_, name.c_str(), buffer, sizeof buffer);
    if (length < 0 && errno != ENODATA && errno != ENOTSUP) throw _Unreadable("the attributes of ", path_);
    if (length >= 0) value.assign(buffer, static_cast<size_t>(length));
    return length >= 0;
}

std::map<std::string, std::string> ComparedItem::Attributes(bool withCapability) const
{
    std::map<std::string, std::string> attributes;
    char names[XATTR_LIST_MAX];
    const ssize_t length = flistxattr(fd_, names, sizeof names);
    if (length < 0 && errno != ENOTSUP) throw _Unreadable("the attributes of ", path_);
    for (ssize_t at = 0; at < length;) {
        const std::string name = names + at;
        at += static_cast<ssize_t>(name.size()) + 1;
        std::string value;
        if ((IsUsersAttribute(name) || (withCapability && name == kCapability)) && ReadAttribute(name, value))
            attributes.emplace(name, value);
    }
    return attributes;
}

// The entries for the owner and for all others say what the rights say, and so does the one for the group, or the mask
// if there is one: protecting an item changes those.
std::vector<uint64_t> ComparedItem::AccessList() const
{
    enum : uint16_t { kUser = 0x02, kGroupItself = 0x04, kGroup = 0x08, kMask = 0x10 };
    struct Entry {
        uint16_t tag, rights;
        uint32_t id;
    };
    std::string list;
    std::vector<uint64_t> entries;
    bool hasMask = false;
    if (!ReadAttribute("system.posix_acl_access", list)) return entries;
    const auto forEach = [&list](const auto &visit) {
        for (size_t at = sizeof(uint32_t); at + sizeof(Entry) <= list.size(); at += sizeof(Entry)) {
            Entry entry;
            memcpy(&entry, list.data() + at, sizeof entry);
            visit(le16toh(entry.tag), le16toh(entry.rights), le32toh(entry.id));
        }
    };
    forEach([&](uint16_t tag, uint16_t, uint32_t) { hasMask |= tag == kMask; });
    forEach([&](uint16_t tag, uint16_t rights, uint32_t id) {
        if (tag == kUser || tag == kGroup || (tag == kGroupItself && hasMask))
            entries.push_back(uint64_t{tag} << 48 | uint64_t{rights} << 32 | id);
    });
    return entries;
}

std::string ComparedItem::DefaultList() const
{
    std::string list;
    if (IsFolder()) (void)ReadAttribute("system.posix_acl_default", list);
    return list;
}

size_t ComparedItem::Read(char *buffer, size_t room, uint64_t offset) const
{
    size_t done = 0;
    while (done < room) {
        const ssize_t got = pread(fd_, buffer + done, room - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) throw _Unreadable("", path_);
        done += static_cast<size_t>(got);
        if (got == 0 || offset + done == size) break;
    }
    return done;
}

uint64_t ComparedItem::NextData(uint64_t offset) const
{
    const off_t data = lseek(fd_, static_cast<off_t>(offset), SEEK_DATA);
    if (data < 0) return errno == ENXIO ? size : offset;
    return static_cast<uint64_t>(data) < size ? static_cast<uint64_t>(data) : size;
}
