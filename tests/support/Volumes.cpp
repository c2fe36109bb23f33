#include "support/Volumes.h"

#include <sched.h>
#include <sys/mount.h>

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
        whyNot = !isApart                                                     ? "mounting is refused"
                 : !can(make)                                                 ? "mkfs." + type + " fails"
                 : !can("chmod 755 .; mkdir at; " + take + "; chmod 1777 at") ? "it can't be mounted"
                                                                              : "";
        if (whyNot.empty()) path = place / "at";
    }
    ~Mounted() { (void)!umount2(path.c_str(), MNT_DETACH); }

    const TempDirectory place;
};

} // namespace

const TestVolume &VolumeOfType(const std::string &type)
{
    static std::map<std::string, Mounted> volumes;
    return volumes.try_emplace(type, type).first->second;
}
