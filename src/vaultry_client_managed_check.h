// Collects what a check of a store finds; and the parts of a check.
//
// Everything that is changed in the store is reached by descriptor from its directory, and no link is followed: root
// may be repairing, and the store's owner, somebody else, may swap names meanwhile. The folders of documents are opened
// by path, as their owners would do it. Platform/ActingAs.h tells what root may do there.

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

    // What is added until it is called with null was told by the note in the directory at `path`.
    void SetNote(const char *path) { note_ = path; }
    // What is added until it is called with null was left by a program on another machine of that name.
    void SetHost(const char *host) { host_ = host && host[0] != '\0' ? host : nullptr; }
    void StopRepairing() { repair_ = false; }

    // `home`, unless null, is where a document belongs.
    void Add(const char *path, const char *kind, const char *meaning, bool mended = false, const char *home = nullptr);

    // An item that can't be read is a finding too.
    void AddUnreadable(const char *path) { Add(path, "unreadable", "The item can't be read, so it can't be checked."); }

    void AddForeign(const char *path)
    {
        Add(path, "staging-foreign", "The library did not make all of this; a person should look at it.");
    }

    // Adds what one step can mend, and takes that step if repairing. True if it worked.
    template <class Mend>
    bool AddMendable(const char *path, const char *kind, const char *meaning, Mend mend, const char *home = nullptr)
    {
        const bool mended = repair_ && mend();
        Add(path, kind, meaning, mended, home);
        return mended;
    }

    // Notes that the folder of a document is looked at now. False if it was before: many generations are of one
    // document.
    bool BeginDocument(const char *path) { return Note(documents_, path, strlen(path)); }

    // AddLiving notes what an operation that still lives has put beside its document, AddExplained what an owner file
    // explains. IsAccountedFor tells whether an item is one of these.
    void AddLiving(const OwnerNote &note);
    void AddExplained(const char *path) { (void)Note(explained_, path, strlen(path)); }
    bool IsAccountedFor(const char *path, const TQFileStatus &status) const;

    // Null if memory ran out on the way: a list with gaps would say that all is well.
    TQArray *Detach() { return complete_ ? list_.Detach() : nullptr; }

private:
    bool Note(const Ref<TQSet> &set, const void *bytes, size_t size); // false if it is noted already

    bool repair_;
    const char *note_ = nullptr;
    const char *host_ = nullptr;
    bool complete_ = true;
    Ref<TQArray> list_;
    Ref<TQSet> documents_ = Ref<TQSet>::Adopt(TQSetCreateMutable());
    Ref<TQSet> explained_ = Ref<TQSet>::Adopt(TQSetCreateMutable());
    Ref<TQSet> living_ = Ref<TQSet>::Adopt(TQSetCreateMutable());
};

// The names in a directory. After the last one, error() tells whether these were all: 0, or an errno.
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

// Checks its items, its attributes, and what restores left beside its document. `owner` is the status of the store's
// directory.
void _CheckGeneration(const Item &generation, const TQFileStatus &owner, Findings &findings);

// Whether an item has contents.
enum class Filling { Empty, Full, Unknown };
Filling _FillingOf(const Item &item, const TQFileStatus &status);

// Checks what operations left in staging, and what restores left beside their documents.
void _CheckStagingArea(const Item &area, Findings &findings);

// Checks what a restore left beside its document, by its note. `notePath` and `author` are the path and the status of
// the directory that holds the note. True if nothing is left beside the document.
bool _CheckExchange(const char *notePath, const FoundOwner &owner, const TQFileStatus &author, Findings &findings);
