// Every operation of the library under every fault: each system call made to fail, the process killed there, each
// allocation refused. Whatever happens, nobody loses a document and the next operation works.

#include "Runtime/Values.h"
#include "faults/Sweep.h"

namespace {

constexpr auto kFolder = TestStore::Document::Folder;
using Store = const TQClientManagedStorage *;
using Messages = std::vector<std::string>;

const std::string kStaged = "$/store/.vaultry_staging/*/staged";

// On the store's handle.
template <class Call> auto On(const Call &call)
{
    return [call](Scene &scene, TQError **why) { return call(scene.store.handle(), why); };
}

// Reads with `copy`, and tells what it gave.
template <class Copy> auto Read(const Copy &copy)
{
    return [copy](Scene &scene, TQError **why) {
        const Value value = Own(copy(scene.store.handle(), why));
        Answer([&] { return value ? Plain(Describe(value.get()), scene.store.path()) : "nothing"; });
        return static_cast<bool>(value);
    };
}

auto Add(bool copy)
{
    return [copy](Scene &scene, TQError **why) {
        return TQClientManagedStorageAdd(scene.store.handle(), "g", scene.document.c_str(), 6, why, copy);
    };
}

bool CopyOut(Scene &scene, TQError **why)
{
    return TQClientManagedStorageCopyGeneration(scene.store.handle(), "kept", scene.out.c_str(), why);
}

auto Restore(const char *generation, const char *backup = nullptr)
{
    return [name = String(generation), kept = backup ? String(backup) : nullptr](Scene &scene, TQError **why) {
        const auto document = FileURL(scene.document.c_str());
        return TQLibraryRestoreGeneration(scene.library.get(), name.get(), document.get(), kept.get(), why);
    };
}

class FaultsWhile : public AsEach {
protected:
    void Sweep(const std::vector<Swept> &operations) const
    {
        for (const auto &swept : operations) {
            SCOPED_TRACE(swept.name);
            Sweeper(swept, GetParam()).Walk();
        }
    }
    const bool lifts = GetParam() == As::Capable; // root lifts nothing, so that its own flags would stop it
};
INSTANTIATE_AS_EACH(FaultsWhile);

TEST_P(FaultsWhile, AddingByCopying)
{
    const std::string root = "store at \"$/store\", ",
                      stays = Swept().stays + "|generation root|setxattr\\(\".*/store/g\"\\)";
    Sweep(
        {{.name = "a file", .run = Add(true), .subject = "g", .unfinished = "/store/g", .stays = stays},
         {.name = "a folder",
          .kind = kFolder,
          .run = Add(true),
          .subject = "g",
          .unfinished = "/store/g",
          .stays = stays,
          .says = {"Failed to open generation path \"$/store/.vaultry_lockfile\" for locking",
                   "Failed to lock generation path \"$/store/.vaultry_lockfile\"",
                   "mkdtemp(\"$/store/.vaultry_staging/XXXXXXX\") failed",
                   "failed to save original permissions for \"" + kStaged + "/twin\"",
                   "failed to set archived permissions for \"" + kStaged + "/twin\"", "failed to stat path " + kStaged,
                   "Failed to make staged item at path \"" + kStaged + "\" writable before rename",
                   "failed to unprotect " + root + "stat failed", "failed to unprotect " + root + "chomd(0755) failed",
                   "Failed to install generation; rename (\"" + kStaged + "\" -> \"$/store/g\") failed",
                   "failed to make directory non-writable after moving",
                   "Failed to set flags on item at path \"$/store/g\"", "setxattr(\"$/store/g\") failed",
                   "Failed to flush \"" + kStaged + "\" to disk", "Failed to flush \"$/store/g\" to disk",
                   "Failed to flush \"$/store\" to disk", "3 failed to protect " + root + "stat failed",
                   "3 failed to protect " + root + "chomd(0555) failed"}}});
}

TEST_P(FaultsWhile, AddingByMoving)
{
    const std::string &s = kStaged, stays = Swept().stays + "|generation root|setxattr\\(\".*/store/g\"\\)";
    Sweep({{.name = "a file", .run = Add(false), .subject = "g", .unfinished = "/store/g|/document", .stays = stays},
           {.name = "a folder",
            .kind = kFolder,
            .run = Add(false),
            .subject = "g",
            .unfinished = "/store/g|/document.*|/outside",
            .stays = stays,
            .says = {"rename(\"$/document\", \"" + s + "\") failed", "fts_read() failed for path '" + s + "'\n",
                     "failed to open generation item \"" + s + "/folder\"", "Failed to flush \"$\" to disk",
                     "failed to make temp file at \"" + s + "/twin_XXXXXX\"",
                     "failed open source file at \"" + s + "/twin\"",
                     "duplix (\"" + s + "/twin\" -> \"" + s + "/twin_*\") failed",
                     "rename (\"" + s + "/twin_*\" -> \"" + s + "/twin\") failed", "user: stat(\"$/document\") failed",
                     "user: failed to make parent path \"" + s + "/folder\" writable",
                     "cap: Failed to make staged item (\"$/document\") writable before rename",
                     "cap: failed to make directory (\"" + s + "\") non-writable after moving",
                     "cap: Failed to set flags on item at path \"" + s + "\"",
                     "cap: failed to make path \"" + s + "\" writable",
                     "cap: failed to make parent path \"" + s + "/flagged\" writable",
                     "cap: 3 failed to restore parent path \"" + s + "/folder\" mode",
                     "cap: 3 failed to restore parent path \"" + s + "/flagged\" flags"}}});
}

TEST_P(FaultsWhile, CopyingOut)
{
    const auto flag = [this](Scene &scene) {
        const std::string kept = scene.store.Generation("kept");
        if (lifts) disk::SetFlags(kept + "/twin", FS_IMMUTABLE_FL);
        chmod(kept.c_str(), 0755);
        disk::SetAttribute(kept, "com.corvane.vaultry.orig_perms_v1", lifts ? "\5" : "\4"); // was it immutable?
        chmod(kept.c_str(), 0555);
        disk::SetFlags(kept, FS_NODUMP_FL);
    };
    Sweep({{.name = "a file", .run = CopyOut, .unfinished = "/out"},
           {.name = "a folder",
            .kind = kFolder,
            .prepare = flag,
            .run = CopyOut,
            .unfinished = "/out.*",
            .says = {"Failed to retrieve original perms from xattr on item \"$/out/twin\"",
                     "Failed to temporarily make \"$/out/twin\" writable", "chmod($/out/twin, 0664) failed",
                     "stat(\"$/out\") failed", "failed to set final mode on \"$/out\"",
                     "failed to set final flags on \"$/out\"",
                     "3 chmod on path \"$/out\" returned error 5 (Input/output error)",
                     "cap: Failed to temporarily unset UF_IMMUTABLE for \"$/out/twin\"", "cap: chflags($/out) failed",
                     "cap: 3 chflags on path \"$/out\" returned error 5 (Input/output error)"}}});
}

TEST_P(FaultsWhile, Restoring)
{
    // Over a document that is not the store's own.
    const auto over = [](const std::string &name, bool folder) {
        return [=](Scene &scene) { scene.WorkOn(scene.store / name, folder); };
    };
    const auto overOtherExtension = [=](Scene &scene) {
        over("d.rtf", true)(scene);
        scene.restored = scene.store / "d.txt";
        EXPECT_TRUE(scene.store.Add("g.txt", nullptr, true));
    };
    const auto overOnOtherVolume = [](Scene &scene) {
        scene.otherVolume.emplace();
        scene.WorkOn(*scene.otherVolume / "d", true);
    };
    const auto overNothing = [=](Scene &scene) {
        over("d", false)(scene);
        unlink(scene.document.c_str());
    };
    // What is left when the old document can't be removed; and a backup that can't be finished.
    const std::string stays = "(fts_|remove).*nosync|nosync.*deletable|xattr|generation root|flush .*/store";
    const std::string moved = "Failed to rename file from staging (\"" + kStaged + "\" -> \"$/d\")";
    Sweep({{.name = "a file",
            .prepare = over("d", false),
            .run = Restore("kept"),
            .unfinished = "/d.*",
            .stays = stays,
            .says = {"mkstemps(\"$/d-tmp.nosync.XXXXXX\") failed",
                     "Failed to rename old file to temp path (\"$/d\" -> \"$/d-tmp.nosync.*\")", moved,
                     "failed to set final mode on \"$/d\"", "failed to set final flags on \"$/d\"",
                     "Failed to flush \"" + kStaged + "\" to disk", "Failed to flush \"$\" to disk",
                     "Failed to remove \"$/d-tmp.nosync.*\""}},
           {.name = "a folder, with a backup",
            .kind = kFolder,
            .prepare = over("d", true),
            .run = Restore("kept", "backup"),
            .subject = "backup",
            .unfinished = "/d(-tmp.*|/.*)?|/store/backup",
            .stays = stays,
            .says = {"mkdtemp(\"$/d-tmp.nosync.XXXXXX\") failed",
                     "Failed to make \"$/d\" writable before moving it out of the way", moved,
                     "Failed to make restore permissions to \"$/d-tmp.nosync.*\"",
                     "Failed to remove \"$/d-tmp.nosync.*\""}},
           {.name = "a file over a folder, with its extension",
            .prepare = overOtherExtension,
            .run = Restore("g.txt", "backup"),
            .subject = "backup",
            .unfinished = "/d.*|/store/backup",
            .stays = stays},
           {.name = "a folder across volumes",
            .kind = kFolder,
            .prepare = overOnOtherVolume,
            .run = Restore("kept"),
            .unfinished = "/other volume.*",
            .stays = stays,
            .says = {"duplix from \"" + kStaged + "\" to \"$/d\" failed"}},
           {.name = "where there is no document", .prepare = overNothing, .run = Restore("kept"), .unfinished = "/d"}});
}

TEST_P(FaultsWhile, ReadingMetadata)
{
    const auto kept = String("kept"), key = String("key");
    const Value spec = Dictionary({{Text("clients"), Array({Text("com.corvane.nimbusync")})},
                                   {Text("fields"), Dictionary({{Text("options"), Truth(true)}})},
                                   {Text("withOptions"), Number(4)}});
    const auto options = [](Scene &scene, TQError **why) {
        const uint64_t found = TQClientManagedStorageGetGenerationOptions(scene.store.handle(), "kept", why);
        Answer([=] { return std::to_string(found); });
        return !why || !*why;
    };
    // A list ends where it can't be read on, and a word that can't be read is 0.
    Sweep(
        {{.name = "options", .run = options, .lesser = "0"},
         {.name = "info", .run = Read([](Store store, TQError **why) {
                              return TQClientManagedStorageCopyGenerationInfoDictionary(store, "kept", why);
                          })},
         {.name = "one value", .run = Read([=](Store store, TQError **why) {
                                   return TQClientManagedStorageCopyGenerationInfoValueForKey(store, "kept", key.get(),
                                                                                              why);
                               })},
         {.name = "display name", .run = Read([](Store store, TQError **why) {
                                      return TQClientManagedStorageCopyGenerationOriginalDisplayName(store, "kept",
                                                                                                     why);
                                  })},
         {.name = "URL", .run = Read([](Store store, TQError **why) {
                             return TQClientManagedStorageCopyURLForGeneration(store, "kept", why);
                         })},
         {.name = "names",
          .run = Read([](Store store, TQError **why) { return TQClientManagedStorageCopyGenerationNames(store, why); }),
          .lesser = "\\[\\]"},
         {.name = "query of one",
          .run = Read([=](Store store, TQError **why) {
              return TQClientManagedStorageCopyGenerationInfos(store, kept.get(), nullptr, why);
          }),
          .lesser = ".*\"options\": 0.*"},
         {.name = "query of all",
          .run = Read([](Store store, TQError **why) {
              return TQClientManagedStorageCopyAllGenerationsInfos(store, nullptr, why);
          }),
          .lesser = "\\{\\}"},
         {.name = "query with a spec",
          .run = Read([=](Store store, TQError **why) {
              return TQClientManagedStorageCopyAllGenerationsInfos(store, Cast{spec}, why);
          }),
          .lesser = "\\{\\}"}});
}

TEST_P(FaultsWhile, SettingMetadata)
{
    const auto key = String("key"), text = String("new");
    const auto flag = [this](Scene &scene) {
        disk::SetFlags(scene.store.Generation("kept"), lifts ? FS_IMMUTABLE_FL : 0);
    };
    const auto set = [&](const char *name, const auto &call, bool silent = false) {
        const std::string root = "generation root at \"$/store/kept\"",
                          remove = std::string(name) == "no options" ? "remove" : "set";
        return Swept{.name = name,
                     .kind = kFolder,
                     .prepare = flag,
                     .run = On(call),
                     .subject = "kept",
                     .unfinished = "/store/kept",
                     .silent = silent,
                     .says = silent
                                 ? Messages{}
                                 : Messages{remove + "xattr(\"$/store/kept\") failed",
                                            "Failed to flush \"$/store/kept\" to disk", "user: Failed to stat " + root,
                                            "user: Failed to make " + root + " writable",
                                            "user: 3 Failed to revert permissions on " + root,
                                            "cap: Failed to remove UF_IMMUTABLE from " + root,
                                            "cap: 3 Failed to revert flags on " + root}};
    };
    Sweep({set("options",
               [](Store store, TQError **why) {
                   return TQClientManagedStorageSetGenerationOptions(store, "kept", 16, why);
               }),
           set("no options",
               [](Store store, TQError **why) {
                   return TQClientManagedStorageSetGenerationOptions(store, "kept", 1, why);
               }),
           set(
               "one value",
               [=](Store store, TQError **why) {
                   return TQClientManagedStorageSetGenerationInfoValueForKey(store, "kept", key.get(), text.get(), why);
               },
               /*silent=*/true),
           set("display name", [=](Store store, TQError **why) {
               return TQClientManagedStorageSetGenerationOriginalDisplayName(store, "kept", text.get(), why);
           })});
}

TEST_P(FaultsWhile, Removing)
{
    const auto flag = [](Scene &scene) { disk::SetFlags(scene.store.Generation("kept"), FS_IMMUTABLE_FL); };
    Sweep({{.name = "a folder",
            .kind = kFolder,
            .prepare = flag,
            .run = On([names = Names({"none", "kept"})](Store store, TQError **why) {
                return TQClientManagedStorageRemoveGenerations(store, names.get(), why);
            }),
            .subject = "kept",
            .unfinished = "/store/kept",
            .says = {"failed to stat source path $/store/kept",
                     "failed to make directory writable prior to moving; path: $/store/kept",
                     "rename from '$/store/kept' to '" + kStaged + "' failed", "Failed to flush \"$/store\" to disk",
                     "mkdtemp(\"$/store/.vaultry_staging/XXXXXXX\") failed",
                     "cap: failed to remove UF_IMMUTABLE on path $/store/kept"}}});
}

TEST_P(FaultsWhile, CreatingAndDestroying)
{
    // What is half made or half removed is made or removed by the next call.
    const auto create = [](Scene &scene, TQError **why) {
        const auto directory = FileURL(scene.out.c_str());
        return bool(Ref<TQLibrary>::Adopt(TQLibraryCreateClientManaged(nullptr, directory.get(), why)));
    };
    const auto createAgain = [=](Scene &scene) {
        EXPECT_TRUE(create(scene, nullptr));
        EXPECT_EQ(disk::Mode(scene.out), 0555U);
        EXPECT_THAT(disk::List(scene.out), testing::ElementsAre(".vaultry_lockfile", ".vaultry_staging"));
    };
    const auto destroy = [](Scene &scene, TQError **why) {
        const auto store = FileURL(scene.store.root().c_str());
        return TQLibraryDestroyClientManaged(store.get(), why);
    };
    Sweep({{.name = "creating",
            .prepare = [](Scene &scene) { disk::MakeDirectory(scene.out); },
            .run = create,
            .unfinished = "/out.*",
            .stays = ".*",
            .then = createAgain},
           {.name = "destroying",
            .kind = kFolder,
            .run = destroy,
            .unfinished = "/store.*",
            .stays = ".*",
            .then = [=](Scene &scene) { EXPECT_TRUE(destroy(scene, nullptr)); },
            .says = {"Failed to make \"$/store\" deletable", "Failed to remove \"$/store\"",
                     "Failed to remove \"$/store/kept/twin\"", "fts_read() failed for path '$/store'\n"}}});
}

} // namespace
