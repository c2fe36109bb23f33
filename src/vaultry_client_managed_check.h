// What a check of a store has found, collected; and the rooms of a check.
//
// What is changed in the store is reached by descriptor from its directory, and no link is followed: who repairs may be
// root, and the store somebody else's, who swaps names meanwhile. The folders of documents are opened by path, as their
// owners would; what root may do there, Platform/ActingAs.h tells.

#pragma once

#include "vaultry_client_managed_folder.h"
#include "vaultry_client_managed_owner.h"

#include "Platform/DirectoryReader.h"
#include "Platform/Item.h"
#include "Platform/UniqueFd.h"
#include "Runtime/Ref.h"

#include <vaultry/collections.h>

#include <cerrno>
#include <fcntl.h>

class Findings {
public:
    explicit Findings(bool repair) : repair_(repair), list_(Ref<TQArray>::Adopt(TQArrayCreateMutable())) {}

    // Whether what is found is to be mended where that is safe.
    bool repair() const { return repair_; }
    void StopRepairing() { repair_ = false; }

    // `home`, unless null, is where a document belongs.
    void Add(const char *path, const char *kind, const char *meaning, bool mended = false, const char *home = nullptr);

    // What can't be read is not well either.
    void AddUnreadable(const char *path) { Add(path, "unreadable", "The item can't be read, so it can't be checked."); }

    void AddForeign(const char *path)
    {
        Add(path, "staging-foreign", "The library did not make all of this; a person should look at it.");
    }

    // What can be mended by one step: takes it if repairing. True if it worked.
    template <class Mend>
    bool AddMendable(const char *path, const char *kind, const char *meaning, Mend mend, const char *home = nullptr)
    {
        const bool mended = repair_ && mend();
        Add(path, kind, meaning, mended, home);
        return mended;
    }

    // Notes that the folder of a document is looked at now; false if it was before: many generations are of one
    // document.
    bool BeginDocument(const char *path) { return Note(documents_, path, strlen(path)); }

    // What lies beside a document because of an operation that still lives, and what its owner file has explained.
    void AddLiving(const OwnerNote &note);
    void AddExplained(const char *path) { (void)Note(explained_, path, strlen(path)); }
    bool IsAccountedFor(const char *path, const TQFileStatus &status) const;

    // Null if memory ran out on the way: a list with gaps would say that all is well.
    TQArray *Detach() { return complete_ ? list_.Detach() : nullptr; }

private:
    bool Note(const Ref<TQSet> &set, const void *bytes, size_t size); // false if it is noted already

    bool repair_;
    bool complete_ = true;
    Ref<TQArray> list_;
    Ref<TQSet> documents_ = Ref<TQSet>::Adopt(TQSetCreateMutable());
    Ref<TQSet> explained_ = Ref<TQSet>::Adopt(TQSetCreateMutable());
    Ref<TQSet> living_ = Ref<TQSet>::Adopt(TQSetCreateMutable());
};

// The names in a directory. After the last one, error() tells whether they are all: 0, or an errno.
class Names {
public:
    explicit Names(const Item &directory)
        : directory_(openat(directory.directory, directory.name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)),
          error_(directory_ ? 0 : errno)
    {
    }
    const char *Next() { return error_ == 0 ? reader_.Next(directory_.get(), &error_) : nullptr; }
    int error() const { return error_; }
    int directory() const { return directory_.get(); }

private:
    UniqueFd directory_;
    platform::DirectoryReader reader_;
    int error_;
};

// Its items, its attributes, and what restores of its document left beside that. `owner` is of the store's directory.
void _CheckGeneration(const Item &generation, const TQFileStatus &owner, Findings &findings);

// Whether there is something in it.
enum class Filling { Empty, Full, Unknown };
Filling _FillingOf(const Item &item, const TQFileStatus &status);

// What operations left in staging, and of restores beside their documents.
void _CheckStagingArea(const Item &area, Findings &findings);

// What a restore left beside its document, by what it noted. `notePath` and `author` are of the directory that holds the
// note. True if nothing is left there.
bool _CheckExchange(const char *notePath, const FoundOwner &owner, const TQFileStatus &author, Findings &findings);
