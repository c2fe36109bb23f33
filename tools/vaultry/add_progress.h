// The progress of one add: what Ctrl-C cancels and what the bar shows.

#pragma once

#include "owned.h"
#include "progress_bar.h"

#include <vaultry/progress.h>

// Current on its thread as long as it lives.
class AddProgress {
public:
    explicit AddProgress(const std::string &label) : bar_(label), progress_(TQProgressCreate(0))
    {
        TQProgressSetObserver(progress_.get(), &AddProgress::Changed, this);
        TQProgressBecomeCurrent(progress_.get());
    }
    ~AddProgress()
    {
        TQProgressResignCurrent(progress_.get());
        TQProgressSetObserver(progress_.get(), nullptr, nullptr);
    }
    AddProgress(const AddProgress &) = delete;
    AddProgress &operator=(const AddProgress &) = delete;

    TQProgress *get() const { return progress_.get(); }
    ProgressBar &bar() { return bar_; }

private:
    // The library counts bytes in a child of this progress.
    static void Changed(TQProgress *changed, void *self)
    {
        static_cast<AddProgress *>(self)->bar_.Update(TQProgressGetCompletedUnits(changed),
                                                      TQProgressGetTotalUnits(changed));
    }

    ProgressBar bar_;
    Owned<TQProgress> progress_;
};
