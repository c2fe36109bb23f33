// The rights of another user, for the calling thread and a scope.
//
// Root that works for somebody else on that user's word lets the kernel decide what the user could have done: with the
// user's file-system id, and without any group or capability, no file of others can be removed, changed or reached that
// the user could not. Anybody but root keeps their own rights, and so does root for itself.

#pragma once

#include "Platform/Capabilities.h"

#include <memory>
#include <sys/types.h>

namespace platform {

class ActingAs {
public:
    explicit ActingAs(uid_t user);
    ~ActingAs();
    ActingAs(const ActingAs &) = delete;
    ActingAs &operator=(const ActingAs &) = delete;

    // False if the rights could not be had; nothing is to be done then.
    explicit operator bool() const { return holds_; }

private:
    bool DropCapabilities() const;
    bool TakeBack() const;

    bool isChanged_ = false;
    bool holds_ = true;
    uid_t oldUser_ = 0;
    gid_t oldGroup_ = 0;
    Capabilities capabilities_{};
    bool isDumpable_ = false;
    int deathSignal_ = 0;
    int groupCount_ = 0;
    std::unique_ptr<gid_t[]> groups_; // root's further groups
};

} // namespace platform
