// The rights of another user, for the calling thread and a scope.
//
// When root works on a user's word, it lets the kernel decide what that user could have done. With the user's
// file-system id, and without any group or capability, root can't remove, change or reach a file that the user could
// not. Anybody other than root keeps their own rights, and so does root when it works for itself.

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

    // False if the rights could not be changed; the caller then does nothing.
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
    std::unique_ptr<gid_t[]> groups_; // root's supplementary groups
};

} // namespace platform
