#include "Platform/UniqueFd.h"
#include "Shared/vaultry_fs_wrappers.h"
#include "support/Tests.h"

namespace {

TEST(FileSystemWrappers, TakeNullForNothingAndAStatusForGranted)
{
    const TempDirectory directory;
    const UniqueFd fd(open(directory.path().c_str(), O_RDONLY | O_CLOEXEC));
    disk::SetAttribute(directory.path(), "own", "");
    TQFileStatus folder{};
    folder.mode = S_IFDIR | 0755;
    EXPECT_TRUE(_FDHasAttribute(fd.get(), "own") && _TransferACL() && _IsDirectory("/none", &folder));
    EXPECT_FALSE(_FDHasAttribute(fd.get(), "none") || _FDHasAttribute(fd.get(), nullptr) || _PathExists(nullptr) ||
                 _IsDirectory(nullptr, nullptr) || _HasAttribute(directory.path().c_str(), nullptr) ||
                 _SetBirthTimeSpecForFD(fd.get(), 1, 2) || _SetBirthTimeSecondsForFD(fd.get(), 1));
    EXPECT_TRUE(_SafeStatFS("/", nullptr) == -1 && TQRecursiveMkdir(nullptr, 0700) == -1 && errno == EINVAL);
    EXPECT_FALSE(_RemoveTree(nullptr, 0, nullptr) || TQGetGenerationOptions(nullptr) != 0);
    attachSandboxExtension(FileURL("/").get(), String("token").get());
}

TEST(Paths, OfNothingAreNothing)
{
    const DeferredScope scope;
    char buffer[1024];
    EXPECT_FALSE(separate_path_parent_child(nullptr, buffer) || TQGetFileNameForPath(nullptr) ||
                 TQGetFileNameExtensionForPath(nullptr) || _CopyParentDirectoryPath(nullptr));
    EXPECT_TRUE(!vidpath_restart(buffer, sizeof buffer, 1, 2) && errno == ENOTSUP) << "Linux keeps no such paths";
    EXPECT_FALSE(validateTQName(nullptr, nullptr) || TQValidateGenerationName(nullptr) ||
                 TQStringGetGenName(String({"a\0b", 3}).get(), buffer, nullptr));
    EXPECT_FALSE(TQURLGetAbsPath(nullptr, buffer, sizeof buffer, nullptr) ||
                 TQURLGetAbsPath(FileURL("/base").get(), buffer, 5, nullptr));
    EXPECT_FALSE(tq_fileURLWithFileSystemRepresentation("") || tq_fileURLWithFileSystemRepresentation(nullptr) ||
                 tq_fileSystemRepresentation(nullptr) || tq_stringWithFileSystemRepresentation("/\xff") ||
                 tq_stringWithFileSystemRepresentation(nullptr));
    const TQURL *const url = tq_fileURLWithFileSystemRepresentation("/tmp"); // does not look at the disk
    EXPECT_FALSE(TQURLHasDirectoryPath(url));
    EXPECT_STREQ(tq_fileSystemRepresentation(url), "/tmp");
    EXPECT_EQ(Text(tq_stringWithFileSystemRepresentation("/\xC3\xA9")), "/\xC3\xA9");
}

TEST(SystemManagedStorage, NeedsANativeVolumeOfMoreThan512MiB)
{
    const struct {
        TQVolumeStatus volume;
        int refusedWith;
    } rows[] = {{{"ext4", 4096, 131072, {}}, ENOSPC},
                {{"xfs", 4096, 131073, {}}, 0},
                {{"btrfs", 1U << 31, 1 << 30, {}}, 0},
                {{"tmpfs", 4096, 1ULL << 40, {}}, ENOSYS}};
    for (const auto &row : rows) {
        const Outcome outcome = InChild(CALL(TQSystemManagedStorageIsSupportedForStatFSInfo(&row.volume, why)));
        EXPECT_EQ(outcome.succeeded, row.refusedWith == 0) << row.volume.typeName;
        EXPECT_EQ(outcome.underlying, row.refusedWith);
        EXPECT_EQ(outcome.status, row.refusedWith == 0 ? 0 : 107);
        EXPECT_EQ(outcome.message, row.refusedWith == 0 ? "" : "This volume doesn't support system managed vaultry");
    }
}

TEST(SetDifference, TakesEveryMemberOfTheOther)
{
    const auto set = Ref<TQSet>::Adopt(TQSetCreateMutable()), others = Ref<TQSet>::Adopt(TQSetCreateMutable());
    for (const char *member : {"a", "b"}) TQSetAddValue(set.get(), String(member).get());
    for (const char *member : {"b", "x"}) TQSetAddValue(others.get(), String(member).get());
    TQSetRemoveValues(set.get(), others.get());
    EXPECT_TRUE(TQSetGetCount(set.get()) == 1 && TQSetContainsValue(set.get(), String("a").get()));
    _RemoveValueCB(String("a").get(), set.get());
    TQSetRemoveValues(others.get(), others.get());
    EXPECT_EQ(TQSetGetCount(set.get()) + TQSetGetCount(others.get()), 0U);
}

} // namespace
