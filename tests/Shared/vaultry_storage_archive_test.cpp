#include "Shared/vaultry_storage.h"
#include "support/Tests.h"

namespace {

constexpr char kByte[] = "com.corvane.vaultry.orig_perms_v1";

struct Archive : InDirectory {
    bool Add(const std::string &source, const std::string &destination, bool copy, TQError **error = nullptr) const
    {
        return TQAddPathAsGeneration(source.c_str(), destination.c_str(), copy, /*makeReadable=*/false,
                                     /*archive=*/true, error);
    }
    void ExpectArchived(const std::string &path, int byte, mode_t mode) const
    {
        EXPECT_EQ(disk::Mode(path), mode) << path;
        EXPECT_EQ(disk::Attribute(path, kByte), std::string(1, static_cast<char>(byte))) << path;
        EXPECT_EQ(disk::Flags(path) & (FS_IMMUTABLE_FL | FS_APPEND_FL), 0) << path;
    }
};
INSTANTIATE_AS_EACH(Archive);

TEST_P(Archive, TakesWriteAccessAndRecordsIt)
{
    const struct {
        bool folder;
        mode_t mode;
        int byte;
        mode_t stored, readable; // without and with makeReadable
    } rows[] = {{false, 0644, 0x04, 0444, 0444},  {false, 0666, 0x1c, 0444, 0444},    {false, 0400, 0x00, 0400, 0444},
                {false, 0464, 0x08, 0444, 0444},  {false, 04702, 0x14, 04500, 04544}, {true, 0700, 0x04, 0500, 0555},
                {true, 01777, 0x1c, 01555, 01555}};
    for (const auto &row : rows)
        for (const bool readable : {false, true}) {
            SCOPED_TRACE(testing::Message() << (row.folder ? "folder " : "file ") << std::oct << row.mode);
            const mode_t stored = readable ? row.readable : row.stored;
            const std::string item = row.folder ? Folder("item", row.mode) : File("item", "data", row.mode),
                              copy = At("copy");
            OwnedError error;
            EXPECT_TRUE(TQAddPathAsGeneration(item.c_str(), copy.c_str(), true, readable, true, error.out()))
                << error.description();
            ExpectArchived(copy, row.byte, stored);
            EXPECT_EQ(disk::Mode(item), row.mode);
            const int flags = disk::SetFlags(item, FS_IMMUTABLE_FL | FS_APPEND_FL) ? 0x03 : 0;
            for (int times = 0; times < 2; ++times) { // the byte of the first time stays
                EXPECT_TRUE(_ArchiveItem(item.c_str(), nullptr, readable, error.out())) << error.description();
                ExpectArchived(item, row.byte | flags, stored);
            }
            for (const auto &path : {item, copy}) EXPECT_TRUE(_RemoveTree(path.c_str(), 0, nullptr));
        }
}

TEST_P(Archive, StoresCompressedFilesPlain)
{
    const std::string item = File("item", std::string(100000, 'a'));
    if (!disk::SetFlags(item, FS_COMPR_FL)) GTEST_SKIP() << "this file system has no compressed files";
    EXPECT_TRUE(Add(item, At("copy"), true));
    EXPECT_EQ(disk::Flags(item), FS_COMPR_FL);
    EXPECT_EQ(disk::Flags(At("copy")), 0);
    EXPECT_TRUE(_ArchiveItem(item.c_str(), nullptr, false, nullptr));
    EXPECT_EQ(disk::Flags(item), 0);
}

TEST_P(Archive, LeavesSidecarsOutButMovesThemAsTheyAre)
{
    const std::string tree = Folder("tree"), copy = At("copy"), moved = At("moved"), plain = At("plain");
    File("tree/file", "12345");
    File("tree/._file", "1234567");
    disk::Write(Folder("tree/._folder") + "/file", "123");
    EXPECT_EQ(TQComputeTreeSize(tree.c_str(), nullptr), 8);
    EXPECT_TRUE(Add(tree, copy, true) && Add(tree, moved, false));
    EXPECT_THAT(disk::List(copy), testing::ElementsAre("._folder", "file"));
    EXPECT_TRUE(disk::Mode(moved + "/._file") == 0644 && !disk::Attribute(moved + "/._file", kByte));
    ExpectArchived(moved + "/file", 0x04, 0444);
    EXPECT_TRUE(TQAddPathAsGeneration(moved.c_str(), plain.c_str(), true, false, /*archive=*/false, nullptr));
    EXPECT_EQ(disk::Mode(plain + "/._folder"), 0555U) << "copied as it is";
    uint64_t size = 2;
    EXPECT_TRUE(TQArchiveTree(moved.c_str(), /*makeReadable=*/true, &size, nullptr));
    EXPECT_EQ(size, 2U + 8U);
}

// A stored file that shared its data with a name outside would change with it.
TEST_P(Archive, BreaksHardLinksAndLeavesTheOtherNameAlone)
{
    const std::string tree = Folder("tree"), outside = File("outside", "shared", 0664);
    disk::SetAttribute(outside, "com.example.a", "kept");
    for (const auto &folder : {tree, Folder("tree/closed"), Folder("tree/flagged")})
        EXPECT_EQ(link(outside.c_str(), (folder + "/name").c_str()), 0);
    chmod((tree + "/closed").c_str(), 0555);
    if (!isRoot) disk::SetFlags(tree + "/flagged", FS_APPEND_FL); // root lifts nothing, and would be stopped
    const Snapshot before = Snapshot::Of(outside);
    Expect({{Logs(0, "Encountered hardlinked file at path \"$/moved/name\" with link count of 4; breaking link.", 7),
             CALL(Add(tree, At("moved"), false, why))}});
    EXPECT_TRUE(Same(before, Snapshot::Of(outside))) << "still writable, and without the store's attribute";
    disk::Write(outside, "changed");
    for (const char *folder : {"moved", "moved/closed", "moved/flagged"}) {
        const std::string name = At(folder) + "/name";
        ExpectArchived(name, 0x0c, 0444);
        EXPECT_EQ(disk::Read(name), "shared");
        EXPECT_EQ(disk::Attribute(name, "com.example.a"), "kept");
    }
    ExpectArchived(At("moved/closed"), 0x00, 0555);
    EXPECT_EQ(disk::List(At("moved/flagged")).size(), 1U);

    const std::string deep = disk::MakeDirectoryOfLength(directory.path(), 900);
    for (const size_t length : {1016U, 1017U}) {
        const std::string file = disk::Write(deep + "/" + std::string(length - deep.size() - 1, 'f'), "linked"),
                          other = At("other");
        ASSERT_EQ(link(file.c_str(), other.c_str()), 0);
        const Outcome outcome = InChild(CALL(TQArchiveTree(file.c_str(), false, nullptr, why)));
        EXPECT_EQ(outcome.status, length == 1016 ? 0 : 104) << length;
        EXPECT_EQ(outcome.message.substr(0, 900), length == 1016 ? "" : ("temporary path \"" + file).substr(0, 900));
        unlink(other.c_str());
    }
}

TEST_P(Archive, RefusesWhatItCannotKeep)
{
    const std::string target = File("target", "outside", 0444), missing = At("missing"), copy = At("copy");
    const Snapshot before = Snapshot::Of(target, Snapshot::kUntouched);
    const std::string linked = Folder("linked"), dangling = Folder("dangling"), special = Folder("special");
    Link("linked/link", target);
    Link("dangling/link", "nowhere");
    ASSERT_EQ(mkfifo(At("special/item").c_str(), 0600), 0);
    const auto add = [&](const std::string &from, bool copying) {
        return [=, this](TQError **error) {
            EXPECT_TRUE(_RemoveTree(copy.c_str(), 0, nullptr));
            return Add(from, copy, copying, error);
        };
    };
    const Says notOpened = System(ELOOP, "failed to open generation item \"$/copy/link\"");
    Expect({{System(ENOTSUP, "duplix callback got an error what=1 stage=3 src=$/special/item dst=$/copy/item"),
             add(special, true)},
            {notOpened, add(linked, true)},
            {System(ENOENT, "Failed to stat dest path \"$/copy/link\""), add(dangling, true)},
            {notOpened, add(dangling, false)},
            {notOpened, add(linked, false)},
            {System(ENOENT, "stat(\"$/missing\") failed"), CALL(_ArchiveItem(missing.c_str(), nullptr, false, why))},
            {System(ENOENT, "fts_open(\"\") failed"), CALL(TQArchiveTree("", false, nullptr, why))},
            {System(ENOENT, "fts_read() failed for path '$/missing'\n"),
             CALL(TQComputeTreeSize(missing.c_str(), why) != -1)}});
    EXPECT_TRUE(Same(before, Snapshot::Of(target, Snapshot::kUntouched))) << "a link's target is nobody's to lift";
}

TEST_P(Archive, ReportsBytesAndStopsWhenCancelled)
{
    const std::string package = disk::MakePackage(At("package"));
    const int64_t total = TQComputeTreeSize(package.c_str(), nullptr);
    struct Seen {
        int64_t last, cancelAt;
        bool described;
        TQProgress *top;
    };
    const auto observe = [](TQProgress *changed, void *context) {
        auto *seen = static_cast<Seen *>(context);
        if (changed == seen->top) return;
        EXPECT_GE(TQProgressGetCompletedUnits(changed), seen->last);
        seen->last = TQProgressGetCompletedUnits(changed);
        const auto info = [&](const TQString *key) {
            return Ref<TQValue>::Adopt(TQProgressCopyUserInfo(changed, key));
        };
        const auto kind = Ref<TQString>::Adopt(TQProgressCopyKind(changed));
        seen->described &= TQProgressIsCancellable(changed) && TQEqual(kind.get(), kTQProgressKindFile) &&
                           TQEqual(info(kTQProgressFileOperationKindKey).get(), kTQProgressFileOperationKindCopying) &&
                           TQURLIsFileURL(static_cast<TQURL *>(info(kTQProgressFileURLKey).get()));
        if (seen->last >= seen->cancelAt) TQProgressCancel(seen->top);
    };
    for (const int64_t cancelAt : {total + 1, int64_t{1}}) {
        const auto progress = Ref<TQProgress>::Adopt(TQProgressCreate(1));
        Seen seen{0, cancelAt, true, progress.get()};
        TQProgressSetObserver(progress.get(), observe, &seen);
        TQProgressBecomeCurrent(progress.get());
        OwnedError error;
        const bool added = Add(package, At(std::to_string(cancelAt)), true, error.out());
        TQProgressResignCurrent(progress.get());
        EXPECT_TRUE(seen.described && added == (cancelAt > total) && added == (seen.last == total)) << seen.last;
        if (added) continue;
        EXPECT_EQ(error.description(), "operation was cancelled by the user; error 125 (Operation canceled)");
        EXPECT_TRUE(error.status() == 101 && error.underlying() == ECANCELED);
    }
}

TEST(ArchiveCallbacks, KeepTheFirstError)
{
    DuplixState state;
    OwnedError adding, copyingOut;
    TQAddContext context{0, 1, 0, nullptr, adding.out()};
    TQError **const out = copyingOut.out();
    for (const int error : {EIO, EPERM}) {
        errno = error;
        EXPECT_EQ(_DuplixAddCallback(0, 3, &state, "/s", "/d", &context), 2);
        errno = error;
        EXPECT_EQ(_DuplixUnarchiveCallback(0, 3, &state, "/s", "/d", out), 2);
    }
    EXPECT_TRUE(adding.underlying() == EIO && copyingOut.underlying() == EIO);
}

} // namespace
