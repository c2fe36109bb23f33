#include "support/PowerCut.h"

#include "support/Volumes.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sys/ioctl.h>
#include <sys/mount.h>

static constexpr unsigned long kShutDown = _IOR('X', 125, uint32_t); // of ext4 and of xfs, with one meaning

static void Require(bool done, const std::string &what)
{
    if (done) return;
    std::perror(what.c_str());
    std::abort();
}

static UniqueFd Open(const std::string &path)
{
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    Require(static_cast<bool>(fd), path);
    return fd;
}

PoweredVolume::PoweredVolume(const std::string &type) : type_(type), path_(VolumeOfType(type).path)
{
    std::ifstream mounts("/proc/self/mounts");
    std::string device, rest;
    for (std::string point; mounts >> device >> point && std::getline(mounts, rest);)
        if (point == path_) device_ = device;
    keepsDevice_ = Open(device_);
}

void PoweredVolume::CutPower(Journal journal)
{
    uint32_t how = journal == Journal::Written ? 1 : 2;
    Require(ioctl(Open(path_).get(), kShutDown, &how) == 0, "shutting down " + path_);
    Require(umount2(path_.c_str(), 0) == 0, "unmounting " + path_);
    Require(mount(device_.c_str(), path_.c_str(), type_.c_str(), 0, nullptr) == 0, "mounting " + path_ + " again");
}

void PoweredVolume::FlushAll() const
{
    Require(syncfs(Open(path_).get()) == 0, "flushing " + path_);
}
