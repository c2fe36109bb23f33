// See tree_reader.h.

#include "tree_reader.h"

#include "compared_item.h"
#include "document.h"
#include "failure.h"
#include "interrupt.h"
#include "quiet_walk.h"

#include <vaultry/library.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/limits.h>
#include <new>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <unordered_map>
#include <xxhash.h>

static constexpr size_t kBufferSize = 256 << 10; // stays in the processor's cache

uint64_t HashOfPath(std::string_view below)
{
    return XXH3_64bits(below.data(), below.size());
}

TreeReader::TreeReader(From from, std::function<void(uint64_t bytes)> advance)
    : from_(from), advance_(std::move(advance)), buffer_(kBufferSize), state_(XXH3_createState())
{
    if (!state_) throw std::bad_alloc();
}

TreeReader::~TreeReader()
{
    XXH3_freeState(state_);
}

// Thrown while an item is read, and caught there.
struct CannotRead {
    int reason = errno;
};

// Throws CannotRead.
TreeReader::Hash TreeReader::HashOfBytes(int fd, uint64_t size)
{
    // Bytes that have rotted on the disk may still be well in memory. What this reads is dropped again: a whole store
    // would push everything else out.
    if (from_ == From::Disk) (void)posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    (void)posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    XXH3_128bits_reset(state_);
    uint64_t done = 0;
    for (ssize_t count = 0; (count = read(fd, buffer_.data(), buffer_.size())) != 0;) {
        if (InterruptGuard::Came()) throw CommandFailure(InterruptGuard::ExitCode(), "stopped");
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw CannotRead();
        XXH3_128bits_update(state_, buffer_.data(), static_cast<size_t>(count));
        done += static_cast<uint64_t>(count);
        if (advance_) advance_(static_cast<uint64_t>(count));
    }
    if (size >= kBufferSize) (void)posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    if (done != size) throw CannotRead{EIO};
    const XXH128_hash_t hash = XXH3_128bits_digest(state_);
    return {hash.low64, hash.high64};
}

// Its descriptor is only read through, so closing it has no error to report.
class OpenItem {
public:
    explicit OpenItem(const WalkedItem &item) : fd_(OpenQuietly(item.directory, item.name, 0))
    {
        if (fd_ < 0) throw CannotRead();
    }
    OpenItem(const OpenItem &) = delete;
    OpenItem &operator=(const OpenItem &) = delete;
    ~OpenItem() { (void)close(fd_); }
    int get() const { return fd_; }

private:
    const int fd_;
};

static constexpr std::string_view kAccessList = "system.posix_acl_access";

// Whether an attribute is to be summed up.
static bool _Counts(std::string_view name)
{
    return IsUsersAttribute(name) || name == kAccessList || name == "system.posix_acl_default";
}

// The store's protection, which comes and goes with a repair or a change of the notes, also stands in the list: in the
// entries of the owner, the owning group, the mask and the others.
static void _TakeProtection(char *list, ssize_t size)
{
    static constexpr ssize_t kHeader = 4, kEntry = 8;
    static constexpr std::string_view kProtected("\x01\x04\x10\x20");
    for (ssize_t at = kHeader; at + kEntry <= size; at += kEntry)
        if (kProtected.find(list[at]) != kProtected.npos) list[at + 2] = static_cast<char>(list[at + 2] & ~2);
}

// Throws CannotRead.
uint64_t TreeReader::SumOfAttributes(int fd)
{
    static_assert(kBufferSize >= XATTR_LIST_MAX + XATTR_SIZE_MAX);
    char *const names = buffer_.data(), *const value = names + XATTR_LIST_MAX;
    const ssize_t length = flistxattr(fd, names, XATTR_LIST_MAX);
    if (length < 0 && errno == ENOTSUP) return 0;
    if (length < 0) throw CannotRead();
    uint64_t sum = 0; // has no order, as the names have none
    for (const char *name = names; name < names + length; name += strlen(name) + 1) {
        if (!_Counts(name)) continue;
        const ssize_t size = fgetxattr(fd, name, value, XATTR_SIZE_MAX);
        if (size < 0) throw CannotRead();
        if (name == kAccessList) _TakeProtection(value, size);
        sum += XXH3_64bits_withSeed(value, static_cast<size_t>(size), HashOfPath(name));
    }
    return sum;
}

// The permissions that the document had.
static uint32_t _Permissions(const std::string &path, bool isTop)
{
    TQFileStatus status;
    if (TQLibraryInternalStatGeneration(path.c_str(), &status) != 0) throw CannotRead();
    return status.mode & (isTop ? 07577u : 07777u);
}

// One tree while it is read.
class TreeReader::Tree {
public:
    Tree(TreeReader &reader, std::string top) : reader_(reader), top_(std::move(top)) {}

    TreeContents Read()
    {
        struct stat status {};
        if (lstat(top_.c_str(), &status) != 0) return contents_.unread.push_back({"", errno}), std::move(contents_);
        Include({top_, AT_FDCWD, top_.c_str(), static_cast<unsigned char>(IFTODT(status.st_mode))});
        if (S_ISDIR(status.st_mode)) {
            const int reason = WalkBelow(top_, [this](const WalkedItem &item) { Include(item); });
            if (reason != 0 && contents_.unread.empty()) contents_.unread.push_back({"", reason});
        }
        for (const auto &[path, folder] : folders_) {
            std::string text = folder.head;
            AppendNumber(text, folder.names);
            Add(path, text);
        }
        return std::move(contents_);
    }

private:
    // A folder is known when the last of its names is.
    struct Folder {
        std::string head;
        uint64_t names = 0;
    };

    void Include(const WalkedItem &item)
    {
        if (InterruptGuard::Came()) throw CommandFailure(InterruptGuard::ExitCode(), "stopped");
        const bool isTop = item.path.size() == top_.size();
        const std::string_view below = isTop ? std::string_view() : std::string_view(item.path).substr(top_.size() + 1);
        const uint64_t path = HashOfPath(below);
        if (!isTop) {
            if (IsSidecar(item)) return; // is no part of what comes back
            const size_t slash = below.rfind('/');
            folders_[HashOfPath(slash == below.npos ? "" : below.substr(0, slash))].names += path;
        }
        std::string text(1, static_cast<char>(item.kind));
        text.append(below).push_back('\0');
        try {
            Describe(item, isTop, text);
        } catch (const CannotRead &failure) {
            contents_.unread.push_back({std::string(below), failure.reason});
        }
        if (item.kind == DT_DIR)
            folders_[path].head = std::move(text);
        else
            Add(path, text);
    }

    void Describe(const WalkedItem &item, bool isTop, std::string &text)
    {
        if (item.kind == DT_LNK) {
            char target[PATH_MAX];
            const ssize_t length = readlinkat(item.directory, item.name, target, sizeof target);
            if (length < 0) throw CannotRead();
            text.append(target, static_cast<size_t>(length));
        }
        if (item.kind != DT_REG && item.kind != DT_DIR) return;
        const OpenItem open(item);
        AppendNumber(text, _Permissions(item.path, isTop));
        AppendNumber(text, reader_.SumOfAttributes(open.get()));
        if (item.kind == DT_DIR) return;
        const Hash bytes = BytesOf(open.get());
        AppendNumber(text, bytes.low);
        AppendNumber(text, bytes.high);
    }

    Hash BytesOf(int fd)
    {
        struct stat status {};
        if (fstat(fd, &status) != 0) throw CannotRead();
        const auto size = static_cast<uint64_t>(status.st_size);
        if (status.st_nlink == 1) return reader_.HashOfBytes(fd, size);
        const File file(status.st_dev, status.st_ino, status.st_ctim.tv_sec, status.st_ctim.tv_nsec, status.st_size);
        const auto known = reader_.shared_.find(file);
        if (known == reader_.shared_.end()) return reader_.shared_[file] = reader_.HashOfBytes(fd, size);
        if (reader_.advance_) reader_.advance_(size);
        return known->second;
    }

    void Add(uint64_t path, const std::string &text)
    {
        const XXH128_hash_t hash = XXH3_128bits(text.data(), text.size());
        contents_.items.push_back({path, hash.low64, hash.high64});
        contents_.seal.Add(contents_.items.back());
    }

    TreeReader &reader_;
    const std::string top_;
    std::unordered_map<uint64_t, Folder> folders_;
    TreeContents contents_;
};

TreeContents TreeReader::Read(const std::string &path)
{
    return Tree(*this, path).Read();
}
