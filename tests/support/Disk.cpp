#include "support/Disk.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <linux/fs.h>
#include <numeric>
#include <set>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

struct statx StatusOf(const std::string &path)
{
    struct statx status {};
    if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS, &status) != 0) status.stx_mode = 0;
    return status;
}

// Undoes every protection on the way down. It reports what can't be removed, so that no later run stumbles over that.
void RemoveAll(const std::string &path)
{
    const unsigned type = StatusOf(path).stx_mode & S_IFMT;
    if (type == 0) return;
    if (type != S_IFLNK && (disk::Flags(path) & (FS_IMMUTABLE_FL | FS_APPEND_FL)) != 0) disk::SetFlags(path, 0);
    if (type == S_IFDIR) {
        (void)chmod(path.c_str(), 0700);
        for (const auto &name : disk::List(path)) RemoveAll(path + "/" + name);
    }
    if (remove(path.c_str()) != 0) std::perror(("left behind: " + path).c_str());
}

std::string Hashed(const std::string &bytes)
{
    return std::to_string(bytes.size()) + ":" + std::to_string(std::hash<std::string>()(bytes));
}

std::optional<std::string> ValueOf(const std::string &path, const std::string &name)
{
    std::string value(65536, '\0');
    const ssize_t size = lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
    value.resize(size < 0 ? 0 : static_cast<size_t>(size));
    return size < 0 ? std::nullopt : std::optional(value);
}

std::string Attributes(const std::string &path)
{
    char names[8192];
    const ssize_t length = llistxattr(path.c_str(), names, sizeof names);
    std::set<std::string> found;
    for (ssize_t at = 0; at < length; at += static_cast<ssize_t>(std::strlen(names + at)) + 1) {
        const std::string name = names + at, value = ValueOf(path, name).value_or("");
        if (name.rfind("user.", 0) == 0 || name.rfind("system.posix_acl", 0) == 0)
            found.insert(" " + name + "=" + (value.size() == 1 ? std::to_string(value[0]) : Hashed(value)));
    }
    return std::accumulate(found.begin(), found.end(), std::string());
}

std::string Extents(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    std::string text = " data";
    for (off_t at = 0; (at = lseek(fd, at, SEEK_DATA)) >= 0;) {
        text += " " + std::to_string(at) + "-";
        text += std::to_string(at = lseek(fd, at, SEEK_HOLE));
    }
    close(fd);
    return text;
}

void Describe(const std::string &root, const std::string &below, unsigned what, Snapshot &into)
{
    const std::string path = root + below;
    const struct statx status = StatusOf(path);
    const unsigned type = status.stx_mode & S_IFMT;
    std::ostringstream text;
    text << "?pc?d?b?-?l?s"[type >> 12]; // as ls shows it
    if ((what & Snapshot::kContents) != 0 && type == S_IFREG) text << " " << Hashed(disk::Read(path));
    if ((what & Snapshot::kRights) != 0 && type != 0)
        text << " mode " << std::oct << (status.stx_mode & 07777U) << std::dec << " owner " << status.stx_uid << ":"
             << status.stx_gid << " flags "
             << (status.stx_attributes & (STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND | STATX_ATTR_NODUMP))
             << Attributes(path);
    if ((what & Snapshot::kTimes) != 0) text << " time " << status.stx_mtime.tv_sec << "." << status.stx_mtime.tv_nsec;
    if ((what & Snapshot::kHoles) != 0 && type == S_IFREG) text << Extents(path);
    if ((what & Snapshot::kChangeTimes) != 0)
        text << " changed " << status.stx_ctime.tv_sec << "." << status.stx_ctime.tv_nsec;
    into.items[below] = text.str();
    if (type != S_IFDIR) return;
    for (const auto &name : disk::List(path)) Describe(root, below + "/" + name, what, into);
}

// The flags that tests set or look at; sets them to `change` first, if it is given.
constexpr int kOurFlags = FS_IMMUTABLE_FL | FS_APPEND_FL | FS_NODUMP_FL | FS_COMPR_FL;
std::optional<int> FlagsOf(const std::string &path, std::optional<int> change = {})
{
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    int word = 0;
    bool done = fd >= 0 && ioctl(fd, FS_IOC_GETFLAGS, &word) == 0;
    if (done && change) {
        word = (word & ~kOurFlags) | *change;
        done = ioctl(fd, FS_IOC_SETFLAGS, &word) == 0;
    }
    close(fd);
    return done ? std::optional(word & kOurFlags) : std::nullopt;
}

} // namespace

bool Shell(const std::string &directory, const std::string &command)
{
    const std::string line =
        "PATH=$PATH:/usr/sbin:/sbin; cd '" + directory + "' && set -e && { " + command + "; } >/dev/null 2>&1";
    return std::system(line.c_str()) == 0;
}

void Require(bool holds, const std::string &what)
{
    if (holds) return;
    std::perror(what.c_str());
    std::abort();
}

namespace disk {

std::string Write(const std::string &path, std::string_view bytes, mode_t mode)
{
    Require((std::ofstream(path) << bytes << std::flush).good() && chmod(path.c_str(), mode) == 0, path);
    return path;
}

std::string MakeDirectory(const std::string &path, mode_t mode)
{
    Require(mkdir(path.c_str(), 0700) == 0 && chmod(path.c_str(), mode) == 0, path);
    return path;
}

std::string Read(const std::string &path)
{
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

std::vector<std::string> List(const std::string &directory)
{
    std::vector<std::string> names;
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator(directory, ignored))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

bool Exists(const std::string &path)
{
    return StatusOf(path).stx_mode != 0;
}

mode_t Mode(const std::string &path)
{
    const unsigned mode = StatusOf(path).stx_mode;
    return mode != 0 ? mode & 07777U : static_cast<mode_t>(-1);
}

bool SetFlags(const std::string &path, int flags)
{
    return FlagsOf(path, flags).has_value();
}

int Flags(const std::string &path)
{
    return FlagsOf(path).value_or(0);
}

void SetAttribute(const std::string &path, const std::string &name, std::string_view value)
{
    Require(lsetxattr(path.c_str(), ("user." + name).c_str(), value.data(), value.size(), 0) == 0, path);
}

std::optional<std::string> Attribute(const std::string &path, const std::string &name)
{
    return ValueOf(path, "user." + name);
}

std::string MakePackage(const std::string &path)
{
    const bool made = Shell(MakeDirectory(path), R"sh(
        umask 022; mkdir -p Data/Nested/Deep; mkdir -m 2775 Data/Group; chmod 750 Data; chmod 700 Data/Nested/Deep
        printf 'what it is' >Info; touch empty; echo '#!/bin/sh' >run; printf kept >'read only'; chmod 755 run
        chmod 444 'read only'; printf 'for some' >Data/listed; chmod 640 Data/listed; setfacl -m u:4242:r Data/listed
        printf 'mine and yours' >Data/everyone; chmod 666 Data/everyone; ln Data/everyone Data/twin
        head -c 100000 /dev/zero | tr '\0' x >Data/Nested/Deep/leaf; chmod 600 Data/Nested/Deep/leaf
        truncate -s 2M Data/sparse; printf far >>Data/sparse; truncate -s 4M Data/sparse; chattr +d Info || :
        setfattr -n user.com.example.kind -v package .
        setfattr -n user.com.example.long -v $(printf %0600d) Data/listed
        touch -d @1234567890.987654321 Info Data/listed Data/sparse Data/Nested/Deep Data/Nested Data .)sh");
    Require(made, path);
    return path;
}

} // namespace disk

const std::string &QuickVolume()
{
    static const std::string volume = [] {
        if (std::getenv("VAULTRY_VOLUME") != nullptr) return std::string();
        const TempDirectory probe("/dev/shm");
        const bool good =
            setxattr(probe.path().c_str(), "user.probe", "", 0, 0) == 0 && disk::SetFlags(probe.path(), FS_NODUMP_FL);
        return std::string(good ? "/dev/shm" : "");
    }();
    return volume;
}

TempDirectory::TempDirectory(const std::string &parent)
{
    // The directory that the environment names may be only for the user who started the program.
    const char *preset = std::getenv("TMPDIR");
    const bool usable = preset != nullptr && access(preset, W_OK | X_OK) == 0;
    path_ = (!parent.empty() ? parent : usable ? preset : "/tmp") + std::string("/vaultry-test-XXXXXX");
    Require(mkdtemp(path_.data()) != nullptr, path_);
}

TempDirectory::~TempDirectory()
{
    RemoveAll(path_);
}

bool TempDirectory::CanSetImmutable() const
{
    const std::string probe = disk::Write(*this / "immutable?", "");
    const bool can = disk::SetFlags(probe, FS_IMMUTABLE_FL);
    RemoveAll(probe);
    return can;
}

Snapshot Snapshot::Of(const std::string &root, unsigned what)
{
    Snapshot snapshot;
    Describe(root, "", what, snapshot);
    return snapshot;
}

testing::AssertionResult Same(const Snapshot &wanted, const Snapshot &found)
{
    testing::StringMatchResultListener why;
    const bool same = testing::ExplainMatchResult(testing::ContainerEq(wanted.items), found.items, &why);
    return same ? testing::AssertionSuccess() : testing::AssertionFailure() << why.str();
}
