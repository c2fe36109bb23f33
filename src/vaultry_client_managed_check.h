// What a check of a store has found, collected.

#pragma once

#include "Runtime/Ref.h"

#include <vaultry/collections.h>

class Findings {
public:
    explicit Findings(bool repair) : repair_(repair), list_(Ref<TQArray>::Adopt(TQArrayCreateMutable())) {}

    // Whether what is found is to be mended where that is safe.
    bool repair() const { return repair_; }

    void Add(const char *path, const char *kind, const char *meaning, bool mended = false);

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

void _CheckGeneration(const char *path, Findings &findings);
void _CheckStagingArea(const char *stagingPath, Findings &findings);
void _CheckPlaceholders(const char *generationPath, Findings &findings);
