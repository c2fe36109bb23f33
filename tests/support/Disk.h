// How tests write to the disk and read from it: by system calls of their own, so that a mistake of the library can't
// hide itself. A call that must work and fails stops the test program.

#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include <gtest/gtest.h>

// Ends the process if the condition is false.
void Require(bool holds, const std::string &what);

// Runs a command of the shell in a directory. Returns whether it succeeded; its output is thrown away.
bool Shell(const std::string &directory, const std::string &command);

namespace disk {

std::string Write(const std::string &path, std::string_view bytes, mode_t mode = 0644); // gives `path` back
std::string MakeDirectory(const std::string &path, mode_t mode = 0755);                 // so does this
std::string Read(const std::string &path);
std::vector<std::string> List(const std::string &directory);
bool Exists(const std::string &path);
mode_t Mode(const std::string &path); // permission bits, or -1

// Inode flags, FS_…_FL. False where the file system or the user's rights refuse.
bool SetFlags(const std::string &path, int flags);
int Flags(const std::string &path);

// Takes the library's names: on disk "user." stands in front of them.
void SetAttribute(const std::string &path, const std::string &name, std::string_view value);
std::optional<std::string> Attribute(const std::string &path, const std::string &name);

// The document package that tests keep: nested folders, mixed modes and times, attributes, an ACL, a hard
// link, a sparse file, and a flag where the file system has it. Gives `path` back.
std::string MakePackage(const std::string &path);

} // namespace disk

// Removed at the end with everything in it, write-protected and immutable items included.
class TempDirectory {
public:
    explicit TempDirectory(const std::string &parent = "");
    ~TempDirectory();
    TempDirectory(const TempDirectory &) = delete;
    TempDirectory &operator=(const TempDirectory &) = delete;

    const std::string &path() const { return path_; }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }
    bool CanSetImmutable() const;

private:
    std::string path_;
};

// A volume in memory for tests that make thousands of stores; "", the usual place, if it can't hold what a store needs.
const std::string &QuickVolume();

// Everything about a tree, in a form that compares and prints.
struct Snapshot {
    enum : unsigned { kContents = 1, kRights = 2, kTimes = 4, kHoles = 8, kChangeTimes = 16 };
    static constexpr unsigned kWhole = kContents | kRights | kTimes, kUntouched = kWhole | kChangeTimes;

    std::map<std::string, std::string> items; // path below the root -> the description of the item

    static Snapshot Of(const std::string &root, unsigned what = kWhole);
    bool operator==(const Snapshot &) const = default;
};

// Names the items that differ, and how.
testing::AssertionResult Same(const Snapshot &wanted, const Snapshot &found);
