#include "support/Volumes.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr off_t kImageSize = 512 << 20; // sparse; the least that mkfs.xfs takes is 300 MiB

// Leaves the namespace that others see. Said once, for all volumes.
const std::string &WhyNoMounts()
{
    static const std::string why = [] {
        if (geteuid() != 0) return std::string("this is not root");
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            return std::string("mounting is refused: ") + strerror(errno);
        return std::string();
    }();
    return why;
}

class Mounted {
public:
    explicit Mounted(const std::string &type)
    {
        if (!WhyNoMounts().empty()) {
            volume.whyNot = WhyNoMounts();
            return;
        }
        char point[] = "/tmp/vaultry-volume-XXXXXX";
        if (mkdtemp(point) == nullptr) abort();
        point_ = point;
        if (!Mount(type)) return;
        if (chmod(point, 01777) != 0) abort();
        volume.path = point;
    }
    ~Mounted()
    {
        if (!volume.path.empty() && umount2(point_.c_str(), MNT_DETACH) != 0) std::perror(point_.c_str());
        if (!point_.empty() && rmdir(point_.c_str()) != 0) std::perror(point_.c_str());
    }

    TestVolume volume;

private:
    bool Mount(const std::string &type)
    {
        if (type == "tmpfs") {
            if (mount("vaultry", point_.c_str(), "tmpfs", 0, nullptr) == 0) return true;
            volume.whyNot = strerror(errno);
            return false;
        }
        const std::string image = point_ + ".image";
        disk::Write(image, "");
        if (truncate(image.c_str(), kImageSize) != 0)
            volume.whyNot = strerror(errno);
        else if (!Shell("/", "command -v mkfs." + type))
            volume.whyNot = "there is no mkfs." + type;
        else if (!Shell("/", "mkfs." + type + " -q " + image))
            volume.whyNot = "mkfs." + type + " failed";
        else if (!Shell("/", "mount -o loop " + image + " " + point_))
            volume.whyNot = "it can't be mounted";
        unlink(image.c_str()); // the mount keeps the bytes
        return volume.whyNot.empty();
    }

    std::string point_;
};

} // namespace

bool Shell(const std::string &directory, const std::string &command)
{
    const std::string line =
        "PATH=$PATH:/usr/sbin:/sbin; cd '" + directory + "' && set -e && { " + command + "; } >/dev/null 2>&1";
    return std::system(line.c_str()) == 0;
}

const TestVolume &VolumeOfType(const std::string &type)
{
    static std::map<std::string, std::unique_ptr<Mounted>> volumes;
    auto &volume = volumes[type];
    if (!volume) volume = std::make_unique<Mounted>(type);
    return volume->volume;
}
