// What a check of a store has found, collected.

#pragma once

#include "Platform/DirectoryReader.h"
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
    void MendNothing() { repair_ = false; }

    void Add(const char *path, const char *kind, const char *meaning, bool mended = false);

    // Of what can't be read nothing is said, least of all that it is well.
    void AddUnreadable(const char *path)
    {
        Add(path, "unreadable", "The item can't be read, so nothing can be said of it.");
    }

    void AddForeign(const char *path)
    {
        Add(path, "staging-foreign", "The library did not make all of this; a person should look at it.");
    }

    // What can be mended by one step: takes it if repairing, and says whether it worked.
    template <class Mend> void AddMendable(const char *path, const char *kind, const char *meaning, Mend mend)
    {
        Add(path, kind, meaning, repair_ && mend());
    }

    // Whether a document is looked at for the first time: many generations are of one document.
    bool IsNewDocument(const char *path);

    // Null if memory ran out on the way: a list with gaps would say that all is well.
    TQArray *Detach() { return complete_ ? list_.Detach() : nullptr; }

private:
    bool repair_;
    bool complete_ = true;
    Ref<TQArray> list_;
    Ref<TQSet> documents_ = Ref<TQSet>::Adopt(TQSetCreateMutable());
};

// The names in a directory. After the last one, error() tells whether they are all: 0, or an errno.
class Names {
public:
    explicit Names(const char *path)
        : directory_(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC)), error_(directory_ ? 0 : errno)
    {
    }
    const char *Next() { return error_ == 0 ? reader_.Next(directory_.get(), &error_) : nullptr; }
    int error() const { return error_; }

private:
    UniqueFd directory_;
    platform::DirectoryReader reader_;
    int error_;
};

// Its items, its attributes, and what restores of its document left beside that.
void _CheckGeneration(const char *path, Findings &findings);
void _CheckStagingArea(const char *stagingPath, Findings &findings);
