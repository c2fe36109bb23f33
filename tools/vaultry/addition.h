// One document that is added.
//
// Whatever goes wrong, the document is kept at least once: one that is moved leaves its place only when the store has
// it whole, and a generation that is complete but lacks something beside it stays, with a word about it.

#pragma once

#include "arguments.h"
#include "assignment.h"
#include "document.h"
#include "failure.h"
#include "generation.h"
#include "progress_bar.h"
#include "store.h"
#include "times.h"

#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

// What the user notes of it. Throws if a tag is none, or has a key of the command's own.
std::vector<Assignment> ParseTags(const Arguments &arguments);

class OpenSource;

class Addition {
public:
    Addition(const Store &store, const Document &document, const Arguments &arguments, ProgressBar &bar);

    // Throws if nothing was kept. Else returns an exit code: not success if something beside the generation is missing,
    // or the document was changed meanwhile.
    int Run(bool mayRetry);
    const std::string &name() const { return name_; }

private:
    void LookBefore();
    void CountWhatIsLeftOut(uint64_t count) const;
    bool WasChanged() const;
    void EndWhereChanged(bool mayRetry);
    void AddUnderFreeName();
    bool AddOnce(bool copy);
    bool AddByWhateverWay();
    bool NameIsTaken() const;
    [[noreturn]] void Refuse() const;
    void EndWhereInterrupted();
    bool WriteInfo();
    void RemoveSource();
    void FlushRemoval(const OpenSource &former);
    void Complain(const CommandFailure &failure);
    void Complain(int exitCode, const std::string &message) { Complain(CommandFailure(exitCode, message)); }

    const Store &store_;
    const std::string path_;
    const std::optional<std::string> givenName_;
    const bool isMove_, keepsLinks_;
    std::optional<std::string> base_; // the generation to share unchanged files with
    struct stat before_ {};           // the document's top item
    ProgressBar &bar_;
    const double now_ = PresentTime();
    const Owned<TQDictionary> plainNotes_; // of document and time, and that it is pinned
    const Owned<TQDictionary> notes_;      // the same with the user's tags
    const bool hasTags_, isPinned_;
    std::optional<Fingerprint> beforeReading_; // none if it could not be read, or is not

    std::string name_;
    Owned<TQError> error_;      // of the last try
    bool copied_ = false;       // the document is still where it was
    Fingerprint beforeCopying_; // of a document that is to be removed after copying
    int exitCode_ = kExitSuccess;
};
