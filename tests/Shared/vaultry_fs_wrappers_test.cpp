#include "Shared/vaultry_fs_wrappers.h"
#include "support/Tests.h"

namespace {

struct FileSystemWrappers : InDirectory {};
INSTANTIATE_AS_EACH(FileSystemWrappers);

TEST_P(FileSystemWrappers, TellWhatIsThereFromWhatCannotBeTold)
{
    File("file");
    disk::Write(Folder("closed") + "/child", "");
    chmod(At("closed").c_str(), 0);
    Link("link", "closed");
    Link("dangling", "nowhere");
    const struct {
        const char *name;
        bool exists, surelyNot, isDirectory;
    } rows[] = {{"closed", true, false, true},          {"file/x", false, false, false},
                {"link", true, false, false},           {"dangling", false, true, false},
                {"closed/child", isRoot, false, false}, {"closed/x", false, isRoot, false}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const std::string path = At(row.name);
        EXPECT_EQ(_PathExists(path.c_str()), row.exists);
        EXPECT_EQ(_PathNotExists(path.c_str()), row.surelyNot);
        EXPECT_EQ(_IsDirectory(path.c_str(), nullptr), row.isDirectory);
    }
    TQFileStatus status{};
    status.mode = S_IFDIR | 0755;
    EXPECT_TRUE(_IsDirectory(At("file").c_str(), &status)) << "a status that is given is believed";
    EXPECT_FALSE(_PathExists(nullptr) || _IsDirectory(nullptr, nullptr));
}

TEST_P(FileSystemWrappers, NeverFollowAFinalLinkNorWaitForAWriter)
{
    const std::string file = File("file"), link = Link("link", "file"), fifo = At("fifo"), missing = At("missing");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    disk::SetAttribute(file, "a", "");
    const Snapshot before = Now();
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_TRUE(_HasAttribute(file.c_str(), "a") && _FDHasAttribute(fd, "a"));
    EXPECT_FALSE(_HasAttribute(file.c_str(), "b") || _HasAttribute(link.c_str(), "a") || _FDHasAttribute(fd, "b") ||
                 _HasAttribute(file.c_str(), nullptr) || _FDHasAttribute(fd, nullptr));
    close(fd);
    TQVolumeStatus volume{};
    EXPECT_TRUE(_SafeStatFS(fifo.c_str(), &volume) == 0 && volume.blockCount > 0);
    EXPECT_EQ(_SafeStatFS(file.c_str(), nullptr), -1);
    for (const auto &[path, error] : {std::pair{link, ELOOP}, {missing, ENOENT}}) {
        EXPECT_TRUE(_SafeStatFS(path.c_str(), &volume) == -1 && errno == error) << path;
        EXPECT_TRUE(!_SetCopyOnWrite(path.c_str()) && errno == error) << path;
        EXPECT_TRUE(!_UnsetCopyOnWrite(path.c_str()) && errno == error) << path;
    }
    EXPECT_TRUE(!_SetCopyOnWrite(file.c_str()) && errno == ENOTSUP && _UnsetCopyOnWrite(file.c_str()));
    EXPECT_TRUE(Same(before, Now()));
}

TEST_P(FileSystemWrappers, ExtensionMarkIsOneBitOfTheFileManagersAttribute)
{
    constexpr char name[] = "com.corvane.NavvexInfo";
    const std::string file = File("file"), link = Link("link", "file"), zeros(32, '\0'), ones(32, '\xff');
    const auto with = [](std::string bytes, char ninth) { return bytes[9] = ninth, bytes; };
    const struct {
        std::optional<std::string> before;
        bool hidden, hide;
        std::optional<std::string> after;
    } rows[] = {{std::nullopt, false, false, std::nullopt},
                {std::nullopt, false, true, with(zeros, 0x10)},
                {ones, true, false, with(ones, '\xef')},
                {ones + "longer", false, false, ones + "longer"},
                {"short", false, true, with("short" + zeros.substr(5), 0x10)}};
    for (const auto &row : rows) {
        if (row.before) disk::SetAttribute(file, name, *row.before);
        EXPECT_EQ(TQFSFilenameExtensionIsHidden(file.c_str()), row.hidden);
        TQFSSetFileNameExtensionHiding(file.c_str(), row.hide);
        EXPECT_EQ(disk::Attribute(file, name), row.after);
    }
    Expect({{Logs(0, "setxattr on \"$/link\" for NavvexInfo returned error 1 (Operation not permitted)"),
             CALL((TQFSSetFileNameExtensionHiding(link.c_str(), true), why))}});
}

TEST_P(FileSystemWrappers, BirthTimesCannotBeWrittenAndThatIsSaidQuietly)
{
    const std::string file = File("file"), missing = At("missing");
    Expect({{Logs(0, "setmetavec failed (errno 95) for $/file", 7),
             CALL(why && _TransferBirthTime(file.c_str(), file.c_str()))},
            {Logs(0, "gettmetavec failed (errno 2) for $/missing", 7),
             CALL(why && _TransferBirthTime(missing.c_str(), file.c_str()))},
            {Logs(0, "fsetmetavec failed (errno 95) for 0", 7), CALL(why && _SetBirthTimeSpecForFD(0, 1, 2))}});
    EXPECT_FALSE(_TransferBirthTime(file.c_str(), file.c_str()) || _SetBirthTimeSecondsForFD(0, 1));
    EXPECT_TRUE(_TransferACL());
    attachSandboxExtension(FileURL(file).get(), String("token").get());
}

TEST(SystemManagedStorage, NeedsANativeVolumeOfMoreThan512MiB)
{
    const struct {
        TQVolumeStatus volume;
        int refusedWith;
    } rows[] = {{{"ext4", 4096, 131072}, ENOSPC},
                {{"xfs", 4096, 131073}, 0},
                {{"btrfs", 1U << 31, 1 << 30}, 0},
                {{"tmpfs", 4096, 1ULL << 40}, ENOSYS}};
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
