// An action that undoes something or gives it back, declared where it becomes due.
//
// Clean-up keeps errno, so a caller still gets the errno of what failed.

#pragma once

#include "Platform/ErrnoKeeper.h"

#include <utility>

template <class Action> class [[nodiscard]] ScopeExit {
public:
    explicit ScopeExit(Action action) : action_(std::move(action)) {}
    ~ScopeExit()
    {
        if (!armed_) return;
        const ErrnoKeeper keeper;
        action_();
    }
    ScopeExit(const ScopeExit &) = delete;
    ScopeExit &operator=(const ScopeExit &) = delete;

    // Success keeps what failure would have undone.
    void Dismiss() { armed_ = false; }

private:
    Action action_;
    bool armed_ = true;
};
