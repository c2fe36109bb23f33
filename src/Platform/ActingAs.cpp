#include "Platform/ActingAs.h"

#include "Platform/ErrnoKeeper.h"

#include <cstdlib>
#include <new>
#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace platform {

// There is no way to tell which groups the user is in, so the thread gets only the group of nobody.
static constexpr gid_t kNoGroup = 65534;

// The C library's call would change the groups of all threads.
static bool _SetGroupsOfThread(int count, const gid_t *groups)
{
    return syscall(SYS_setgroups, static_cast<long>(count), groups) == 0;
}

// Setting -1, which nobody can have, is refused and returns the current id.
static bool _SetIds(uid_t user, gid_t group)
{
    (void)setfsgid(group);
    (void)setfsuid(user);
    return static_cast<uid_t>(setfsuid(static_cast<uid_t>(-1))) == user &&
           static_cast<gid_t>(setfsgid(static_cast<gid_t>(-1))) == group;
}

ActingAs::ActingAs(uid_t user)
{
    const ErrnoKeeper keeper;
    oldUser_ = static_cast<uid_t>(setfsuid(static_cast<uid_t>(-1)));
    oldGroup_ = static_cast<gid_t>(setfsgid(static_cast<gid_t>(-1)));
    // A thread that already acts as somebody else has no rights of root to give up.
    if (geteuid() != 0 || oldUser_ != 0 || user == 0) return;
    isDumpable_ = prctl(PR_GET_DUMPABLE) == 1;
    groupCount_ = getgroups(0, nullptr);
    groups_.reset(new (std::nothrow) gid_t[groupCount_ > 0 ? static_cast<size_t>(groupCount_) : 1]);
    holds_ = prctl(PR_GET_PDEATHSIG, &deathSignal_) == 0 && GetCapabilities(&capabilities_) && groupCount_ >= 0 &&
             groups_ && getgroups(groupCount_, groups_.get()) == groupCount_ && _SetGroupsOfThread(0, nullptr);
    if (!holds_) return;
    isChanged_ = true;
    holds_ = _SetIds(user, kNoGroup) && DropCapabilities();
}

// A change of the id alone drops only the capabilities over files, and not even those if the process has asked to keep
// them.
bool ActingAs::DropCapabilities() const
{
    Capabilities none = capabilities_;
    for (auto &word : none.words) word.effective = 0;
    return SetCapabilities(none);
}

// Root's id brings back capabilities that the thread may have dropped before, so they are set once more.
bool ActingAs::TakeBack() const
{
    return SetCapabilities(capabilities_) && _SetIds(oldUser_, oldGroup_) && SetCapabilities(capabilities_) &&
           _SetGroupsOfThread(groupCount_, groups_.get());
}

// A thread that stayed somebody else would do the client's next work with the wrong rights, so the process stops
// instead.
ActingAs::~ActingAs()
{
    if (!isChanged_) return;
    const ErrnoKeeper keeper;
    if (!TakeBack()) abort();
    // The kernel forgets both when rights change.
    if (isDumpable_) (void)prctl(PR_SET_DUMPABLE, 1);
    if (deathSignal_ != 0) (void)prctl(PR_SET_PDEATHSIG, deathSignal_);
}

} // namespace platform
