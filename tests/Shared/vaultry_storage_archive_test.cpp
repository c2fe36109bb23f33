#include "Shared/vaultry_storage.h"
#include "support/Identity.h"
#include "support/Reports.h"

#include <vaultry/filesystem.h>
#include <vaultry/progress.h>

#include <cerrno>
#include <gmock/gmock.h>
#include <linux/fs.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr char kByte[] = "com.corvane.vaultry.orig_perms_v1";
constexpr int kProtecting = FS_IMMUTABLE_FL | FS_APPEND_FL;

struct ModeRow {
    mode_t mode;
    int byte;
    mode_t stored, readable; // without and with makeReadable
};
const ModeRow kFileModes[] = {{0644, 0x04, 0444, 0444},    {0666, 0x1c, 0444, 0444},   {0600, 0x04, 0400, 0444},
                              {0400, 0x00, 0400, 0444},    {0464, 0x08, 0444, 0444},   {0402, 0x10, 0400, 0444},
                              {04755, 0x04, 04555, 04555}, {02775, 0x0c, 02555, 02555}};
const ModeRow kFolderModes[] = {{0755, 0x04, 0555, 0555},
                                {0700, 0x04, 0500, 0555},
                                {0500, 0x00, 0500, 0555},
                                {01777, 0x1c, 01555, 01555},
                                {02775, 0x0c, 02555, 02555}};

class Archive : public AsEach {
protected:
    bool AddPath(const std::string &source, const std::string &destination, bool copy, TQError **error = nullptr) const
    {
        return TQAddPathAsGeneration(source.c_str(), destination.c_str(), copy, /*makeReadable=*/false,
                                     /*archive=*/true, error);
    }
    void ExpectArchived(const std::string &path, const ModeRow &row, bool readable)
    {
        EXPECT_EQ(disk::Mode(path), readable ? row.readable : row.stored) << path;
        EXPECT_EQ(disk::Attribute(path, kByte), std::string(1, static_cast<char>(row.byte))) << path;
        EXPECT_EQ(disk::Flags(path) & kProtecting, 0) << path;
    }

    TempDirectory directory;
};
INSTANTIATE_AS_EACH(Archive);

TEST_P(Archive, TakesWriteAccessAndRecordsIt)
{
    const bool immutable = directory.CanSetImmutable();
    for (const bool readable : {false, true}) {
        for (const bool folder : {false, true}) {
            for (const ModeRow &row : folder ? std::vector<ModeRow>(std::begin(kFolderModes), std::end(kFolderModes))
                                             : std::vector<ModeRow>(std::begin(kFileModes), std::end(kFileModes))) {
                SCOPED_TRACE(testing::Message() << (folder ? "folder " : "file ") << std::oct << row.mode);
                const std::string item = directory / "item", copy = directory / "copy";
                folder ? disk::MakeDirectory(item, row.mode) : disk::Write(item, "data", row.mode);
                OwnedError error;
                EXPECT_TRUE(TQAddPathAsGeneration(item.c_str(), copy.c_str(), true, readable, true, error.out()))
                    << error.description();
                ExpectArchived(copy, row, readable);
                EXPECT_EQ(disk::Mode(item), row.mode);
                EXPECT_TRUE(_RemoveTree(copy.c_str(), 0, nullptr));

                ModeRow inPlace = row;
                if (immutable && disk::SetFlags(item, kProtecting)) inPlace.byte |= 0x03;
                EXPECT_TRUE(_ArchiveItem(item.c_str(), nullptr, readable, error.out())) << error.description();
                ExpectArchived(item, inPlace, readable);
                EXPECT_TRUE(_ArchiveItem(item.c_str(), nullptr, readable, error.out())) << "again";
                ExpectArchived(item, inPlace, readable);
                EXPECT_TRUE(_RemoveTree(item.c_str(), 0, nullptr));
            }
        }
    }
}

TEST_P(Archive, StoresCompressedFilesPlain)
{
    const std::string item = disk::Write(directory / "item", std::string(100000, 'a'));
    if (!disk::SetFlags(item, FS_COMPR_FL)) GTEST_SKIP() << "this file system has no compressed files";
    EXPECT_TRUE(AddPath(item, directory / "copy", true));
    EXPECT_EQ(disk::Flags(directory / "copy"), 0);
    EXPECT_EQ(disk::Flags(item), FS_COMPR_FL);
    EXPECT_TRUE(AddPath(item, directory / "moved", false));
    EXPECT_EQ(disk::Flags(directory / "moved"), 0);
}

TEST_P(Archive, LeavesSidecarsOutButMovesThemAsTheyAre)
{
    const std::string tree = disk::MakeDirectory(directory / "tree");
    disk::Write(tree + "/file", "12345");
    disk::Write(tree + "/._file", "1234567");
    disk::MakeDirectory(tree + "/._folder");
    disk::Write(tree + "/._folder/file", "123");
    EXPECT_EQ(TQComputeTreeSize(tree.c_str(), nullptr), 8);
    EXPECT_TRUE(AddPath(tree, directory / "copy", true));
    EXPECT_THAT(disk::List(directory / "copy"), testing::ElementsAre("._folder", "file"));
    EXPECT_TRUE(AddPath(tree, directory / "moved", false));
    EXPECT_EQ(disk::Mode(directory / "moved/._file"), 0644U);
    EXPECT_FALSE(disk::Attribute(directory / "moved/._file", kByte));
    EXPECT_EQ(disk::Mode(directory / "moved/file"), 0444U);
    EXPECT_TRUE(TQAddPathAsGeneration((directory / "copy").c_str(), (directory / "plain").c_str(), true, false,
                                      /*archive=*/false, nullptr));
    EXPECT_EQ(disk::Mode(directory / "plain/file"), 0444U) << "copied as it is";
    uint64_t size = 2;
    EXPECT_TRUE(TQArchiveTree((directory / "moved").c_str(), /*makeReadable=*/true, &size, nullptr));
    EXPECT_EQ(size, 2U + 8U);
}

// A stored file that shared its data with a name outside would change with it.
TEST_P(Archive, BreaksHardLinksAndLeavesTheOtherNameAlone)
{
    const std::string tree = disk::MakeDirectory(directory / "tree"), closed = disk::MakeDirectory(tree + "/closed");
    const std::string outside = disk::Write(directory / "outside", "shared", 0664);
    disk::SetAttribute(outside, "com.example.a", "kept");
    ASSERT_EQ(link(outside.c_str(), (tree + "/one").c_str()), 0);
    ASSERT_EQ(link(outside.c_str(), (closed + "/two").c_str()), 0);
    chmod(closed.c_str(), 0555);
    ASSERT_EQ(link(outside.c_str(), (disk::MakeDirectory(tree + "/flagged") + "/three").c_str()), 0);
    EXPECT_EQ(disk::SetFlags(tree + "/flagged", FS_APPEND_FL), directory.CanSetImmutable());
    const Snapshot before = Snapshot::Of(outside);
    const Outcome outcome = InChild([&](TQError **error) { return AddPath(tree, directory / "moved", false, error); });
    EXPECT_TRUE(outcome.succeeded || GetParam() == As::Root) << outcome.message;
    if (!outcome.succeeded) {
        // Root lifts nothing from the folder, and its flag stops root too.
        EXPECT_EQ(outcome.underlying, EPERM);
        return;
    }
    ExpectSays(outcome,
               Logs(0, "Encountered hardlinked file at path \"$/moved/one\" with link count of 4; breaking link.", 7),
               directory.path());
    for (const char *name : {"moved/one", "moved/closed/two"}) {
        EXPECT_EQ(disk::Read(directory / name), "shared");
        EXPECT_EQ(disk::Attribute(directory / name, "com.example.a"), "kept");
        EXPECT_EQ(disk::Attribute(directory / name, kByte), "\x0c");
    }
    EXPECT_TRUE(Same(before, Snapshot::Of(outside))) << "still writable, and without the store's attribute";
    EXPECT_THAT(disk::List(directory / "moved/closed"), testing::ElementsAre("two"));
    EXPECT_EQ(disk::Mode(directory / "moved/closed"), 0555U);
    EXPECT_EQ(disk::Attribute(directory / "moved/closed", kByte).value_or("").size(), 1U);
    disk::Write(outside, "changed");
    EXPECT_EQ(disk::Read(directory / "moved/one"), "shared");
}

TEST_P(Archive, RefusesWhatItCannotKeep)
{
    const auto make = [&](const std::string &name) { return disk::MakeDirectory(directory / name); };
    const std::string target = disk::Write(directory / "target", "outside", 0444), at = "$/copy";
    const Snapshot before = Snapshot::Of(target, Snapshot::kUntouched);
    ASSERT_EQ(symlink(target.c_str(), (make("linked") + "/link").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", (make("dangling") + "/link").c_str()), 0);
    ASSERT_EQ(mkfifo((make("piped") + "/fifo").c_str(), 0600), 0);
    sockaddr_un address{AF_UNIX, {}};
    (make("socketed") + "/s").copy(address.sun_path, sizeof address.sun_path - 1);
    const int socketFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(socketFd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    close(socketFd);
    const auto add = [&](const char *name, bool copy) {
        return [this, name, copy](TQError **error) {
            EXPECT_TRUE(_RemoveTree((directory / "copy").c_str(), 0, nullptr));
            return AddPath(directory / name, directory / "copy", copy, error);
        };
    };
    const auto serviceError = [&](const std::string &name) {
        return System(ENOTSUP, "duplix callback got an error what=1 stage=3 src=$/" + name + " dst=$/copy/" +
                                   name.substr(name.find('/') + 1));
    };
    ExpectRows(
        {{"a link, copied", System(ELOOP, "failed to open generation item \"$/copy/link\""), add("linked", true)},
         {"a dangling link, copied", System(ENOENT, "Failed to stat dest path \"$/copy/link\""), add("dangling", true)},
         {"a FIFO", serviceError("piped/fifo"), add("piped", true)},
         {"a socket", serviceError("socketed/s"), add("socketed", true)},
         {"nothing there", System(ENOENT, "duplix callback got an error what=0 stage=3 src=$/missing dst=$/copy"),
          add("missing", true)},
         {"a dangling link, moved", System(ELOOP, "failed to open generation item \"$/copy/link\""),
          add("dangling", false)},
         {"a link, moved", System(ELOOP, "failed to open generation item \"$/copy/link\""), add("linked", false)},
         {"nothing to move",
          System(ENOENT,
                 GetParam() == As::Root ? "rename(\"$/missing\", \"$/copy\") failed" : "stat(\"$/missing\") failed"),
          add("missing", false)},
         {"no item", System(ENOENT, "stat(\"$/missing\") failed"),
          [&](TQError **error) { return _ArchiveItem((directory / "missing").c_str(), nullptr, false, error); }},
         {"no tree", System(ENOENT, "fts_read() failed for path '$/missing'\n"),
          [&](TQError **error) { return TQArchiveTree((directory / "missing").c_str(), false, nullptr, error); }},
         {"no path", System(ENOENT, "fts_open(\"\") failed"),
          [](TQError **error) { return TQArchiveTree("", false, nullptr, error); }},
         {"no tree to measure", System(ENOENT, "fts_read() failed for path '$/missing'\n"),
          [&](TQError **error) { return TQComputeTreeSize((directory / "missing").c_str(), error) != -1; }},
         {"no path to measure", System(ENOENT, "fts_open(\"\") failed"),
          [](TQError **error) { return TQComputeTreeSize("", error) != 0; }}},
        directory.path());
    EXPECT_TRUE(Same(before, Snapshot::Of(target, Snapshot::kUntouched)));
}

TEST_P(Archive, NeedsRoomForTheNameThatBreaksALink)
{
    const std::string deep = disk::MakeDirectoryOfLength(directory.path(), 900);
    for (const size_t length : {1016U, 1017U, 1023U}) {
        SCOPED_TRACE(length);
        const std::string file = deep + "/" + std::string(length - deep.size() - 1, 'f');
        disk::Write(file, "linked");
        ASSERT_EQ(link(file.c_str(), (directory / "other").c_str()), 0);
        const Outcome outcome =
            InChild([&](TQError **error) { return TQArchiveTree(file.c_str(), false, nullptr, error); });
        EXPECT_EQ(outcome.succeeded, length == 1016);
        if (!outcome.succeeded) {
            EXPECT_EQ(outcome.status, 104);
            EXPECT_THAT(outcome.message, testing::StartsWith("temporary path \"" + file.substr(0, 1000)));
        }
        unlink((directory / "other").c_str());
    }
}

TEST_P(Archive, ReportsBytesAndStopsWhenCancelled)
{
    const std::string package = disk::MakePackage(directory / "package");
    const int64_t total = TQComputeTreeSize(package.c_str(), nullptr);
    struct Seen {
        int64_t last = 0, cancelAt = -1;
        bool described = true;
        TQProgress *top = nullptr;
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
        if (seen->cancelAt >= 0 && seen->last >= seen->cancelAt) TQProgressCancel(seen->top);
    };
    for (const int64_t cancelAt : {int64_t{-1}, int64_t{1}}) {
        const auto progress = Ref<TQProgress>::Adopt(TQProgressCreate(1));
        Seen seen{0, cancelAt, true, progress.get()};
        TQProgressSetObserver(progress.get(), observe, &seen);
        TQProgressBecomeCurrent(progress.get());
        OwnedError error;
        EXPECT_EQ(AddPath(package, directory / std::to_string(cancelAt), true, error.out()), cancelAt < 0);
        TQProgressResignCurrent(progress.get());
        EXPECT_TRUE(seen.described);
        if (cancelAt < 0) {
            EXPECT_EQ(seen.last, total);
        } else {
            EXPECT_EQ(error.description(), "operation was cancelled by the user; error 125 (Operation canceled)");
            EXPECT_EQ(error.status(), 101);
            EXPECT_EQ(error.underlying(), ECANCELED);
            EXPECT_LT(seen.last, total);
        }
    }
}

// The callbacks as the copy service calls them.
TEST_P(Archive, FirstErrorWinsAndOnlyCancellingReplacesIt)
{
    DuplixState state;
    const auto progress = Ref<TQProgress>::Adopt(TQProgressCreate(1));
    for (const int what : {0, 1, 2, 3, 4, 5}) {
        OwnedError adding, copyingOut;
        TQAddContext context{0, 1, 0, nullptr, adding.out()};
        for (const int error : {EIO, EPERM}) {
            const int stage = what == 0 ? 1 : 3;
            errno = error;
            EXPECT_EQ(_DuplixAddCallback(what, stage, &state, "/s", "/d", &context), 2);
            TQError *second = copyingOut.get();
            errno = error;
            EXPECT_EQ(_DuplixUnarchiveCallback(what, stage, &state, "/s", "/d", second ? &second : copyingOut.out()),
                      2);
        }
        const std::string wanted = "duplix callback got an error what=" + std::to_string(what) +
                                   " stage=" + (what == 0 ? "1" : "3") + " src=/s dst=/d; error 5 (Input/output error)";
        for (const auto *error : {&adding, &copyingOut}) EXPECT_EQ(error->description(), wanted);
        context.progress = progress.get();
        TQProgressCancel(progress.get());
        EXPECT_EQ(_DuplixAddCallback(1, 1, &state, "/s", "/d", &context), 2);
        EXPECT_EQ(adding.underlying(), ECANCELED);
    }
    EXPECT_EQ(_DuplixUnarchiveCallback(1, 1, &state, "/s/._x", "/d", nullptr), 1);
    EXPECT_EQ(_DuplixUnarchiveCallback(2, 1, &state, "/s/._x", "/d", nullptr), 0);
    errno = EIO;
    EXPECT_EQ(_DuplixUnarchiveCallback(0, 1, &state, "/s", "/d", nullptr), 2);
}

} // namespace
