#include "support/Tests.h"
#include "support/Volumes.h"

#include <regex>
#include <sys/mount.h>
#include <sys/syscall.h>

namespace {

constexpr char kFileManagerInfo[] = "com.corvane.NavvexInfo", kMark[] = "-tmp.nosync.";

// A store with generations, and beside it the directory "d" of the documents that they replace.
class Restoring {
public:
    using Document = TestStore::Document;
    explicit Restoring(Document kind = Document::Folder, const std::string &storeVolume = QuickVolume(),
                       const std::string &documentVolume = QuickVolume())
        : store(kind, storeVolume), documents_(documentVolume), d(disk::MakeDirectory(documents_ / "d"))
    {
        disk::SetAttribute(disk::Write(store / "file", "kept", 0604), "com.example.kind", "kept");
    }
    ~Restoring() { disk::SetFlags(d, 0); }

    std::string Source(bool folder) const { return folder ? store.document() : store / "file"; }
    bool Keep(const std::string &name, bool folder) const
    {
        return TQClientManagedStorageAdd(store.handle(), name.c_str(), Source(folder).c_str(), 0, nullptr, true);
    }
    std::string Make(const std::string &name, bool folder, mode_t mode) const
    {
        const std::string path = d + "/" + name;
        if (folder) disk::Write(disk::MakeDirectory(path) + "/in", "old");
        if (!folder) disk::Write(path, "old");
        disk::SetAttribute(path, "com.example.old", "old");
        chmod(path.c_str(), mode);
        return path;
    }
    Operation Restore(const std::string &name, const std::string &document, const char *backup = nullptr) const
    {
        return [=, this](TQError **error) {
            const auto kept = backup ? String(backup) : Ref<TQString>();
            return TQLibraryRestoreGeneration(library.get(), String(name).get(), FileURL(document).get(), kept.get(),
                                              error);
        };
    }
    // With "$" for the directory of the documents and for the store, and "*" for what is unique.
    Outcome Try(const Operation &operation, const Fault &fault = {}) const
    {
        Outcome outcome = InChild(fault, operation);
        static const std::regex unique("(-tmp\\.nosync\\.)(?!XXXXXX)[A-Za-z0-9]{6}");
        const auto plain = [&](const std::string &text) {
            return std::regex_replace(Plain(Plain(text, documents_.path()), store.path() + "/store"), unique, "$1*");
        };
        outcome.message = plain(outcome.message);
        for (auto &line : outcome.log) line.text = plain(line.text);
        return outcome;
    }
    // Everything in "d" but placeholders, which are counted.
    Snapshot Documents(int *placeholders) const
    {
        Snapshot all = Snapshot::Of(d, Snapshot::kContents | Snapshot::kRights);
        *placeholders = static_cast<int>(std::erase_if(all.items, [](const auto &item) {
            return item.first.find(kMark) != std::string::npos && item.first.rfind('/') == 0;
        }));
        std::erase_if(all.items, [](const auto &item) { return item.first.find(kMark) != std::string::npos; });
        return all;
    }
    void ExpectStoreAsItWas(const std::vector<std::string> &generations) const
    {
        EXPECT_THAT(store.List(), testing::UnorderedElementsAreArray(generations));
        EXPECT_THAT(disk::List(store.Staging()), testing::IsEmpty());
        EXPECT_EQ(disk::Mode(store.root()) & 0222U, 0U);
    }

    TestStore store;
    const Ref<TQLibrary> library =
        Ref<TQLibrary>::Adopt(TQLibraryCreateClientManaged(nullptr, FileURL(store.root()).get(), nullptr));

private:
    TempDirectory documents_;

public:
    const std::string d;
};

class LibraryRestore : public AsEach, protected Restoring {};
INSTANTIATE_AS_EACH(LibraryRestore);

TEST_P(LibraryRestore, TheDocumentHoldsTheGenerationAndKeepsItsOwnRights)
{
    constexpr bool kFile = false, kFolder = true;
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
        hidden = !hidden;
        Keep(row.name, row.folder);
        const std::string document = Make(row.document, row.overFolder, 0700);
        std::string info(32, '\1');
        info[9] = hidden ? '\x11' : '\1';
        disk::SetAttribute(document, kFileManagerInfo, info);
        chmod(document.c_str(), row.mode);
        const int flags = disk::SetFlags(document, FS_NODUMP_FL) ? FS_NODUMP_FL : 0;
        const char *backup = (row.mode & 0400) != 0 || GetParam() == As::Root ? "backup" : nullptr;

        const Outcome outcome = Try(Restore(row.name, document, backup));
        EXPECT_TRUE(outcome.succeeded) << outcome.message;
        ASSERT_THAT(disk::List(d), testing::ElementsAre(row.restored));
        const std::string restored = d + "/" + row.restored;
        EXPECT_EQ(disk::Mode(restored), row.final) << std::oct << disk::Mode(restored);
        EXPECT_EQ(disk::Flags(restored), (row.mode & 0400) != 0 ? flags : disk::Flags(restored));
        disk::SetFlags(restored, 0);
        chmod(restored.c_str(), 0700);
        EXPECT_TRUE(
            Same(Snapshot::Of(Source(row.folder), Snapshot::kContents), Snapshot::Of(restored, Snapshot::kContents)));
        EXPECT_EQ(disk::Attribute(restored, "com.example.kind"), row.folder ? "folder" : "kept");
        EXPECT_EQ(disk::Attribute(restored, "com.example.old"), std::nullopt);
        const auto state = disk::Attribute(restored, kFileManagerInfo);
        EXPECT_EQ(state.has_value() && (state->at(9) & 0x10) != 0, hidden && backup != nullptr);

        ExpectStoreAsItWas(backup ? std::vector<std::string>{row.name, backup} : std::vector<std::string>{row.name});
        if (backup) {
            EXPECT_EQ(disk::Read(store.Generation(backup) + (row.overFolder ? "/in" : "")), "old");
            EXPECT_EQ(TQClientManagedStorageGetGenerationOptions(store.handle(), backup, nullptr), 1U);
        }
        EXPECT_TRUE(store.Remove({row.name, "backup"}));
        ASSERT_EQ(system(("rm -rf '" + restored + "'").c_str()), 0);
    }
    store.CheckInvariants();
}

TEST_P(LibraryRestore, WhereThereIsNoDocumentOrALinkToOne)
{
    ASSERT_TRUE(Keep("g", false));
    EXPECT_TRUE(Try(Restore("g", d + "/new.txt", ".backup")).succeeded)
        << "no document, so the backup's name is not read";
    EXPECT_EQ(disk::Read(d + "/new.txt"), "kept");
    EXPECT_EQ(disk::Mode(d + "/new.txt"), 0604U);
    ASSERT_EQ(symlink("nowhere", (d + "/dangling").c_str()), 0);
    EXPECT_EQ(Try(Restore("g", d + "/dangling")).status, 106);

    // The link goes; what it points to stays, and gives its rights.
    const std::string target = Make("target.txt", false, 0640), link = d + "/link.rtf";
    const bool immutable = disk::SetFlags(target, FS_IMMUTABLE_FL);
    const Snapshot before = Snapshot::Of(target);
    ASSERT_EQ(symlink("target.txt", link.c_str()), 0);
    EXPECT_EQ(Try(Restore("g", link, "backup")).status, 104) << "no generation is a link";
    const Outcome outcome = Try(Restore("g", link));
    EXPECT_TRUE(outcome.succeeded) << outcome.message;
    EXPECT_TRUE(Same(before, Snapshot::Of(target)));
    EXPECT_EQ(disk::Read(link), "kept");
    EXPECT_EQ(disk::Mode(link), 0640U);
    EXPECT_EQ(disk::Flags(link), immutable ? FS_IMMUTABLE_FL : 0);
    EXPECT_THAT(disk::List(d), testing::ElementsAre("dangling", "link.rtf", "new.txt", "target.txt"));
    ExpectStoreAsItWas({"g"});
}

TEST_P(LibraryRestore, AFailureLeavesTheDocumentAndTheStoreAsTheyWere)
{
    const bool capable = disk::SetFlags(store / "file", FS_IMMUTABLE_FL), root = GetParam() == As::Root;
    disk::SetFlags(store / "file", 0);
    for (const char *name : {"g", "g.txt", "taken"}) ASSERT_TRUE(Keep(name, false));
    const std::string file = Make("c.rtf", false, 0640), folder = Make("p", true, 0750),
                      sealed = Make("sealed", true, 0555), longExtension = "g." + std::string(200, 'x');
    ASSERT_TRUE(Keep(longExtension, false));
    // Paths of 1,005 and 1,006 bytes.
    const std::string deep = disk::MakeDirectoryOfLength(d, 999), fits = disk::Write(deep + "/1.rtf", "old"),
                      doesNot = disk::Write(deep + "/12.rtf", "old");
    ASSERT_EQ(symlink("sealed", (d + "/link").c_str()), 0);
    const std::vector<std::string> generations = store.List();
    const auto flags = [](const std::string &path, int word) {
        return std::function<void(bool)>([=](bool on) { disk::SetFlags(path, on ? word : 0); });
    };
    const std::function<void(bool)> nothing = [](bool) {};
    const std::function<void(bool)> occupied = [&](bool on) {
        on ? (void)Make("c.txt", false, 0600) : (void)unlink((d + "/c.txt").c_str());
    };
    const std::function<void(bool)> noEntry = [&](bool on) {
        root ? (void)disk::SetFlags(d, on ? FS_IMMUTABLE_FL : 0) : (void)chmod(d.c_str(), on ? 0555 : 0755);
    };
    const std::string web = "Failed to determine if \"", aside = "Failed to rename old file to temp path (\"";
    const struct {
        const char *what;
        Says says;
        std::string name, document;
        const char *backup;
        std::function<void(bool)> hinder;
        int placeholders;
        bool possible = true;
    } rows[] = {
        {"a file for a folder", System(ENOTDIR, web + "$/d/c.rtf/x\" exists"), "g", file + "/x", "b", nothing, 0},
        {"the name", Refused(105, "The supplied generation name was invalid"), std::string(255, 'n'), file, "b",
         nothing, 0},
        {"the extension", Refused(104, "The supplied generation name is too long"), longExtension, fits, "b", nothing,
         0},
        {"occupied", Refused(106, "path \"$/d/c.txt\" already exists"), "g.txt", file, "b", occupied, 0},
        {"no generation", Refused(105, "The supplied generation name doesn't exist"), "x", file, "b", nothing, 0},
        {"the backup's name", Refused(106, "path \"$/taken\" already exists"), "g", file, "taken", nothing, 0},
        {"the backup", Refused(105, "The supplied generation name was invalid"), "g", file, ".b", nothing, 0},
        {"1,006 bytes", Failed(104, "generated path is too long"), "g", doesNot, "b", nothing, 0},
        {"no right to the folder", System(root ? EPERM : EACCES, "mkstemps(\"$/d/c-tmp.nosync.XXXXXX.rtf\") failed"),
         "g", file, "b", noEntry, 0, root ? capable : true},
        {"no right to the folder", System(root ? EPERM : EACCES, "mkdtemp(\"$/d/p-tmp.nosync.XXXXXX\") failed"), "g",
         folder + "/", "b", noEntry, 0, root ? capable : true},
        {"immutable and read-only",
         System(EPERM, "Failed to make \"$/d/sealed\" writable before moving it out of the way"), "g", sealed, "b",
         flags(sealed, FS_IMMUTABLE_FL), 1, capable},
        {"immutable", System(EPERM, aside + "$/d/c.rtf\" -> \"$/d/c-tmp.nosync.*.rtf\")"), "g.txt", file, "b",
         flags(file, FS_IMMUTABLE_FL), 0, capable},
        {"append-only", System(EPERM, aside + "$/d/p\" -> \"$/d/p-tmp.nosync.*\")"), "g", folder, "b",
         flags(folder, FS_APPEND_FL), 1, capable},
        {"a link to a folder", System(EISDIR, aside + "$/d/link\" -> \"$/d/link-tmp.nosync.*\")"), "g", d + "/link",
         nullptr,
         [&](bool on) {
             if (!on) {
                 EXPECT_EQ(disk::Mode(sealed), 0755U);
                 chmod(sealed.c_str(), 0555);
             }
         },
         1},
        {"a file under a folder's path",
         System(ENOTDIR, "Failed to rename file from staging (\"$/.vaultry_staging/*/staged\" -> \"$/d/p/\")"), "g",
         folder + "/", "b", nothing, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        if (!row.possible) continue;
        int placeholders = 0;
        const Snapshot before = Documents(&placeholders);
        row.hinder(true);
        const Outcome outcome = Try(Restore(row.name, row.document, row.backup));
        ExpectSays(outcome, row.says, "");
        row.hinder(false);
        EXPECT_TRUE(Same(before, Documents(&placeholders)));
        EXPECT_EQ(placeholders, row.placeholders);
        ExpectStoreAsItWas(generations);
        for (const auto &name : disk::List(d))
            if (name.find(kMark) != std::string::npos) remove((d + "/" + name).c_str());
    }
    const Outcome outcome = Try(Restore("g", fits, "b"));
    EXPECT_TRUE(outcome.succeeded) << "1,005 bytes: " << outcome.message;
    EXPECT_EQ(disk::List(deep).size(), 2U);
}

// Calls that fail one by one, and allocations. What the document's folder holds then follows from the message.
TEST_P(LibraryRestore, AnyFailureLeavesTheDocumentWhole)
{
    ASSERT_TRUE(Keep("g.txt", false) && Keep("f", true));
    Calls calls;
    for (const Calls &more : {kRename, kMode, kFlags, kMakeDirectory, kRemove, Calls{{SYS_openat}}})
        calls.numbers.insert(calls.numbers.end(), more.numbers.begin(), more.numbers.end());
    for (const bool folder : {false, true}) {
        const std::string name = folder ? "f" : "g.txt";
        const auto round = [&](const Fault &fault, std::string *) {
            const std::string document = Make("c.txt", folder, folder ? 0555 : 0640);
            disk::SetFlags(document, FS_NODUMP_FL);
            int placeholders = 0, expected = 0;
            const Snapshot before = Documents(&placeholders);
            const Outcome outcome = Try(Restore(name, document, "backup"), fault);
            SCOPED_TRACE(outcome.message);
            const auto says = [&](const char *text) { return outcome.message.find(text) != std::string::npos; };
            // A generation whose options can't be stored stays, a backup too.
            std::vector<std::string> generations = {"f", "g.txt"};
            if (says("generation root at \"$/backup\"")) generations.push_back("backup");
            if (!outcome.succeeded) ExpectStoreAsItWas(generations);
            if ((folder && says("Failed to rename old")) || says("make restore permissions")) {
                EXPECT_EQ(disk::Mode(document), 0755U);
                chmod(document.c_str(), 0555);
            }
            if ((folder && says("Failed to rename old")) || says("writable before moving") || says("create file URL"))
                expected = 1;
            const bool removing = says("Failed to remove \"$/d/") || (says("delet") && says("$/d/"));
            const Snapshot after = Documents(&placeholders);
            if (outcome.succeeded || (removing && folder)) { // no way back over a folder that isn't empty
                EXPECT_TRUE(Same(Snapshot::Of(Source(folder), Snapshot::kContents),
                                 Snapshot::Of(document, Snapshot::kContents)));
                EXPECT_EQ(placeholders > 0, !outcome.succeeded);
            } else if (outcome.hasError) {
                EXPECT_TRUE(Same(before, after));
                EXPECT_EQ(placeholders, expected);
            }
            EXPECT_TRUE(TQClientManagedStorageRemoveGenerations(store.handle(), Names({"backup"}).get(), nullptr));
            chmod(store.root().c_str(), 0555); // a fault may have struck its protection
            EXPECT_EQ(system(("chmod -R u+w '" + d + "'; rm -rf '" + d + "'/* '" + store.Staging() + "'/*").c_str()),
                      0);
            return outcome;
        };
        const auto sweep = Sweep([&](int nth) { return FailCall(nth, EIO, calls); }, round);
        const std::string aside = folder ? "$/d/c.txt-tmp.nosync.*" : "$/d/c-tmp.nosync.*.txt";
        std::vector<std::string> messages = {
            "Failed to rename old file to temp path (\"$/d/c.txt\" -> \"" + aside + "\")",
            "Failed to rename file from staging (\"$/.vaultry_staging/*/staged\" -> \"$/d/c.txt\")",
            "failed to set final mode on \"$/d/c.txt\"",
            "failed to set final flags on \"$/d/c.txt\"",
            "Failed to remove \"" + aside + "\"",
        };
        if (folder)
            messages.insert(messages.end(), {"mkdtemp(\"$/d/c.txt-tmp.nosync.XXXXXX\") failed",
                                             "Failed to make \"$/d/c.txt\" writable before moving it out of the way",
                                             "Failed to make restore permissions to \"" + aside + "\""});
        else
            messages.push_back("mkstemps(\"$/d/c-tmp.nosync.XXXXXX.txt\") failed");
        ExpectReported(sweep, EIO, messages);
        if (folder || !kCanFailAllocations) continue;
        const auto starved = Sweep(FailAllocation, round);
        EXPECT_EQ(starved.count("3 Failed to create file URL for path \"$/d/c.txt\""), 1U);
    }
}

class RestoreAcrossVolumes : public OnEachVolume {};
INSTANTIATE_ON_EACH_VOLUME(RestoreAcrossVolumes);

TEST_P(RestoreAcrossVolumes, APackageIsCopiedWithAllItHas)
{
    const TempDirectory home;
    const std::string here = directory().path(), part = directory() / "part";
    // What a rename won't cross although it is the same file system.
    const auto bind = [&] {
        const std::string bound = disk::MakeDirectory(directory() / "bound");
        return mount(bound.c_str(), disk::MakeDirectory(part).c_str(), nullptr, MS_BIND, nullptr);
    };
    ASSERT_EQ(Is("btrfs") ? system(("btrfs -q subvolume create " + part).c_str()) : bind(), 0);
    for (const auto &[storeVolume, documentVolume] :
         {std::pair(here, home.path()), {home.path(), here}, {here, part}}) {
        const Restoring at(TestStore::Document::Package, storeVolume, documentVolume);
        ASSERT_TRUE(at.Keep("p.new", true));
        const std::string document = at.Make("p.old", true, disk::Mode(at.Source(true)));
        const Outcome outcome = at.Try(at.Restore("p.new", document, "backup"));
        EXPECT_TRUE(outcome.succeeded) << outcome.message;
        EXPECT_TRUE(Same(Snapshot::Of(at.Source(true)), Snapshot::Of(at.d + "/p.new")));
        EXPECT_THAT(disk::List(at.d), testing::ElementsAre("p.new"));
        at.ExpectStoreAsItWas({"p.new", "backup"});
        // The birth time goes to the document's path, where nothing is any more.
        std::string log;
        for (const auto &line : outcome.log) log += std::to_string(line.level) + line.text;
        EXPECT_THAT(log, testing::ContainsRegex("7[^\n]* setmetavec failed \\(errno [0-9]+\\) for \\$/d/p.old "));
    }
    if (!Is("btrfs")) umount(part.c_str());
}

TEST(RestoreOntoAVolume, ThatIsFullOrReadOnly)
{
    if (VolumeOfType("tmpfs").path.empty()) GTEST_SKIP() << VolumeOfType("tmpfs").whyNot;
    const TempDirectory home(VolumeOfType("tmpfs").path);
    const std::string small = disk::MakeDirectory(home / "small");
    ASSERT_EQ(mount("vaultry", small.c_str(), "tmpfs", 0, "size=256k"), 0);
    {
        const Restoring at(TestStore::Document::Folder, "", small);
        disk::Write(at.store / "file", std::string(1 << 20, 'x'));
        ASSERT_TRUE(at.Keep("g.txt", false));
        const std::string document = at.Make("c.rtf", false, 0640);
        const Snapshot before = Snapshot::Of(document);
        ExpectSays(at.Try(at.Restore("g.txt", document, "b")),
                   System(ENOSPC, "duplix from \"$/.vaultry_staging/*/staged\" to \"$/d/c.txt\" failed"), "");
        EXPECT_TRUE(Same(before, Snapshot::Of(document)));
        at.ExpectStoreAsItWas({"g.txt"});
        EXPECT_THAT(disk::List(at.d), testing::ElementsAre("c.rtf", "c.txt")) << "what was copied so far stays";
        unlink((at.d + "/c.txt").c_str());
        ASSERT_EQ(mount(nullptr, small.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
        ExpectSays(at.Try(at.Restore("g.txt", document, "b")),
                   System(EROFS, "mkstemps(\"$/d/c-tmp.nosync.XXXXXX.rtf\") failed"), "");
        EXPECT_TRUE(Same(before, Snapshot::Of(document)));
        at.ExpectStoreAsItWas({"g.txt"});
        ASSERT_EQ(mount(nullptr, small.c_str(), nullptr, MS_REMOUNT, nullptr), 0);
    }
    EXPECT_EQ(umount(small.c_str()), 0);
}

} // namespace
