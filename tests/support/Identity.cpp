#include "support/Identity.h"

#include <cstdlib>
#include <grp.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr unsigned kImmutableBit = 1U << CAP_LINUX_IMMUTABLE;

struct Capabilities {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    Capabilities() { syscall(SYS_capget, &header, data); }
    void Apply()
    {
        if (syscall(SYS_capset, &header, data) != 0) abort();
    }
};

} // namespace

bool CanBe(As who)
{
    static const bool root = geteuid() == 0;
    static const bool capable = (Capabilities().data[0].permitted & kImmutableBit) != 0;
    return who == As::User || (who == As::Root && root) || (who == As::Capable && capable);
}

As WhoIAm()
{
    return CanBe(As::Root) ? As::Root : CanBe(As::Capable) ? As::Capable : As::User;
}

std::string NameOf(As who)
{
    return who == As::Root ? "Root" : who == As::User ? "User" : "UserWithImmutableCapability";
}

Impersonate::Impersonate(As who) : wasRoot_(geteuid() == 0)
{
    if (who == As::Root) return;
    // The saved id stays 0: it keeps the permitted capabilities, and the way back.
    if (wasRoot_ && (setgroups(0, nullptr) != 0 || setresgid(kTestUser, kTestUser, 0) != 0 ||
                     setresuid(kTestUser, kTestUser, 0) != 0))
        abort();
    Capabilities capabilities;
    capabilities.data[0].effective = capabilities.data[0].inheritable = who == As::Capable ? kImmutableBit : 0;
    capabilities.data[1].effective = 0;
    capabilities.Apply();
    // Programs started from here have the same rights, and no more.
    prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
    if (who == As::Capable) prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, CAP_LINUX_IMMUTABLE, 0, 0);
    prctl(PR_SET_DUMPABLE, 1);
}

Impersonate::~Impersonate()
{
    if (wasRoot_ && (setresuid(0, 0, 0) != 0 || setresgid(0, 0, 0) != 0)) abort();
    Capabilities capabilities;
    for (auto &word : capabilities.data) word.effective = word.permitted;
    capabilities.Apply();
    prctl(PR_SET_DUMPABLE, 1);
}
