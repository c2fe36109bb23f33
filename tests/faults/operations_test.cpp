// Every operation of the library under every fault: each system call fails, the process is killed there, each
// allocation is refused. Whatever happens, nobody loses a document and the next operation works. The messages of
// failing calls are in messages.txt.

#include "Runtime/Values.h"
#include "Shared/vaultry_storage.h"
#include "faults/Sweep.h"

namespace {

constexpr auto kFile = TestStore::Document::File, kFolder = TestStore::Document::Folder;
using Store = const TQClientManagedStorage *;

// A function that runs `expression` on `scene` and its `store`, with `why` for the error.
#define DO(expression)                                                                                                 \
    [=](Scene &scene, TQError **why) -> bool {                                                                         \
        [[maybe_unused]] const Store store = scene.store.handle();                                                     \
        return static_cast<bool>(expression);                                                                          \
    }

// Ends a read: hands the test the value that was read.
bool Told(const Scene &scene, const Value &value)
{
    Answer([&] { return value ? Plain(Describe(value.get()), scene.store.path()) : "nothing"; });
    return static_cast<bool>(value);
}
bool Told(uint64_t value, TQError **why)
{
    Answer([&] { return std::to_string(value); });
    return !why || !*why;
}

// A clone that lacks something counts as none.
bool Clone(const Scene &scene, Store store, TQError **why)
{
    const Value report = Own(TQClientManagedStorageCopyStore(store, scene.out.c_str(), why));
    if (!report) return false;
    const auto key = String("failures"), reason = String("error");
    const auto *failures = static_cast<TQArray *>(TQDictionaryGetValue(Cast{report}, key.get()));
    if (TQArrayGetCount(failures) == 0) return true;
    const auto *first = static_cast<TQDictionary *>(TQArrayGetValueAtIndex(failures, 0));
    if (why) *why = static_cast<TQError *>(TQRetain(TQDictionaryGetValue(first, reason.get())));
    EXPECT_TRUE(TQClientManagedStorageDestroy(scene.out.c_str(), nullptr));
    return false;
}

class FaultsWhile : public AsEach {
protected:
    void Sweep(const Swept &operation) const
    {
        SCOPED_TRACE(operation.name);
        Sweeper(operation, GetParam()).Walk();
    }
    static void AddLink(Scene &scene)
    {
        const std::string folder = scene.document;
        const int flags = disk::Flags(folder);
        disk::SetFlags(folder, 0);
        chmod(folder.c_str(), 0755);
        EXPECT_EQ(symlink("nowhere", (folder + "/symlink").c_str()), 0);
        chmod(folder.c_str(), 0555);
        disk::SetFlags(folder, flags);
        scene.store.RememberDocument();
    }
    // Only for a user with the capability: root lifts no flags, so a flag would stop root.
    void SetFlags(const std::string &path) const
    {
        disk::SetFlags(path, GetParam() == As::Capable ? FS_IMMUTABLE_FL : 0);
    }
};
INSTANTIATE_AS(FaultsWhile, WhoIAm()); // a sweep is long, and the suite runs as each of the three

TEST_P(FaultsWhile, Adding)
{
    for (const bool copy : {true, false})
        for (const auto kind : {kFile, kFolder})
            Sweep({.name = std::string("add a ") + (kind == kFile ? "file" : "folder") +
                           (copy ? " by copying" : " by moving"),
                   .kind = kind,
                   .run = DO(TQClientManagedStorageAdd(store, "g", scene.document.c_str(), 6, why, copy)),
                   .subject = "g",
                   .unfinished = copy ? "" : "/document.*|/outside",
                   .table = copy ? "" : "A move"});
    const auto base = String("kept");
    const Value info = Dictionary({{Text("key"), Text("value")}});
    const TQAddRequest move{.size = sizeof move,
                            .flags = kTQAddByMoving,
                            .options = 6,
                            .base = nullptr,
                            .info = Cast{info},
                            .sizeKey = base.get()};
    Sweep({.name = "add a file by moving, with values",
           .run = DO(TQClientManagedStorageAddWithFlags(store, "g", scene.document.c_str(), &move, why)),
           .subject = "g",
           .unfinished = "/document.*",
           .table = "A move"});
    ExpectEveryRowMet("A move");

    // Two of the files are those of "kept".
    const TQAddRequest request{.size = sizeof request,
                               .flags = kTQAddKeepLinks,
                               .options = 6,
                               .base = base.get(),
                               .info = Cast{info},
                               .sizeKey = base.get()};
    Sweep({.name = "add a folder that shares its files",
           .kind = kFolder,
           .prepare = AddLink,
           .run = DO(TQClientManagedStorageAddWithFlags(store, "g", scene.document.c_str(), &request, why)),
           .subject = "g"});
}

TEST_P(FaultsWhile, CopyingOut)
{
    const auto withFlags = [this](Scene &scene) {
        const std::string kept = scene.store.Generation("kept");
        SetFlags(kept + "/twin");
        chmod(kept.c_str(), 0755);
        const char *wasImmutable = GetParam() == As::Capable ? "\5" : "\4";
        disk::SetAttribute(kept, kSavedPermissionsAttribute, wasImmutable);
        chmod(kept.c_str(), 0555);
        disk::SetFlags(kept, FS_NODUMP_FL);
    };
    const auto copyOut = DO(TQClientManagedStorageCopyGeneration(store, "kept", scene.out.c_str(), why));
    Sweep({.name = "copy out a file", .run = copyOut, .unfinished = "/out"});
    Sweep({.name = "copy out an item",
           .kind = kFolder,
           .run = DO(TQClientManagedStorageCopyGenerationItem(store, "kept", "folder", scene.out.c_str(), why)),
           .unfinished = "/out.*"});
    Sweep({.name = "copy out a folder", .kind = kFolder, .prepare = withFlags, .run = copyOut, .unfinished = "/out.*"});
}

TEST_P(FaultsWhile, Cloning)
{
    const auto base = String("kept");
    const TQAddRequest sharing{
        .size = sizeof sharing, .flags = 0, .options = 6, .base = base.get(), .info = nullptr, .sizeKey = nullptr};
    const auto add = DO(TQClientManagedStorageAddWithFlags(store, "sharer", scene.document.c_str(), &sharing, why));
    Sweep({.name = "clone a store",
           .kind = kFolder,
           .prepare = [=](Scene &scene) { EXPECT_TRUE(add(scene, nullptr)); },
           .run = DO(Clone(scene, store, why)),
           .unfinished = "/out.*|/\\.vaultry_clone.*"});
}

TEST_P(FaultsWhile, Restoring)
{
    // Restores over a document of its own, not the one that the store was made with.
    const auto over = [](const std::string &name, bool folder) {
        return [=](Scene &scene) { scene.WorkOn(scene.store / name, folder); };
    };
    const auto otherExtension = [=](Scene &scene) {
        over("d.rtf", true)(scene);
        scene.restored = scene.store / "d.txt";
        EXPECT_TRUE(scene.store.Add("kept.txt", nullptr, true));
    };
    const auto onOtherVolume = [](Scene &scene) {
        scene.otherVolume.emplace();
        scene.WorkOn(*scene.otherVolume / "d", true);
    };
    const auto onNothing = [=](Scene &scene) {
        over("d", false)(scene);
        unlink(scene.document.c_str());
    };
    const auto restore = [](const char *generation, const char *backup) {
        const auto name = String(generation), kept = backup ? String(backup) : nullptr;
        return DO(TQLibraryRestoreGeneration(scene.library.get(), name.get(), FileURL(scene.document).get(), kept.get(),
                                             why));
    };
    const struct {
        const char *name;
        TestStore::Document kind;
        std::function<void(Scene &)> prepare;
        const char *generation, *backup, *unfinished;
        int step = 1;
    } rows[] = {
        {"restore a file", kFile, over("d", false), "kept", nullptr, "/d.*"},
        {"restore a folder, with a backup", kFolder, over("d", true), "kept", "backup", "/d(-tmp.*|/.*)?"},
        {"restore with another extension", kFile, otherExtension, "kept.txt", "backup", "/d\\..*"},
        {"restore a folder across volumes", kFolder, onOtherVolume, "kept", nullptr, "/other volume.*",
         5}, // a disk is slow
        {"restore where nothing is", kFile, onNothing, "kept", nullptr, "/d"},
    };
    // `unfinished` covers the rest of an old document that can't be removed, and a backup that can't be finished.
    for (const auto &row : rows)
        Sweep({.name = row.name,
               .kind = row.kind,
               .prepare = row.prepare,
               .run = restore(row.generation, row.backup),
               .subject = row.backup ? row.backup : "",
               .unfinished = row.unfinished,
               .stays = "(fts_|remove).*nosync|nosync.*deletable|xattr|generation root|flush .*/store",
               .step = row.step,
               .table = row.prepare.target_type() == typeid(onNothing) ? "" : "A restore"});
    ExpectEveryRowMet("A restore");

    // One item of a folder, which is kept as a whole first.
    const auto name = String("kept"), backup = String("backup");
    std::string folder;
    for (const char *what : {"twin", "folder/leaf"}) {
        TQRestoreRequest asked{};
        asked.size = sizeof asked;
        asked.backupName = backup.get();
        asked.item = what;
        const bool isMissing = strchr(what, '/') != nullptr; // and the folder that it is in
        Sweep({.name = std::string("restore the item ") + what,
               .kind = kFolder,
               .prepare =
                   [=, &folder](Scene &scene) {
                       folder = disk::MakeDirectory(scene.store / "d");
                       disk::Write(folder + "/other", "now");
                       scene.document = scene.restored = folder + "/" + what;
                       if (!isMissing) scene.WorkOn(scene.document, false);
                       scene.store.Remember(folder, "backup");
                   },
               .run =
                   [=, &folder](Scene &scene, TQError **why) {
                       return TQLibraryRestoreGenerationWithFlags(scene.library.get(), name.get(),
                                                                  FileURL(folder).get(), &asked, why);
                   },
               .subject = "backup",
               .unfinished = isMissing ? "/d(/folder.*)?" : "/d(/twin.*)?",
               .stays = "(fts_|remove).*nosync|nosync.*deletable|xattr|generation root|flush .*/store",
               .table = isMissing ? "" : "A restore"});
    }
}

TEST_P(FaultsWhile, Reading)
{
    const auto kept = String("kept"), key = String("key");
    const Value spec = Dictionary({{Text("clients"), Array({Text("com.corvane.nimbusync")})},
                                   {Text("fields"), Dictionary({{Text("options"), Truth(true)}})},
                                   {Text("withOptions"), Number(4)}});
#define READ(expression) DO(Told(scene, Own(expression)))
    const auto read = [this](const char *name, const auto &run, const char *lesser = "the whole") {
        Sweep({.name = name, .run = run, .lesser = lesser});
    };
    // A list ends where reading fails, and an options word that can't be read is 0.
    read("read the options", DO(Told(TQClientManagedStorageGetGenerationOptions(store, "kept", why), why)), "0");
    read("read the info", READ(TQClientManagedStorageCopyGenerationInfoDictionary(store, "kept", why)));
    read("read one value", READ(TQClientManagedStorageCopyGenerationInfoValueForKey(store, "kept", key.get(), why)));
    read("read the display name", READ(TQClientManagedStorageCopyGenerationOriginalDisplayName(store, "kept", why)));
    read("read the URL", READ(TQClientManagedStorageCopyURLForGeneration(store, "kept", why)));
    read("list the names", READ(TQClientManagedStorageCopyGenerationNames(store, why)), "\\[\\]");
    read("query one", READ(TQClientManagedStorageCopyGenerationInfos(store, kept.get(), nullptr, why)),
         ".*\"options\": 0.*");
    read("query all", READ(TQClientManagedStorageCopyAllGenerationsInfos(store, nullptr, why)), "\\{\\}");
    read("query some", READ(TQClientManagedStorageCopyAllGenerationsInfos(store, Cast{spec}, why)), "\\{\\}");
}

TEST_P(FaultsWhile, Setting)
{
    const auto key = String("key"), text = String("new");
    const Value values = Dictionary({{Text("key"), Text("new")}, {Text("other"), Text("too")}});
    const auto names = Names({"none", "kept"});
    const std::pair<const char *, std::function<bool(Scene &, TQError **)>> rows[] = {
        {"set the options", DO(TQClientManagedStorageSetGenerationOptions(store, "kept", 16, why))},
        {"remove the options", DO(TQClientManagedStorageSetGenerationOptions(store, "kept", 1, why))},
        {"set one value",
         DO(TQClientManagedStorageSetGenerationInfoValueForKey(store, "kept", key.get(), text.get(), why))},
        {"set several values", DO(TQClientManagedStorageSetGenerationInfoValues(store, "kept", Cast{values}, why))},
        {"set values of several",
         DO(TQClientManagedStorageSetGenerationsInfoValues(store, names.get(), Cast{values}, why))},
        {"set the display name",
         DO(TQClientManagedStorageSetGenerationOriginalDisplayName(store, "kept", text.get(), why))}};
    for (const auto &[name, run] : rows)
        Sweep({.name = name,
               .kind = kFolder,
               .prepare = [this](Scene &scene) { SetFlags(scene.store.Generation("kept")); },
               .run = run,
               .subject = "kept",
               .silent = std::string(name) == "set one value"});
}

TEST_P(FaultsWhile, CreatingRemovingAndDestroying)
{
    const auto names = Names({"none", "kept"});
    Sweep({.name = "remove a folder",
           .kind = kFolder,
           .prepare = [](Scene &scene) { disk::SetFlags(scene.store.Generation("kept"), FS_IMMUTABLE_FL); },
           .run = DO(TQClientManagedStorageRemoveGenerations(store, names.get(), why)),
           .subject = "kept"});

    const auto base = String("kept");
    const TQAddRequest sharing{
        .size = sizeof sharing, .flags = 0, .options = 6, .base = base.get(), .info = nullptr, .sizeKey = nullptr};
    Sweep({.name = "remove a folder whose files are shared",
           .kind = kFolder,
           .prepare =
               [&](Scene &scene) {
                   const std::string &document = scene.document;
                   EXPECT_TRUE(TQClientManagedStorageAddWithFlags(scene.store.handle(), "sharer", document.c_str(),
                                                                  &sharing, nullptr));
                   if (!QuickVolume().empty()) { // which can't clone
                       struct stat shared {};
                       (void)stat(scene.store.Generation("sharer/twin").c_str(), &shared);
                       EXPECT_EQ(shared.st_nlink, 2U);
                   }
               },
           .run = DO(TQClientManagedStorageRemoveGenerations(store, names.get(), why)),
           .subject = "kept"});

    // The next call completes a store that is half made or half removed.
    const auto create = DO(Ref<TQLibrary>::Adopt(TQLibraryCreateClientManaged(nullptr, FileURL(scene.out).get(), why)));
    const auto destroy = DO(TQLibraryDestroyClientManaged(FileURL(scene.store.root()).get(), why));
    Sweep({.name = "create a store",
           .prepare = [](Scene &scene) { disk::MakeDirectory(scene.out); },
           .run = create,
           .unfinished = "/out.*",
           .stays = ".*",
           .then =
               [=](Scene &scene) {
                   EXPECT_TRUE(create(scene, nullptr));
                   EXPECT_EQ(disk::Mode(scene.out), 0555U);
                   EXPECT_THAT(disk::List(scene.out), testing::ElementsAre(".vaultry_lockfile", ".vaultry_staging"));
               }});
    Sweep({.name = "destroy a store",
           .kind = kFolder,
           .run = destroy,
           .unfinished = "/store.*",
           .stays = ".*",
           .then = [=](Scene &scene) {
               // The rest can still be told for a store, unless it is only an empty folder.
               const auto left = disk::List(scene.store.root());
               EXPECT_TRUE(left.empty() || disk::Exists(scene.store.root() + "/.vaultry_lockfile"));
               EXPECT_TRUE(destroy(scene, nullptr));
           }});
}

} // namespace
