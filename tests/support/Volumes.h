// Real volumes of each type, for tests of the differences between file systems.
//
// They are mounted in a mount namespace of the test process: nobody else sees them, and they are gone with the process
// however it ends. A type that this process can't have is skipped by name with the reason.

#pragma once

#include "support/Disk.h"

#include <optional>

struct TestVolume {
    std::string path;   // everybody may write there; empty if there is none
    std::string whyNot; // the reason
};

inline constexpr const char *kVolumeTypes[] = {"ext4", "xfs", "btrfs", "tmpfs"};

// Whether the tests run on one volume that was chosen for them. Then no other is made, except in memory: a loop device
// on a volume whose server goes away could never be ended.
bool OnlyVolume();

// Moves this process, which must have no other thread, to a host of tests/hosts: even numbers to the first, odd ones to
// the second. Without hosts it stays where it is.
void GoToHost(unsigned number);

// The volume of a type, made on first use and kept.
const TestVolume &VolumeOfType(const std::string &type);

// A fixture of tests that run on each type, in a directory of their own.
class OnEachVolume : public testing::TestWithParam<const char *> {
protected:
    void SetUp() override
    {
        const TestVolume &volume = VolumeOfType(GetParam());
        if (volume.path.empty()) GTEST_SKIP() << "no " << GetParam() << " volume: " << volume.whyNot;
        directory_.emplace(volume.path);
    }
    const TempDirectory &directory() const { return *directory_; }
    bool Is(std::string_view type) const { return type == GetParam(); }

private:
    std::optional<TempDirectory> directory_;
};

#define INSTANTIATE_ON_EACH_VOLUME(suite)                                                                              \
    INSTANTIATE_TEST_SUITE_P(On, suite, testing::ValuesIn(kVolumeTypes),                                               \
                             [](const auto &each) { return std::string(each.param); })
