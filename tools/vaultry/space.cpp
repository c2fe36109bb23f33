// See space.h.

#include "space.h"

#include "failure.h"

#include <cerrno>
#include <filesystem>
#include <sys/statvfs.h>

namespace fs = std::filesystem;

static constexpr uint64_t kBytesToSpare = 1 << 20;
static constexpr uint64_t kItemsToSpare = 16;

static bool _HasFreeSpace(const std::string &directory, uint64_t bytes, uint64_t items)
{
    struct statvfs volume {};
    if (statvfs(directory.c_str(), &volume) != 0) return false;
    // File systems that make inodes on demand report none.
    const bool inodesLeft = volume.f_files == 0 || volume.f_favail > items;
    return inodesLeft && volume.f_bavail * volume.f_frsize > bytes;
}

bool IsAttributeSpace(const TQError *error, const std::string &directory, const std::string &needed)
{
    if (UnderlyingErrno(error) != ENOSPC) return false;
    // The failed copy has been removed again, so free space now matters only if the whole tree would have fitted.
    static constexpr uint64_t kOverheadOfAnItem = 4096;
    uint64_t bytes = kBytesToSpare;
    uint64_t items = kItemsToSpare;
    const auto include = [&](const fs::path &path, fs::file_type type) {
        std::error_code ignored;
        const uintmax_t size = type == fs::file_type::regular ? fs::file_size(path, ignored) : 0;
        if (!ignored) bytes += size;
        bytes += kOverheadOfAnItem;
        ++items;
    };
    std::error_code failure;
    const fs::file_type top = fs::symlink_status(needed, failure).type();
    include(needed, top);
    if (top == fs::file_type::directory)
        for (fs::recursive_directory_iterator item(needed, failure), end; !failure && item != end;
             item.increment(failure)) {
            std::error_code ignored;
            include(item->path(), item->symlink_status(ignored).type());
        }
    return !failure && _HasFreeSpace(directory, bytes, items);
}

bool IsAttributeSpace(int reason, const std::string &directory)
{
    return reason == ENOSPC && _HasFreeSpace(directory, kBytesToSpare, kItemsToSpare);
}
