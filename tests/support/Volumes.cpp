#include "support/Volumes.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace {

struct Mounted : TestVolume {
    explicit Mounted(const std::string &type)
    {
        // Leaves the namespace that others see, once for all volumes.
        static const bool isApart =
            unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
        // The image is sparse, and the mount keeps its bytes. mkfs.xfs needs at least 300 MiB.
        const std::string make = type == "tmpfs" ? ":" : "truncate -s 512M image; mkfs." + type + " -q image",
                          take = type == "tmpfs" ? "mount -t tmpfs vaultry at" : "mount -o loop image at; rm image";
        const auto can = [&](const std::string &command) { return Shell(place.path(), command); };
        whyNot = OnlyVolume() && type != "tmpfs"                              ? "another volume was chosen"
                 : !isApart                                                   ? "mounting is refused"
                 : !can(make)                                                 ? "mkfs." + type + " fails"
                 : !can("chmod 755 .; mkdir at; " + take + "; chmod 1777 at") ? "it can't be mounted"
                                                                              : "";
        if (whyNot.empty()) path = place / "at";
    }
    ~Mounted() { (void)!umount2(path.c_str(), MNT_DETACH); }

    const TempDirectory place;
};

} // namespace

bool OnlyVolume()
{
    return std::getenv("VAULTRY_VOLUME") != nullptr;
}

void GoToHost(unsigned number)
{
    const char *const hosts = std::getenv("VAULTRY_HOSTS"); // two processes
    if (hosts == nullptr) return;
    const char *const second = strchr(hosts, ' ');
    const int host = atoi(number % 2 == 0 || second == nullptr ? hosts : second);
    const int space = open(("/proc/" + std::to_string(host) + "/ns/mnt").c_str(), O_RDONLY | O_CLOEXEC);
    Require(setns(space, CLONE_NEWNS) == 0, "entering a host");
    close(space);
}

const TestVolume &VolumeOfType(const std::string &type)
{
    static std::map<std::string, Mounted> volumes;
    return volumes.try_emplace(type, type).first->second;
}
