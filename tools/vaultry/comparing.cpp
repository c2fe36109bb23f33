// See comparing.h.

#include "comparing.h"

#include <vaultry/file_status.h>

#include <algorithm>
#include <cstring>
#include <linux/capability.h>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

static constexpr size_t kPiece = 128 << 10; // two of them stay in a processor's own memory
static constexpr size_t kBig = 64 << 10;    // reading more takes longer than all else
static constexpr uint32_t kSetIdBits = S_ISUID | S_ISGID;
static constexpr uint32_t kBlockingFlags = kTQFlagImmutable | kTQFlagAppend;

static bool _IsCapableOf(unsigned capability)
{
    __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    __user_cap_data_struct words[_LINUX_CAPABILITY_U32S_3]{};
    return syscall(SYS_capget, &header, words) == 0 &&
           (words[CAP_TO_INDEX(capability)].effective & CAP_TO_MASK(capability)) != 0;
}

// What this process may bring back.
class Privileges {
public:
    Privileges()
    {
        std::vector<gid_t> groups(static_cast<size_t>(std::max(getgroups(0, nullptr), 0)));
        const int count = getgroups(static_cast<int>(groups.size()), groups.data());
        for (int i = 0; i < count; ++i) groups_.insert(groups[static_cast<size_t>(i)]);
        groups_.insert(getegid());
    }
    bool MayGive(const ComparedItem &one, const ComparedItem &other) const
    {
        return mayGiveAway ||
               (one.owner == other.owner && groups_.contains(one.group) && groups_.contains(other.group));
    }

    const bool mayGiveAway = _IsCapableOf(CAP_CHOWN);
    const bool mayBlock = _IsCapableOf(CAP_LINUX_IMMUTABLE);
    const bool isRoot = geteuid() == 0; // only root's copies have capabilities

private:
    std::set<gid_t> groups_;
};

// The two of one name, or one of them.
struct Items {
    std::optional<ComparedItem> first, second;
};
using Kinds = std::pair<std::optional<unsigned char>, std::optional<unsigned char>>;
using Entries = std::map<std::string, Kinds>; // none where there is none

// Folders whose contents are being compared.
struct OpenFolders {
    Items items;
    Entries entries; // that are still to come
    size_t length;   // of their path below the tops
};

class Comparison {
public:
    Comparison(const ComparedTree &first, const ComparedTree &second, const Extent &extent,
               const std::function<bool(const Difference &)> &visit)
        : first_(first), second_(second), extent_(extent), visit_(visit)
    {
    }

    Compared Run()
    {
        bool goesOn = Take([this](Items &items) {
            items.first.emplace(first_);
            items.second.emplace(second_);
        });
        // A stack of its own: a tree can be deeper than the thread's would bear.
        while (goesOn && !folders_.empty()) {
            OpenFolders &folders = folders_.back();
            below_.resize(folders.length);
            if (!folders.entries.empty())
                goesOn = TakeNext(folders.items, folders.entries.extract(folders.entries.begin()));
            else
                folders_.pop_back();
        }
        return std::move(compared_);
    }

private:
    bool TakeNext(const Items &folders, const Entries::node_type &entry)
    {
        const char *const name = entry.key().c_str();
        below_.append(below_.empty() ? "" : "/").append(name);
        return Take([&](Items &items) {
            const auto [kind, otherKind] = entry.mapped();
            if (kind) items.first.emplace(first_, below_, folders.first->fd(), name, *kind);
            if (otherKind) items.second.emplace(second_, below_, folders.second->fd(), name, *otherKind);
        });
    }

    template <class Look> bool Take(Look look)
    {
        Items items;
        Difference difference{.below = below_};
        compared_.problems.Note([&] {
            look(items);
            difference.first = items.first ? &*items.first : nullptr;
            difference.second = items.second ? &*items.second : nullptr;
            if (items.first && items.second)
                Compare(*items.first, *items.second, difference);
            else
                difference.changes = items.first ? kRemoved : kAdded;
        });
        if (difference.changes != 0 && !visit_(difference)) return false;
        const bool areSeen = difference.first || difference.second;
        if (areSeen) compared_.problems.Note([&] { Enter(std::move(items)); });
        return true;
    }

    void Enter(Items items)
    {
        if (items.first && !items.first->IsFolder()) items.first.reset();
        if (items.second && !items.second->IsFolder()) items.second.reset();
        if (!items.first && !items.second) return;
        // The contents of one alone would seem to be missing in the other; that it can't be read is known by now.
        if (items.first && items.second && !(items.first->IsOpen() && items.second->IsOpen())) return;
        Entries entries;
        if (items.first)
            for (const auto &[name, kind] : EntriesOf(*items.first)) entries[name].first = kind;
        if (items.second)
            for (const auto &[name, kind] : EntriesOf(*items.second)) entries[name].second = kind;
        folders_.push_back({std::move(items), std::move(entries), below_.size()});
    }

    static std::map<std::string, unsigned char> EntriesOf(ComparedItem &folder)
    {
        folder.Open();
        return folder.Entries();
    }

    void Compare(ComparedItem &first, ComparedItem &second, Difference &difference)
    {
        const auto note = [&difference](Changed change, bool differs) {
            if (differs) difference.changes |= change;
        };
        note(kKind, first.kind != second.kind);
        if (difference.changes != 0) return;
        const bool ownerCounts = privileges_.MayGive(first, second);
        const bool ownerDiffers = first.owner != second.owner || first.group != second.group;
        note(kOwner, ownerCounts && ownerDiffers);
        note(kTimes, extent_.times && !HaveSameTime(first, second));
        if (first.IsLink()) note(kContent, first.target != second.target);
        if (!first.IsFile() && !first.IsFolder()) return;
        // Nobody's set-id bits are kept with another owner.
        const uint32_t rights = ownerDiffers && !ownerCounts ? ~kSetIdBits : ~0U;
        note(kRights, ((first.mode ^ second.mode) & rights) != 0);
        note(kFlags, ((first.flags ^ second.flags) & (privileges_.mayBlock ? ~0U : ~kBlockingFlags)) != 0);
        first.Open();
        second.Open();
        CompareAttributes(first, second, difference);
        note(kAccessList, first.AccessList() != second.AccessList() || first.DefaultList() != second.DefaultList());
        note(kContent, first.IsFile() && !HaveSameBytes(first, second));
    }

    static bool HaveSameTime(const ComparedItem &first, const ComparedItem &second)
    {
        return first.modified.tv_sec == second.modified.tv_sec && first.modified.tv_nsec == second.modified.tv_nsec;
    }

    void CompareAttributes(const ComparedItem &first, const ComparedItem &second, Difference &difference) const
    {
        const auto one = first.Attributes(privileges_.isRoot), other = second.Attributes(privileges_.isRoot);
        if (one == other) return;
        difference.changes |= kAttributes;
        for (const auto &[name, value] : one) {
            const auto same = other.find(name);
            if (same == other.end() || same->second != value) difference.attributes.push_back(name);
        }
        for (const auto &[name, value] : other)
            if (!one.contains(name)) difference.attributes.push_back(name);
    }

    bool HaveSameBytes(const ComparedItem &first, const ComparedItem &second)
    {
        if (first.size != second.size) return false;
        if (first.IsSameInode(second)) return true;
        if (!extent_.bigFiles && first.size >= kBig && HaveSameTime(first, second)) {
            compared_.isWhole = false;
            return true;
        }
        char *const one = block_.get(), *const other = one + kPiece;
        for (uint64_t offset = 0; offset < first.size;) {
            if (first.hasHoles && second.hasHoles) offset = std::min(first.NextData(offset), second.NextData(offset));
            const size_t count = first.Read(one, kPiece, offset);
            if (second.Read(other, kPiece, offset) != count || memcmp(one, other, count) != 0) return false;
            if (count < kPiece) break;
            offset += count;
        }
        return true;
    }

    const ComparedTree &first_, &second_;
    const Extent extent_;
    const std::function<bool(const Difference &)> &visit_;
    const Privileges privileges_;
    const std::unique_ptr<char[]> block_{new char[2 * kPiece]};
    std::vector<OpenFolders> folders_;
    Compared compared_;
    std::string below_;
};

Compared CompareTrees(const ComparedTree &first, const ComparedTree &second, const Extent &extent,
                      const std::function<bool(const Difference &)> &visit)
{
    return Comparison(first, second, extent, visit).Run();
}
