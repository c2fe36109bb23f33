#include "Shared/vaultry_fs_wrappers.h"
#include "support/CapturedLog.h"
#include "support/Identity.h"
#include "support/Reports.h"

#include <vaultry/number.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace {

constexpr char kInfo[] = "com.corvane.NavvexInfo";

class FileSystemWrappers : public AsEach {
protected:
    TempDirectory directory;
};
INSTANTIATE_AS_EACH(FileSystemWrappers);

TEST_P(FileSystemWrappers, TellWhatIsThereFromWhatCannotBeTold)
{
    disk::Write(directory / "file", "");
    disk::MakeDirectory(directory / "folder");
    disk::MakeDirectory(directory / "closed");
    disk::Write(directory / "closed/child", "");
    chmod((directory / "closed").c_str(), 0);
    ASSERT_EQ(symlink("folder", (directory / "link").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", (directory / "dangling").c_str()), 0);
    const bool root = GetParam() == As::Root;
    const struct {
        const char *name;
        bool exists, surelyNot, isDirectory;
    } rows[] = {{"file", true, false, false},         {"folder", true, false, true},   {"missing", false, true, false},
                {"file/x", false, false, false},      {"link", true, false, false},    {"dangling", false, true, false},
                {"closed/child", root, false, false}, {"closed/x", false, root, false}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const std::string path = directory / row.name;
        EXPECT_EQ(_PathExists(path.c_str()), row.exists);
        EXPECT_EQ(_PathNotExists(path.c_str()), row.surelyNot);
        EXPECT_EQ(_IsDirectory(path.c_str(), nullptr), row.isDirectory);
    }
    TQFileStatus status{};
    status.mode = S_IFDIR | 0755;
    EXPECT_TRUE(_IsDirectory((directory / "file").c_str(), &status)) << "a status that is given is believed";
    EXPECT_FALSE(_PathExists(nullptr) || _IsDirectory(nullptr, nullptr) || _PathExists(""));
    chmod((directory / "closed").c_str(), 0700);
}

TEST_P(FileSystemWrappers, NeverFollowAFinalLink)
{
    const std::string file = disk::Write(directory / "file", ""), link = directory / "link", fifo = directory / "fifo";
    ASSERT_EQ(symlink("file", link.c_str()), 0);
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    disk::SetAttribute(file, "com.example.a", "");
    struct statfs wanted {};
    ASSERT_EQ(statfs(file.c_str(), &wanted), 0);

    TQVolumeStatus volume{};
    EXPECT_EQ(_SafeStatFS(file.c_str(), &volume), 0);
    EXPECT_EQ(volume.blockCount, wanted.f_blocks);
    EXPECT_EQ(_SafeStatFS(fifo.c_str(), &volume), 0) << "and never waits for a writer";
    for (const auto &[path, error] : {std::pair{link, ELOOP}, {directory / "missing", ENOENT}}) {
        errno = 0;
        EXPECT_EQ(_SafeStatFS(path.c_str(), &volume), -1);
        EXPECT_EQ(errno, error);
    }
    EXPECT_TRUE(_HasAttribute(file.c_str(), "com.example.a"));
    EXPECT_FALSE(_HasAttribute(file.c_str(), "com.example.b") || _HasAttribute(link.c_str(), "com.example.a"));
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_TRUE(_FDHasAttribute(fd, "com.example.a"));
    EXPECT_FALSE(_FDHasAttribute(fd, "com.example.b") || _FDHasAttribute(-1, "com.example.a"));
    close(fd);

    const Snapshot before = Snapshot::Of(directory.path(), Snapshot::kUntouched);
    for (const auto &[path, error] : {std::pair{file, ENOTSUP}, {link, ELOOP}, {directory / "missing", ENOENT}}) {
        errno = 0;
        EXPECT_FALSE(_SetCopyOnWrite(path.c_str()));
        EXPECT_EQ(errno, error);
        EXPECT_EQ(_UnsetCopyOnWrite(path.c_str()), path == file) << path;
    }
    EXPECT_TRUE(Same(before, Snapshot::Of(directory.path(), Snapshot::kUntouched)));
}

TEST_P(FileSystemWrappers, ExtensionMarkIsOneBitOfTheFileManagersAttribute)
{
    const std::string file = disk::Write(directory / "file", "");
    const std::string zeros(32, '\0'), ones(32, '\xff');
    const auto with = [](std::string bytes, char ninth) { return bytes[9] = ninth, bytes; };
    using Maybe = std::optional<std::string>;
    const struct {
        const char *what;
        Maybe before;
        bool hidden, hide;
        Maybe after;
    } rows[] = {
        {"nothing to clear", std::nullopt, false, false, std::nullopt},
        {"made", std::nullopt, false, true, with(zeros, 0x10)},
        {"set", zeros, false, true, with(zeros, 0x10)},
        {"cleared, all else kept", ones, true, false, with(ones, '\xef')},
        {"set already", ones, true, true, ones},
        {"too short is not cleared", std::string(31, '\xff'), false, false, std::string(31, '\xff')},
        {"too long is not read", std::string(33, '\xff'), false, false, std::string(33, '\xff')},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        if (row.before) disk::SetAttribute(file, kInfo, *row.before);
        EXPECT_EQ(TQFSFilenameExtensionIsHidden(file.c_str()), row.hidden);
        TQFSSetFileNameExtensionHiding(file.c_str(), row.hide);
        EXPECT_EQ(disk::Attribute(file, kInfo), row.after);
    }
    ASSERT_EQ(symlink("file", (directory / "link").c_str()), 0);
    ExpectRows({{"a link holds no attribute",
                 Logs(0, "setxattr on \"$/link\" for NavvexInfo returned error 1 (Operation not permitted)"),
                 [&](TQError **) { return TQFSSetFileNameExtensionHiding((directory / "link").c_str(), true), true; }}},
               directory.path());
}

TEST_P(FileSystemWrappers, BirthTimesCannotBeWrittenAndThatIsSaidQuietly)
{
    const std::string file = disk::Write(directory / "file", ""), missing = directory / "missing";
    const std::string number = std::to_string(ENOTSUP);
    ExpectRows({{"write", Logs(0, "setmetavec failed (errno " + number + ") for $/file", 7),
                 [&](TQError **) { return _TransferBirthTime(file.c_str(), file.c_str()); }},
                {"read", Logs(0, "gettmetavec failed (errno 2) for $/missing", 7),
                 [&](TQError **) { return _TransferBirthTime(missing.c_str(), file.c_str()); }},
                {"descriptor", Logs(0, "fsetmetavec failed (errno " + number + ") for 0", 7),
                 [](TQError **) { return _SetBirthTimeSpecForFD(0, 1, 2); }},
                {"seconds", Logs(0, "fsetmetavec failed (errno " + number + ") for 0", 7),
                 [](TQError **) { return _SetBirthTimeSecondsForFD(0, 1); }}},
               directory.path());
    EXPECT_FALSE(_TransferBirthTime(file.c_str(), file.c_str()));
    EXPECT_TRUE(_TransferACL());
    attachSandboxExtension(FileURL(file).get(), String("token").get());
    attachSandboxExtension(nullptr, nullptr);
}

TEST(SystemManagedStorage, NeedsANativeVolumeOfMoreThan512MiB)
{
    const struct {
        const char *type;
        uint32_t blockSize;
        uint64_t blocks;
        int refusedWith;
    } rows[] = {
        {"ext4", 4096, 131072, ENOSPC},      {"ext4", 4096, 131073, 0},          {"xfs", 4096, 1ULL << 40, 0},
        {"btrfs", 512, 1 << 21, 0},          {"btrfs", 1U << 31, 1ULL << 30, 0}, {"ext4", 0, 1ULL << 60, ENOSPC},
        {"tmpfs", 4096, 1ULL << 40, ENOSYS}, {"overlay", 4096, 1, ENOSYS},       {"unknown", 4096, 1ULL << 40, ENOSYS}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.type);
        TQVolumeStatus volume{"", row.blockSize, row.blocks};
        std::strcpy(volume.typeName, row.type);
        const Outcome outcome =
            InChild([&](TQError **error) { return TQSystemManagedStorageIsSupportedForStatFSInfo(&volume, error); });
        EXPECT_EQ(outcome.succeeded, row.refusedWith == 0);
        if (outcome.succeeded) continue;
        EXPECT_EQ(outcome.underlying, row.refusedWith);
        EXPECT_EQ(outcome.status, 107);
        EXPECT_EQ(outcome.message, "This volume doesn't support system managed vaultry");
        ASSERT_EQ(outcome.log.size(), 1U);
        EXPECT_EQ(outcome.log[0].level, 7);
        EXPECT_THAT(outcome.log[0].text, testing::HasSubstr(outcome.message + "; status 107 (on"));
    }
}

TEST(SetDifference, TakesEveryMemberOfTheOther)
{
    const auto set = Ref<TQSet>::Adopt(TQSetCreateMutable()), others = Ref<TQSet>::Adopt(TQSetCreateMutable());
    for (const char *member : {"a", "b", "c"}) TQSetAddValue(set.get(), String(member).get());
    for (const char *member : {"b", "c", "x"}) TQSetAddValue(others.get(), String(member).get());
    TQSetRemoveValues(set.get(), others.get());
    EXPECT_EQ(TQSetGetCount(set.get()), 1U);
    EXPECT_TRUE(TQSetContainsValue(set.get(), String("a").get()));
    _RemoveValueCB(String("a").get(), set.get());
    EXPECT_EQ(TQSetGetCount(set.get()), 0U);
    TQSetRemoveValues(others.get(), others.get());
    EXPECT_EQ(TQSetGetCount(others.get()), 0U);
}

} // namespace
