#include "support/PowerCut.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

namespace {

constexpr unsigned long kShutDown = _IOR('X', 125, uint32_t); // of ext4 and of xfs, with one meaning

void Require(bool done, const std::string &what)
{
    if (done) return;
    std::perror(what.c_str());
    std::abort();
}

std::string DeviceAt(const std::string &point)
{
    std::ifstream mounts("/proc/self/mounts");
    std::string device, found, line;
    for (std::string where; mounts >> device >> where && std::getline(mounts, line);)
        if (where == point) found = device;
    return found;
}

} // namespace

PoweredVolume::PoweredVolume(const std::string &type)
    : type_(type), path_(VolumeOfType(type).path), device_(DeviceAt(path_)),
      keepsDevice_(open(device_.c_str(), O_RDONLY | O_CLOEXEC))
{
    Require(static_cast<bool>(keepsDevice_), "the device of " + path_);
}

void PoweredVolume::CutPower(Journal journal)
{
    uint32_t how = journal == Journal::Written ? 1 : 2;
    {
        const UniqueFd root(open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        Require(root && ioctl(root.get(), kShutDown, &how) == 0, "shutting down " + path_);
    }
    Require(umount2(path_.c_str(), 0) == 0, "unmounting " + path_);
    Require(mount(device_.c_str(), path_.c_str(), type_.c_str(), 0, nullptr) == 0, "mounting " + path_ + " again");
}

void PoweredVolume::FlushAll() const
{
    const UniqueFd root(open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    Require(root && syncfs(root.get()) == 0, "flushing " + path_);
}
