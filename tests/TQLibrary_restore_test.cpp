#include "support/Tests.h"
#include "support/Volumes.h"

#include <regex>
#include <sys/mount.h>
#include <sys/syscall.h>

namespace {

constexpr char kFileManagerInfo[] = "com.corvane.NavvexInfo";
constexpr bool kFile = false, kFolder = true;

// A store with generations, and on a volume of their own choice the documents that they replace, in "d".
struct Restoring {
    explicit Restoring(TestStore::Document kind = TestStore::Document::Folder,
                       const std::string &storeVolume = QuickVolume(),
                       const std::string &documentVolume = QuickVolume())
        : store(kind, storeVolume), documents(documentVolume), d(disk::MakeDirectory(documents / "d"))
    {
        disk::SetAttribute(disk::Write(store / "file", "kept", 0604), "com.example.kind", "kept");
    }
    std::string Source(bool folder) const { return folder ? store.document() : store / "file"; }
    bool Keep(const std::string &name, bool folder) const
    {
        return TQClientManagedStorageAdd(store.handle(), name.c_str(), Source(folder).c_str(), 0, nullptr, true);
    }
    std::string Make(const std::string &name, bool folder, mode_t mode, const std::string &info = "") const
    {
        const std::string path = d + "/" + name;
        disk::Write(folder ? disk::MakeDirectory(path) + "/in" : path, "old");
        disk::SetAttribute(path, kFileManagerInfo, info);
        chmod(path.c_str(), mode);
        return path;
    }
    // With "$" for the directories of the documents and of the store.
    Outcome Restore(const std::string &name, const std::string &document, const char *backup = nullptr) const
    {
        const auto kept = backup ? String(backup) : Ref<TQString>();
        Outcome outcome = InChild(CALL(
            TQLibraryRestoreGeneration(library.get(), String(name).get(), FileURL(document).get(), kept.get(), why)));
        const auto plain = [&](const std::string &text) {
            return Plain(Plain(text, documents.path()), store.path() + "/store");
        };
        outcome.message = plain(outcome.message);
        for (auto &line : outcome.log) line.text = plain(line.text);
        return outcome;
    }
    // Everything in "d" but placeholders, which are counted.
    Snapshot Documents(int *placeholders) const
    {
        const auto isPlaceholder = [](const std::string &name) {
            return name.find("-tmp.nosync.") != std::string::npos;
        };
        Snapshot all = Snapshot::Of(d, Snapshot::kContents | Snapshot::kRights);
        std::erase_if(all.items, [&](const auto &item) { return isPlaceholder(item.first); });
        const auto names = disk::List(d);
        *placeholders = static_cast<int>(std::count_if(names.begin(), names.end(), isPlaceholder));
        return all;
    }
    void ExpectStoreHolds(const std::vector<std::string> &generations) const
    {
        EXPECT_THAT(store.List(), testing::UnorderedElementsAreArray(generations));
        EXPECT_THAT(disk::List(store.Staging()), testing::IsEmpty());
        EXPECT_EQ(disk::Mode(store.root()) & 0222U, 0U);
    }

    TestStore store;
    const TempDirectory documents;
    const std::string d;
    const Ref<TQLibrary> library =
        Ref<TQLibrary>::Adopt(TQLibraryCreateClientManaged(nullptr, FileURL(store.root()).get(), nullptr));
};

class LibraryRestore : public AsEach, protected Restoring {
protected:
    const bool isRoot = GetParam() == As::Root, canFlag = documents.CanSetImmutable();
};
INSTANTIATE_AS_EACH(LibraryRestore);

TEST_P(LibraryRestore, TheDocumentHoldsTheGenerationAndKeepsItsOwnRights)
{
    const struct {
        const char *name;
        bool folder;
        const char *document;
        bool overFolder;
        mode_t mode;
        const char *restored;
        mode_t final;
    } rows[] = {
        {"g.txt", kFile, "c.txt", kFile, 0640, "c.txt", 0640},
        {"g.txt", kFile, "c.rtf", kFile, 0444, "c.txt", 0444},
        {"g.TXT", kFile, "c.txt", kFile, 0600, "c.TXT", 0600},
        {"g", kFile, "c.rtf", kFile, 0755, "c.rtf", 0755},
        {"g.tar.gz", kFile, "b.zip", kFile, 0644, "b.gz", 0644},
        {"g.", kFile, "b.txt", kFile, 0644, "b.", 0644},
        {"g.txt", kFile, ".profile", kFile, 0400, ".profile", 0400},
        {"g.txt", kFile, "plain", kFile, 0200, "plain", 0200},
        // Who may read or write may enter, and nobody else.
        {"f", kFolder, "c", kFile, 0640, "c", 0750},
        {"f", kFolder, "c", kFile, 0711, "c", 0700},
        {"f", kFolder, "c", kFile, 0062, "c", 0073},
        {"f", kFolder, "c", kFile, 02404, "c", 02505},
        {"g.txt", kFile, "p", kFolder, 0755, "p", 0644},
        {"g.txt", kFile, "p.pkg", kFolder, 01731, "p.txt", 01620},
        {"g", kFile, "p", kFolder, 0555, "p", 0444},
        {"f", kFolder, "p", kFolder, 0555, "p", 0555},
        {"f.new", kFolder, "p.old", kFolder, 02711, "p.new", 02711},
        {"f.new", kFolder, "p.old/", kFolder, 0700, "p.old", 0700},
        {"f.new", kFolder, "c.old", kFile, 0604, "c.new", 0705},
    };
    bool hidden = false;
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.name) + " over " + row.document);
        ASSERT_TRUE(Keep(row.name, row.folder));
        hidden = !hidden;
        std::string info(32, '\1');
        info[9] = hidden ? '\x11' : '\1';
        const std::string document = Make(row.document, row.overFolder, row.mode, info),
                          restored = d + "/" + row.restored;
        const bool readable = isRoot || (row.mode & 0400) != 0, flagged = disk::SetFlags(document, FS_NODUMP_FL);
        EXPECT_EQ(flagged, readable);

        const Outcome outcome = Restore(row.name, document, readable ? "backup" : nullptr);
        EXPECT_TRUE(outcome.succeeded) << outcome.message;
        ASSERT_THAT(disk::List(d), testing::ElementsAre(row.restored));
        EXPECT_EQ(disk::Mode(restored), row.final) << std::oct << disk::Mode(restored);
        chmod(restored.c_str(), 0700);
        EXPECT_EQ(disk::Flags(restored), flagged ? FS_NODUMP_FL : 0);
        EXPECT_TRUE(
            Same(Snapshot::Of(Source(row.folder), Snapshot::kContents), Snapshot::Of(restored, Snapshot::kContents)));
        EXPECT_EQ(disk::Attribute(restored, "com.example.kind"), row.folder ? "folder" : "kept");
        info = std::string(9, '\0') + '\x10' + std::string(22, '\0'); // its other bits are the generation's
        EXPECT_EQ(disk::Attribute(restored, kFileManagerInfo), hidden && readable ? std::optional(info) : std::nullopt);
        if (readable) {
            EXPECT_EQ(disk::Read(store.Generation("backup") + (row.overFolder ? "/in" : "")), "old");
            EXPECT_EQ(TQClientManagedStorageGetGenerationOptions(store.handle(), "backup", nullptr), 1U);
        }
        EXPECT_TRUE(store.Remove({row.name, "backup"}));
        ExpectStoreHolds({});
        ASSERT_EQ(system(("rm -rf '" + restored + "'").c_str()), 0);
    }
}

TEST_P(LibraryRestore, WhereThereIsNoDocumentOrALinkToOne)
{
    ASSERT_TRUE(Keep("g", kFile));
    EXPECT_TRUE(Restore("g", d + "/new.txt", ".backup").succeeded) << "no document, so the backup's name is not read";
    EXPECT_EQ(disk::Read(d + "/new.txt"), "kept");
    ASSERT_EQ(symlink("nowhere", (d + "/dangling").c_str()), 0);
    EXPECT_EQ(Restore("g", d + "/dangling").status, 106);

    // The link goes; what it points to stays, and gives its rights.
    const std::string target = Make("target.txt", kFile, 0640), link = d + "/link.rtf";
    EXPECT_EQ(disk::SetFlags(target, FS_IMMUTABLE_FL), canFlag);
    const Snapshot before = Snapshot::Of(target);
    ASSERT_EQ(symlink("target.txt", link.c_str()), 0);
    EXPECT_EQ(Restore("g", link, "backup").status, 104) << "no generation is a link";
    const Outcome outcome = Restore("g", link);
    EXPECT_TRUE(outcome.succeeded) << outcome.message;
    EXPECT_TRUE(Same(before, Snapshot::Of(target)));
    EXPECT_EQ(disk::Read(link), "kept");
    EXPECT_EQ(disk::Mode(link), 0640U);
    EXPECT_EQ(disk::Flags(link), canFlag ? FS_IMMUTABLE_FL : 0);
    EXPECT_THAT(disk::List(d), testing::ElementsAre("dangling", "link.rtf", "new.txt", "target.txt"));
    ExpectStoreHolds({"g"});
}

TEST_P(LibraryRestore, ARefusalLeavesTheDocumentAndTheStoreAsTheyWere)
{
    const std::string longExtension = "g." + std::string(200, 'x'), deep = disk::MakeDirectoryOfLength(d, 999),
                      of1005 = disk::Write(deep + "/1.rtf", "old"), of1006 = disk::Write(deep + "/12.rtf", "old"),
                      file = Make("c.rtf", kFile, 0640), folder = Make("p", kFolder, 0750),
                      sealed = Make("sealed", kFolder, 0555), link = d + "/link";
    for (const std::string &name : {std::string("g"), std::string("g.txt"), longExtension})
        ASSERT_TRUE(Keep(name, kFile));
    ASSERT_EQ(symlink("sealed", link.c_str()), 0);
    using Hinder = std::function<void(bool on)>;
    const Hinder nothing,
        occupied = [&](bool on) { on ? (void)Make("c.txt", kFile, 0600) : (void)unlink((d + "/c.txt").c_str()); },
        closed =
            [&](bool on) {
                isRoot ? (void)disk::SetFlags(d, on ? FS_IMMUTABLE_FL : 0) : (void)chmod(d.c_str(), on ? 0555 : 0755);
            },
        fileStays = [&](bool on) { disk::SetFlags(file, on ? FS_IMMUTABLE_FL : 0); },
        folderGrows = [&](bool on) { disk::SetFlags(folder, on ? FS_APPEND_FL : 0); },
        sealedStays = [&](bool on) { disk::SetFlags(sealed, on ? FS_IMMUTABLE_FL : 0); };
    const std::string invalid = "The supplied generation name was invalid",
                      aside = "Failed to rename old file to temp path (\"$/d/";
    const int refusal = isRoot ? EPERM : EACCES;
    const struct {
        std::string name, document;
        Says says;
        const char *backup = "b";
        Hinder hinder = {};
        int placeholders = 0;
        bool possible = true;
    } rows[] = {
        {"g", file + "/x", System(ENOTDIR, "Failed to determine if \"$/d/c.rtf/x\" exists")},
        {std::string(255, 'n'), file, Refused(105, invalid)},
        {longExtension, of1005, Refused(104, "The supplied generation name is too long")},
        {"g.txt", file, Refused(106, "path \"$/d/c.txt\" already exists"), "b", occupied},
        {"x", file, Refused(105, "The supplied generation name doesn't exist")},
        {"g", file, Refused(106, "path \"$/g.txt\" already exists"), "g.txt"},
        {"g", file, Refused(105, invalid), ".b"},
        {"g", of1006, Failed(104, "generated path is too long")},
        {"g", file, System(refusal, "mkstemps(\"$/d/c-tmp.nosync.XXXXXX.rtf\") failed"), "b", closed, 0,
         canFlag || !isRoot},
        {"g", folder + "/", System(refusal, "mkdtemp(\"$/d/p-tmp.nosync.XXXXXX\") failed"), "b", closed, 0,
         canFlag || !isRoot},
        {"g", sealed, System(EPERM, "Failed to make \"$/d/sealed\" writable before moving it out of the way"), "b",
         sealedStays, 1, canFlag},
        {"g.txt", file, System(EPERM, aside + "c.rtf\" -> \"$/d/c-tmp.nosync.*.rtf\")"), "b", fileStays, 0, canFlag},
        {"g", folder, System(EPERM, aside + "p\" -> \"$/d/p-tmp.nosync.*\")"), "b", folderGrows, 1, canFlag},
        {"g", link, System(EISDIR, aside + "link\" -> \"$/d/link-tmp.nosync.*\")"), nullptr, nothing, 1},
        {"g", folder + "/",
         System(ENOTDIR, "Failed to rename file from staging (\"$/.vaultry_staging/*/staged\" -> \"$/d/p/\")")},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.says.text);
        if (!row.possible) continue;
        int placeholders = 0;
        const Snapshot before = Documents(&placeholders);
        if (row.hinder) row.hinder(true);
        ExpectSays(Restore(row.name, row.document, row.backup), row.says, "");
        if (row.hinder) row.hinder(false);
        EXPECT_TRUE(Same(before, Documents(&placeholders)));
        EXPECT_EQ(placeholders, row.placeholders);
        ExpectStoreHolds({"g", "g.txt", longExtension});
        EXPECT_EQ(system(("rm -rf '" + d + "'/*-tmp.nosync.*").c_str()), 0);
    }
    const auto web = Ref<TQURL>::Adopt(TQURLCreateWithString(String("https://example.com/d").get(), nullptr));
    ExpectRows({{Failed(104, "not a file URL"),
                 CALL(TQLibraryRestoreGeneration(library.get(), nullptr, web.get(), nullptr, why))}},
               "");
    EXPECT_TRUE(Restore("g", of1005, "b").succeeded);
    EXPECT_THAT(disk::List(deep), testing::ElementsAre("1.rtf", "12.rtf"));
}

class RestoreAcrossVolumes : public OnEachVolume {};
INSTANTIATE_ON_EACH_VOLUME(RestoreAcrossVolumes);

TEST_P(RestoreAcrossVolumes, APackageIsCopiedWithAllItHas)
{
    const TempDirectory home;
    const std::string here = directory().path(), bound = disk::MakeDirectory(directory() / "bound"),
                      part = directory() / "part";
    // What a rename won't cross although it is the same file system.
    const auto bind = [&] {
        return mount(bound.c_str(), disk::MakeDirectory(part).c_str(), nullptr, MS_BIND, nullptr);
    };
    ASSERT_EQ(Is("btrfs") ? system(("btrfs -q subvolume create " + part).c_str()) : bind(), 0);
    for (const auto &[storeVolume, documentVolume] :
         {std::pair(here, home.path()), {home.path(), here}, {here, part}}) {
        const Restoring at(TestStore::Document::Package, storeVolume, documentVolume);
        ASSERT_TRUE(at.Keep("p.new", kFolder));
        const Outcome outcome =
            at.Restore("p.new", at.Make("p.old", kFolder, disk::Mode(at.Source(kFolder))), "backup");
        EXPECT_TRUE(outcome.succeeded) << outcome.message;
        EXPECT_TRUE(Same(Snapshot::Of(at.Source(kFolder)), Snapshot::Of(at.d + "/p.new")));
        EXPECT_THAT(disk::List(at.d), testing::ElementsAre("p.new"));
        at.ExpectStoreHolds({"p.new", "backup"});
        // The birth time goes to the document's path, where nothing is any more.
        EXPECT_TRUE(std::any_of(outcome.log.begin(), outcome.log.end(), [](const LogLine &line) {
            return line.level == 7 &&
                   std::regex_search(line.text, std::regex("setmetavec failed \\(errno \\d+\\) for \\$/d/p.old "));
        }));
    }
    if (!Is("btrfs")) umount(part.c_str());
}

TEST(RestoreOntoAVolume, ThatIsFullOrReadOnly)
{
    if (VolumeOfType("tmpfs").path.empty()) GTEST_SKIP() << VolumeOfType("tmpfs").whyNot;
    const TempDirectory home(VolumeOfType("tmpfs").path);
    ASSERT_EQ(mount("vaultry", home.path().c_str(), "tmpfs", 0, "size=256k,mode=755"), 0);
    {
        const Restoring at(TestStore::Document::Folder, "", home.path());
        disk::Write(at.store / "file", std::string(1 << 20, 'x'));
        ASSERT_TRUE(at.Keep("g.txt", kFile));
        const std::string document = at.Make("c.rtf", kFile, 0640),
                          copied = "duplix from \"$/.vaultry_staging/*/staged\" to \"$/d/c.txt\" failed";
        const auto expect = [&](const Says &says, const std::vector<std::string> &left) {
            const Snapshot before = Snapshot::Of(document);
            ExpectSays(at.Restore("g.txt", document, "b"), says, "");
            EXPECT_TRUE(Same(before, Snapshot::Of(document)));
            EXPECT_EQ(disk::List(at.d), left);
            at.ExpectStoreHolds({"g.txt"});
        };
        expect(System(ENOSPC, copied), {"c.rtf", "c.txt"}); // with what was copied so far
        unlink((at.d + "/c.txt").c_str());
        ASSERT_EQ(mount(nullptr, home.path().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
        expect(System(EROFS, "mkstemps(\"$/d/c-tmp.nosync.XXXXXX.rtf\") failed"), {"c.rtf"});
        ASSERT_EQ(mount(nullptr, home.path().c_str(), nullptr, MS_REMOUNT, nullptr), 0);
    }
    EXPECT_EQ(umount(home.path().c_str()), 0);
}

} // namespace
