// See rot.h.

#include "rot.h"

#include "history.h"
#include "interrupt.h"
#include "progress_bar.h"
#include "quiet_walk.h"
#include "sealing.h"
#include "text.h"
#include "waiting.h"

#include <cstring>
#include <map>

static constexpr char kRotten[] = "is not what it was when it was sealed";

// What a reading of one generation has shown, by the path below its top.
class Findings {
public:
    Findings(std::string generation, std::string top) : generation_(std::move(generation)), top_(std::move(top)) {}

    void Note(const Seal &sealed, const TreeContents &contents)
    {
        for (const UnreadItem &item : contents.unread)
            Add(item.path, "unreadable", std::string("can't be read: ") + strerror(item.reason));
        const Seal::Changes changes = sealed.CompareWith(contents.items);
        const std::map<uint64_t, std::string> paths = PathsBelow();
        const auto addAll = [&](const std::vector<uint64_t> &items, const char *kind, const char *meaning) {
            for (const uint64_t item : items)
                if (const auto path = paths.find(item); path != paths.end()) Add(path->second, kind, meaning);
        };
        addAll(changes.changed, "rotten", kRotten);
        addAll(changes.added, "added", "was not there when its generation was sealed");
        addAll(changes.perhaps, "perhaps-rotten",
               "may not be what it was when it was sealed: too much has changed to tell what");
        if (changes.isAnyUntold)
            Add("", "rotten", std::string(kRotten) + ": there was no room to note which of its items");
        if (changes.isAnyMissing && contents.unread.empty())
            Add("", "missing", "lacks something that it had when it was sealed");
        if (found_.empty()) Add("", "rotten", "does not match its seal: one of the two has changed");
    }

    void ShowAll(const std::function<void(const Rot &)> &show) const
    {
        for (const auto &[below, rot] : found_) show(rot);
    }

private:
    // The first that is found of an item is the nearest to its cause.
    void Add(const std::string &below, const char *kind, const std::string &meaning)
    {
        found_.try_emplace(below, Rot{generation_, below.empty() ? top_ : top_ + "/" + below, kind, meaning});
    }

    std::map<uint64_t, std::string> PathsBelow() const
    {
        std::map<uint64_t, std::string> paths = {{HashOfPath(""), ""}};
        struct stat status {};
        if (lstat(top_.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return paths;
        (void)WalkBelow(top_, [&](const WalkedItem &item) { // what can't be walked is unread already
            const std::string below = item.path.substr(top_.size() + 1);
            paths.emplace(HashOfPath(below), below);
        });
        return paths;
    }

    const std::string generation_, top_;
    std::map<std::string, Rot> found_;
};

static SealCount _Count(const std::vector<Kept> &history)
{
    SealCount count;
    count.all = history.size();
    for (const Kept &kept : history) count.sealed += kept.info.isSealed;
    return count;
}

SealCount CountSealed(const Store &store)
{
    Problems ofInfo;
    return _Count(ReadHistory(store, ofInfo));
}

static bool _IsStill(const Store &store, const std::string &name, const Seal &seal)
{
    if (store.Lacks(name)) return false;
    const std::optional<Seal> now = SealOf(store, name);
    return now && now->Bytes() == seal.Bytes();
}

SealCount ReadSealed(const Store &store, const std::function<void(const Rot &)> &show, Problems &problems)
{
    Problems ofInfo; // are findings of their own
    const std::vector<Kept> history = ReadHistory(store, ofInfo);
    SealCount count = _Count(history);
    uint64_t total = 0, done = 0;
    for (const Kept &kept : history) total += kept.info.isSealed ? kept.info.size.value_or(0) : 0;

    ProgressBar bar("reading");
    TreeReader reader(TreeReader::From::Disk, [&](uint64_t bytes) {
        done += bytes;
        bar.Update(static_cast<int64_t>(done), static_cast<int64_t>(total));
    });
    const InterruptGuard interrupts("");
    for (const Kept &kept : history) {
        if (!kept.info.isSealed) continue;
        problems.Note([&] {
            const std::optional<Seal> seal = SealOf(store, kept.name);
            if (!seal) return;
            const std::string top = store.PathOf(kept.name);
            const TreeContents contents = reader.Read(top);
            const bool isWell = contents.unread.empty() && seal->Matches(contents.seal);
            if (!isWell && !_IsStill(store, kept.name, *seal)) return;
            ++count.read;
            if (isWell) return;
            Findings findings(kept.name, top);
            findings.Note(*seal, contents);
            bar.Clear();
            findings.ShowAll(show);
        });
        if (InterruptGuard::Came()) {
            problems.ForgetStop();
            problems.SayAll();
            throw CommandFailure(InterruptGuard::ExitCode(), "stopped: not all was read");
        }
        if (WaitWatch::GaveUp()) break;
    }
    return count;
}
