// See shared_data.h.

#include "shared_data.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

// The beginning of a file's map of extents, from `start` on.
class ExtentMap {
public:
    // False if there is none.
    bool Read(int fd, uint64_t start)
    {
        memset(buffer_, 0, sizeof(fiemap));
        fiemap &map = header();
        map.fm_start = start;
        map.fm_length = std::numeric_limits<uint64_t>::max() - start;
        map.fm_extent_count = kCount;
        return ioctl(fd, FS_IOC_FIEMAP, &map) == 0;
    }
    const fiemap_extent *begin() { return header().fm_extents; }
    const fiemap_extent *end() { return header().fm_extents + header().fm_mapped_extents; }

private:
    fiemap &header() { return *reinterpret_cast<fiemap *>(buffer_); }

    static constexpr size_t kCount = 64;
    alignas(fiemap) unsigned char buffer_[sizeof(fiemap) + kCount * sizeof(fiemap_extent)];
};

std::optional<uint64_t> SharedData::Add(int fd)
{
    uint64_t shared = 0, next = 0;
    for (bool isLast = false; !isLast;) {
        ExtentMap map;
        if (!map.Read(fd, next)) return std::nullopt;
        isLast = map.begin() == map.end();
        for (const fiemap_extent &extent : map) {
            next = extent.fe_logical + extent.fe_length;
            isLast |= (extent.fe_flags & FIEMAP_EXTENT_LAST) != 0;
            if ((extent.fe_flags & FIEMAP_EXTENT_SHARED) == 0) continue;
            shared += extent.fe_length;
            extents_.push_back({extent.fe_physical, extent.fe_physical + extent.fe_length});
        }
    }
    if (extents_.size() >= joinAt_) Join();
    return shared;
}

void SharedData::Join()
{
    std::sort(extents_.begin(), extents_.end(), [](const Extent &a, const Extent &b) { return a.begin < b.begin; });
    size_t count = 0;
    for (const Extent &extent : extents_) {
        if (count > 0 && extent.begin <= extents_[count - 1].end)
            extents_[count - 1].end = std::max(extents_[count - 1].end, extent.end);
        else
            extents_[count++] = extent;
    }
    extents_.resize(count);
    joinAt_ = std::max<size_t>(joinAt_, count * 2); // so that each extent is sorted a few times at most
}

uint64_t SharedData::Bytes()
{
    Join();
    uint64_t bytes = 0;
    for (const Extent &extent : extents_) bytes += extent.end - extent.begin;
    return bytes;
}
