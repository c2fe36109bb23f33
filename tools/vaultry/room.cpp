// See room.h.

#include "room.h"

#include "quiet_walk.h"
#include "text.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

static constexpr uint64_t kBlock = 512; // of st_blocks

// -1 with errno.
static int _OpenQuietly(int directory, const char *name)
{
    constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const int fd = openat(directory, name, flags | O_NOATIME);
    return fd < 0 && errno == EPERM ? openat(directory, name, flags) : fd;
}

uint64_t Room::OwnBytes(int directory, const char *name, const struct stat &status, const std::string &path,
                        Problems &problems)
{
    const uint64_t all = static_cast<uint64_t>(status.st_blocks) * kBlock;
    if (!S_ISREG(status.st_mode) || all == 0 || !knowsClones_) return all;
    const int fd = _OpenQuietly(directory, name);
    if (fd < 0) {
        problems.Note([&] { throw CommandFailure::Errno("can't tell what " + Quoted(path) + " shares", errno); });
        return all;
    }
    const std::optional<uint64_t> shared = shared_.Add(fd);
    (void)close(fd);
    knowsClones_ = shared.has_value();
    return all - std::min(all, shared.value_or(0));
}

void Room::Include(int directory, const char *name, const std::string &path, Problems &problems)
{
    struct stat status {};
    if (fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return problems.Note([&] { throw CommandFailure::Errno("can't look at " + Quoted(path), errno); });
    if (S_ISREG(status.st_mode)) tree_.size += static_cast<uint64_t>(status.st_size);
    if (S_ISDIR(status.st_mode) || status.st_nlink < 2) {
        const uint64_t own = OwnBytes(directory, name, status, path, problems);
        own_ += own;
        tree_.frees += own;
        return;
    }
    const FileId id(status.st_dev, status.st_ino);
    auto linked = linked_.find(id);
    if (linked == linked_.end()) {
        const uint64_t own = OwnBytes(directory, name, status, path, problems);
        own_ += own;
        linked = linked_.emplace(id, Linked{own, status.st_nlink}).first;
    }
    Met &met = inTree_.try_emplace(id, Met{linked->second.own, 0}).first->second;
    if (++met.names == status.st_nlink) tree_.frees += met.own;
    if (--linked->second.namesLeft == 0) linked_.erase(linked);
}

Room::Tree Room::Add(const std::string &path, Problems &problems)
{
    tree_ = {};
    inTree_.clear();
    struct stat top {};
    Include(AT_FDCWD, path.c_str(), path, problems);
    if (lstat(path.c_str(), &top) != 0 || !S_ISDIR(top.st_mode)) return tree_;
    const int reason =
        WalkBelow(path, [&](const WalkedItem &item) { Include(item.directory, item.name, item.path, problems); });
    problems.Note([&] {
        if (reason != 0) throw CommandFailure::Errno("can't read all of " + Quoted(path), reason);
    });
    return tree_;
}
