// A second store that is a copy of the first: every generation with all that is known of it.
//
// The copy is made in a directory that is no store yet, and gets its lock file last. So what a kill leaves never passes
// for a store.
//
// The generations are copied as they stand, protected. A file that belongs to several of them is copied once, and
// linked wherever it stood.

#include "vaultry_client_managed_clone_compare.h"
#include "vaultry_client_managed_clone_place.h"

#include "vaultry_client_managed.h"
#include "vaultry_client_managed_check.h"
#include "vaultry_client_managed_nesting.h"

#include "Platform/FileStatus.h"
#include "Platform/Rename.h"
#include "Platform/UniqueNames.h"
#include "Platform/duplix.h"
#include "Runtime/NoThrow.h"
#include "Runtime/UTF8.h"
#include "Shared/vaultry_flush.h"
#include "Shared/vaultry_fs_wrappers.h"
#include "Shared/vaultry_internal_failure.h"

#include <vaultry/archive.h>
#include <vaultry/data.h>
#include <vaultry/number.h>
#include <vaultry/progress.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Kind = TreeWalk::Kind;

// The copying and the comparing count the same bytes.
class CloneProgress {
public:
    bool Begin(const char *store, TQError **error)
    {
        TQProgress *current = TQProgressGetCurrent();
        if (!current) return true;
        Ref<TQError> why;
        const int64_t size = TQComputeTreeSize(store, why.out());
        // What can't be read is told of its generation.
        progress_ = Ref<TQProgress>::Adopt(TQProgressCreateChild(current, std::max<int64_t>(size, 0) * 2));
        if (!progress_) return Failure(error).Status(kTQStatusFailed, "malloc failed");
        TQProgressSetUserInfo(progress_.get(), kTQProgressFileOperationKindKey, kTQProgressFileOperationKindCopying);
        TQProgressSetCancellable(progress_.get(), true);
        TQProgressSetKind(progress_.get(), kTQProgressKindFile);
        return true;
    }
    bool IsCancelled() const { return progress_ && TQProgressIsCancelled(progress_.get()); }
    void Done(uint64_t bytes) { Show(done_ += bytes); }
    void AtHand(uint64_t bytes) const { Show(done_ + bytes); }

private:
    void Show(uint64_t bytes) const
    {
        if (!progress_) return;
        const auto total = static_cast<uint64_t>(TQProgressGetTotalUnits(progress_.get()));
        TQProgressSetCompletedUnits(progress_.get(), static_cast<int64_t>(std::min(bytes, total)));
    }

    Ref<TQProgress> progress_;
    uint64_t done_ = 0;
};

// The generations that are not in the clone as they are in the store, each with its first reason.
class Shortfalls {
public:
    struct Reason {
        Ref<TQError> error;
        bool isKept; // in the clone all the same
    };

    bool Has(const std::string &generation) const { return reasons_.count(generation) != 0; }

    // One that was to stay may turn out worse.
    void Add(const std::string &generation, Ref<TQError> error, bool isKept)
    {
        const auto [reason, isNew] = reasons_.try_emplace(generation, Reason{error, isKept});
        if (!isNew && reason->second.isKept && !isKept) reason->second = {error, false};
    }
    const std::map<std::string, Reason> &all() const { return reasons_; }

private:
    std::map<std::string, Reason> reasons_;
};

bool SetEntry(const Ref<TQDictionary> &dictionary, const char *key, TQValue *given)
{
    const auto value = Ref<TQValue>::Adopt(given);
    const auto name = Ref<TQString>::Adopt(TQStringCreate(key));
    return name && value && TQDictionarySetValue(dictionary.get(), name.get(), value.get());
}

class Cloning {
public:
    Cloning(const char *store, TQError **error) : store_(store), error_(error) {}
    bool Begin(const char *target)
    {
        return place_.Begin(store_.c_str(), target, error_) && progress_.Begin(store_.c_str(), error_);
    }

    // Copies all generations and the protection of the root, and brings them to disk.
    bool Copy()
    {
        const auto flush = TreeFlush::By(place_.directory());
        const auto step = [](int what, int stage, DuplixState *state, const char *source, const char *destination,
                             void *cloning) {
            return NoThrow(int{duplix_answer::Quit}, [&] {
                return static_cast<Cloning *>(cloning)->Step(what, stage, *state, source, destination);
            });
        };
        if (platform::duplix(store_.c_str(), place_.c_str(), step, this,
                             {.flushEach = true, .into = &place_.before()}) != 0) {
            if (!hasReason_) Failure(error_).Status(kTQStatusFailed, "malloc failed");
            return false;
        }
        copies_.clear();
        return flush.Flush(place_.c_str(), S_IFDIR, error_);
    }

    // Reads everything back.
    bool Compare()
    {
        TreeWalk walk;
        if (!walk.Open(store_.c_str(), TreeWalk::Volumes::All))
            return Failure(error_).Errno("fts_open(\"%s\") failed", store_.c_str());
        while (const TreeWalk::Entry *entry = walk.Next()) {
            const std::string below = Below(entry->item.path);
            if (entry->level == 0 && entry->error != 0)
                return Failure(error_).Errno("fts_read() failed for path '%s'\n", entry->item.path);
            if (entry->level == 0) continue;
            const bool isToBeCompared = below.front() != '.' && !IsDropped(GenerationOf(below));
            if (entry->kind == Kind::Directory) {
                if (!isToBeCompared) walk.SkipContents();
            } else if (isToBeCompared && !CompareItem(*entry, below)) {
                return false;
            }
        }
        return true;
    }

    // Makes it a store, which is then at its place.
    TQDictionary *Finish()
    {
        if (!place_.RequireNothingElse(error_) || !DropWhatIsNotWhole()) return nullptr;
        auto report = Ref<TQDictionary>::Adopt(MakeReport()); // nothing may fail when the store is there
        for (const char *name : {kStagingName, kLockFileName}) place_.Note(name);
        TQClientManagedStorage *made = report ? TQClientManagedStorageCreate(place_.c_str(), error_) : nullptr;
        if (!made) return nullptr;
        TQClientManagedStorageFree(made);
        return GiveToOwner() && FlushStoreFiles() && place_.PutThere(error_) ? report.Detach() : nullptr;
    }

private:
    TQDictionary *MakeReport() const
    {
        auto report = Ref<TQDictionary>::Adopt(TQDictionaryCreateMutable());
        const auto failures = Ref<TQArray>::Adopt(TQArrayCreateMutable());
        for (const auto &[name, reason] : shortfalls_.all()) {
            const auto failure = Ref<TQDictionary>::Adopt(TQDictionaryCreateMutable());
            if (!SetEntry(failure, "name", TQDataCreate(name.data(), name.size())) ||
                !SetEntry(failure, "error", TQRetain(reason.error.get())) ||
                !SetEntry(failure, "kept", TQRetain(TQBooleanGet(reason.isKept))) ||
                !TQArrayAppendValue(failures.get(), failure.get()))
                return Failure(error_).Status(kTQStatusFailed, "malloc failed");
        }
        const auto number = [](uint64_t value) { return TQNumberCreateInt64(static_cast<int64_t>(value)); };
        const bool isWhole =
            SetEntry(report, "generations", number(generations_)) && SetEntry(report, "items", number(items_)) &&
            SetEntry(report, "bytes", number(comparison_.bytes())) && SetEntry(report, "links", number(links_)) &&
            SetEntry(report, "failures", TQRetain(failures.get()));
        return isWhole ? report.Detach() : Failure(error_).Status(kTQStatusFailed, "malloc failed");
    }

    // A part of a path below the store's root, without a slash at its beginning.
    std::string Below(const char *path) const
    {
        path += strlen(store_.c_str());
        return path + strspn(path, "/");
    }
    static std::string GenerationOf(const std::string &below) { return below.substr(0, below.find('/')); }

    bool IsDropped(const std::string &generation) const
    {
        const auto reason = shortfalls_.all().find(generation);
        return reason != shortfalls_.all().end() && !reason->second.isKept;
    }

    int Quit(const char *source, const char *destination)
    {
        Failure(error_).Errno("Failed to copy \"%s\" to \"%s\"", source, destination);
        hasReason_ = true;
        return duplix_answer::Quit;
    }

    // One step of the copy.
    int Step(int what, int stage, DuplixState &state, const char *source, const char *destination)
    {
        if (progress_.IsCancelled()) {
            errno = ECANCELED;
            return Quit(source, destination);
        }
        const std::string below = Below(source);
        if (what == duplix_what::Walk || stage == duplix_stage::Error) return Failed(state, below, source, destination);
        if (below.empty()) return duplix_answer::Continue;
        if (what == duplix_what::Data) progress_.AtHand(state.bytesCopied);
        const bool isFile = what == duplix_what::File;
        if (stage == duplix_stage::Start && (isFile || what == duplix_what::Directory)) return Start(state, below);
        if (stage == duplix_stage::Finish && isFile) FinishFile(state, destination);
        return duplix_answer::Continue;
    }

    // Without room, no generation can be copied any more. Whatever else keeps one from being copied is said of that.
    int Failed(const DuplixState &state, const std::string &below, const char *source, const char *destination)
    {
        if (below.empty() || errno == ENOSPC || errno == EDQUOT || errno == EROFS) return Quit(source, destination);
        if (below.front() == '.') return duplix_answer::Continue;   // the store's own
        if (state.source) copies_.erase(ItemId::Of(*state.source)); // one that could not be closed may lack something
        Ref<TQError> why;
        Failure(why.out()).Errno("Failed to copy \"%s\" to \"%s\"", source, destination);
        shortfalls_.Add(GenerationOf(below), why, /*isKept=*/false);
        return duplix_answer::Continue;
    }

    int Start(const DuplixState &state, const std::string &below)
    {
        const bool isTop = below.find('/') == below.npos;
        if (isTop && below.front() == '.') return duplix_answer::Skip; // the store's own, of which each has its own
        if (isTop && !IsGeneration(state, below)) return duplix_answer::Skip;
        if (isTop) place_.Note(below);
        if (shortfalls_.Has(GenerationOf(below))) return duplix_answer::Skip;
        const TQFileStatus &file = *state.source;
        if (!S_ISREG(file.mode) || file.linkCount < 2) return duplix_answer::Continue;
        const auto copy = copies_.find(ItemId::Of(file));
        const bool isLinked =
            copy != copies_.end() && linkat(AT_FDCWD, copy->second.path.c_str(), state.destination.directory,
                                            state.destination.name, /*flags=*/0) == 0;
        if (!isLinked) return duplix_answer::Continue; // the volume may have a limit of links
        ++links_;
        if (--copy->second.namesLeft == 0) copies_.erase(copy);
        progress_.Done(file.size);
        return duplix_answer::Skip;
    }

    bool IsGeneration(const DuplixState &state, const std::string &name)
    {
        Ref<TQError> why;
        if (S_ISLNK(state.source->mode))
            Failure(why.out()).Refused(kTQStatusInvalidArgument, "No generation is a link");
        else if (!UTF16LengthOfUTF8(name.data(), name.size()))
            Failure(why.out()).Refused(kTQStatusInvalidArgument, "The name is not UTF-8");
        else
            return true;
        shortfalls_.Add(name, why, /*isKept=*/false);
        return false;
    }

    void FinishFile(const DuplixState &state, const char *destination)
    {
        const TQFileStatus &file = *state.source;
        progress_.Done(S_ISREG(file.mode) ? file.size : 0);
        if (S_ISREG(file.mode) && file.linkCount > 1)
            copies_.insert_or_assign(ItemId::Of(file), CopiedFile{destination, file.linkCount - 1});
    }

    // False only if the operation is to end.
    bool CompareItem(const TreeWalk::Entry &entry, const std::string &below)
    {
        bool isStopped = progress_.IsCancelled();
        const auto goOn = [&](uint64_t bytes) {
            progress_.AtHand(bytes);
            return !(isStopped = progress_.IsCancelled());
        };
        const std::string copy = place_.c_str() + ("/" + below);
        Difference difference;
        if (!isStopped && entry.error == 0) difference = comparison_.Compare(entry, copy, std::ref(goOn));
        if (isStopped) {
            errno = ECANCELED;
            return Failure(error_).Errno("Failed to compare \"%s\"", entry.item.path);
        }
        ++items_;
        progress_.Done(entry.kind == Kind::File ? entry.status.size : 0);
        if (entry.error == 0 && !difference.what) return true;
        Ref<TQError> why;
        if (entry.error != 0)
            Failure(why.out()).Errno("Failed to compare \"%s\"", entry.item.path);
        else
            Failure(why.out()).Status(kTQStatusFailed, "The copy of \"%s\" does not read back with the same %s",
                                      entry.item.path, difference.what);
        shortfalls_.Add(GenerationOf(below), why, entry.error == 0 && !difference.isOfContent);
        return true;
    }

    bool DropWhatIsNotWhole()
    {
        LiftedRoot root(place_.c_str());
        for (const auto &[name, reason] : shortfalls_.all()) {
            if (reason.isKept) continue;
            const std::string path = place_.c_str() + ("/" + name);
            TQFileStatus status;
            if (platform::GetStatus(Item::AtPath(path.c_str()), Links::NoFollow, &status) != 0 && errno == ENOENT)
                continue;
            if (!root.Lift(error_) || !_RemoveTreeAt(Item::AtPath(path.c_str()), {.keepsShared = true}, error_))
                return false;
        }
        return CountGenerations();
    }

    bool CountGenerations()
    {
        Names names(Item::AtPath(place_.c_str()));
        while (const char *name = names.Next()) generations_ += name[0] == '.' ? 0 : 1;
        errno = names.error();
        return errno == 0 || Failure(error_).Errno("unable to read the directory \"%s\"", place_.c_str());
    }

    // Root makes the clone for the store's owner, who could not use it otherwise.
    bool GiveToOwner() const
    {
        TQFileStatus root;
        if (platform::GetStatusOfFd(place_.directory(), &root) != 0)
            return Failure(error_).Errno("stat(\"%s\") failed", place_.c_str());
        if (geteuid() != 0 || root.owner == 0) return true;
        for (const char *name : {kStagingName, kLockFileName})
            if (fchownat(place_.directory(), name, root.owner, root.group, AT_SYMLINK_NOFOLLOW) != 0)
                return Failure(error_).Errno("Failed to give \"%s/%s\" to the store's owner", place_.c_str(), name);
        return true;
    }

    bool FlushStoreFiles() const
    {
        PathBuffer staging;
        return staging.Format("%s/%s", place_.c_str(), kStagingName) && _FlushItem(staging.c_str(), error_) &&
               _FlushGenerationStore(place_.c_str(), error_);
    }

    // The copy of a file with several names, and how many of them are still to come.
    struct CopiedFile {
        std::string path;
        uint64_t namesLeft;
    };

    const TrimmedPath store_;
    TQError **const error_;
    ClonePlace place_;
    bool hasReason_ = false;
    CloneProgress progress_;
    std::unordered_map<ItemId, CopiedFile, ItemIdHash> copies_;
    ItemComparison comparison_;
    Shortfalls shortfalls_;
    uint64_t generations_ = 0;
    uint64_t items_ = 0;
    uint64_t links_ = 0;
};

} // namespace

TQDictionary *TQClientManagedStorageCopyStore(const TQClientManagedStorage *store, const char *rootPath,
                                              TQError **error)
{
    HeldLock lock;
    if (!lock.ForReading(store, error)) return nullptr;
    TQDictionary *report = nullptr;
    const bool isRun = NoThrow(false, [&] {
        Cloning cloning(store->rootPath, error);
        if (cloning.Begin(rootPath) && cloning.Copy() && cloning.Compare()) report = cloning.Finish();
        return true;
    });
    return isRun ? report : Failure(error).Status(kTQStatusFailed, "malloc failed");
}
