// The progress of one add: what Ctrl-C cancels and what the bar shows.

#pragma once

#include "owned.h"
#include "progress_bar.h"

#include <vaultry/progress.h>

#include <functional>
#include <utility>

// Current on its thread as long as it lives.
class AddProgress {
public:
    // `atTheBeginning` is called when the add, which may wait for something else, begins.
    explicit AddProgress(const std::string &label, std::function<void()> atTheBeginning = {})
        : bar_(label), atTheBeginning_(std::move(atTheBeginning)),
          progress_(TQProgressCreateChild(TQProgressGetCurrent(), 0))
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
        auto &add = *static_cast<AddProgress *>(self);
        const Owned<TQValue> kind(TQProgressCopyUserInfo(changed, kTQProgressFileOperationKindKey));
        if (!kind || !TQEqual(kind.get(), kTQProgressFileOperationKindCopying)) return; // it waits for its turn
        if (!std::exchange(add.hasBegun_, true)) {
            if (add.atTheBeginning_) add.atTheBeginning_();
            add.bar_.Restart();
        }
        add.bar_.Update(TQProgressGetCompletedUnits(changed), TQProgressGetTotalUnits(changed));
    }

    ProgressBar bar_;
    const std::function<void()> atTheBeginning_;
    bool hasBegun_ = false;
    Owned<TQProgress> progress_;
};
