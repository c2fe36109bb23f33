// Whole stores made by somebody else: any kind of item at any place of a store, with any mode and any attributes; and
// queries by anybody. Every operation answers, leaks no descriptor, and touches nothing outside the store, except the
// places that a note names.

#include "Shared/vaultry_storage.h"
#include "fuzz/Fuzz.h"
#include "support/Identity.h"
#include "support/Store.h"

#include <vaultry/vaultry.h>

#include <fcntl.h>
#include <iterator>
#include <sstream>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

// The meaning of a fuzzer's bytes: numbers, and texts with their length in front.
struct Recipe {
    std::string_view rest;
    unsigned Number() { return static_cast<unsigned char>(Take(1)[0]); }
    std::string Text() { return Take(Number()); }
    std::string Take(size_t length)
    {
        const std::string taken(rest.substr(0, length)); // so that it ends in a zero
        rest.remove_prefix(taken.size());
        return taken;
    }
};

const std::vector<std::string> kItems = [] {
    std::istringstream words("file folder folder/in folder/deep folder/._side \xff .vaultry_lockfile .vaultry_staging "
                             ".vaultry_staging/AAAAAAA .vaultry_staging/AAAAAAA/staged .vaultry_staging/BBBBBBB .hid");
    return std::vector<std::string>(std::istream_iterator<std::string>(words), {});
}();
constexpr size_t kNote = std::size(kStoreAttributes), kMode = kNote + 1; // changes other than of an attribute

class HostileStore {
public:
    explicit HostileStore(Recipe recipe)
    {
        for (const auto &directory : {outside, outside + "/tree", home, root}) disk::MakeDirectory(directory);
        for (const char *file : {"/target", "/tree/leaf"}) disk::Write(outside + file, "not yours", 0444);
        (void)chmod((outside + "/tree").c_str(), 0555);
        disk::Write(document, "new");
        for (const size_t folder : {1U, 7U, 8U}) MakeItem(kItems[folder], 1);
        for (const size_t file : {0U, 2U, 6U}) MakeItem(kItems[file], 0);
        const mode_t rootMode = recipe.Number() % 2 == 0 ? 0555 : 0755;
        while (!recipe.rest.empty()) {
            const std::string &item = kItems[recipe.Number() % kItems.size()];
            const unsigned act = recipe.Number();
            Change(item, act, recipe.Text());
        }
        (void)chmod(root.c_str(), rootMode);
    }

    const TempDirectory place{QuickVolume()};
    const std::string root = place / "store", document = place / "document", outside = place / "outside",
                      home = place / "home";

private:
    void MakeItem(const std::string &item, unsigned kind) const
    {
        const std::string path = root + "/" + item,
                          targets[] = {outside + "/target", outside + "/tree", "nowhere", "folder", "..", root};
        (void)rename(path.c_str(), (place / "replaced " + std::to_string(kind)).c_str());
        if (kind == 0) (void)close(open(path.c_str(), O_CREAT | O_WRONLY | O_NONBLOCK | O_CLOEXEC, 0644));
        if (kind == 1) (void)mkdir(path.c_str(), 0755);
        if (kind == 2) (void)mkfifo(path.c_str(), 0644);
        if (kind > 2) (void)!symlink(targets[kind % std::size(targets)].c_str(), path.c_str());
    }
    void Change(const std::string &item, unsigned act, std::string text) const
    {
        const std::string path = root + "/" + item;
        const size_t what = act % (kMode + 3);
        if (what == kNote) text = home + "/" + text; // it may name any place, and is believed
        if (what == kNote && text.find("..") != std::string::npos) return;
        if (what == kMode)
            (void)!fchmodat(AT_FDCWD, path.c_str(), act * 73 & 07777, AT_SYMLINK_NOFOLLOW);
        else if (what > kMode)
            MakeItem(item, act / 8 % 9);
        else
            (void)lsetxattr(
                path.c_str(),
                (std::string("user.") + (what == kNote ? kMovedFromAttribute : kStoreAttributes[what])).c_str(),
                text.data(), text.size(), 0);
    }
};

// Everything that a client can ask of a generation. Most of it is refused; what succeeds must be true.
void UseGeneration(const TQClientManagedStorage *store, const char *name, const HostileStore &hostile)
{
    const auto key = String("key");
    const std::string path = hostile.root + "/" + name, out = hostile.place / "out " + name;
    char staged[1024];
    uint16_t mode = 0;
    uint32_t flags = 0;
    Require(!TQClientManagedStorageCopyGeneration(store, name, out.c_str(), nullptr) || disk::Exists(out), "a copy");
    if (TQClientManagedStorageCopyOut(store, name, staged, &mode, &flags, nullptr))
        (void)TQClientManagedStorageCopyOutDone(store, staged, nullptr);
    (void)TQClientManagedStorageSetGenerationInfoValueForKey(store, name, key.get(), key.get(), nullptr);
    (void)TQClientManagedStorageSetGenerationOriginalDisplayName(store, name, key.get(), nullptr);
    if (TQClientManagedStorageSetGenerationOptions(store, name, 6, nullptr) && access(path.c_str(), R_OK) == 0)
        Require(TQClientManagedStorageGetGenerationOptions(store, name, nullptr) == 6, "options that were stored");
}

// Uses the info of "file" as a spec. A record is the same whether the query is for one or for all.
void Query(const TQClientManagedStorage *store)
{
    OwnedError why;
    const auto spec =
        Ref<TQDictionary>::Adopt(TQClientManagedStorageCopyGenerationInfoDictionary(store, "file", nullptr));
    const auto all =
        Ref<TQDictionary>::Adopt(TQClientManagedStorageCopyAllGenerationsInfos(store, spec.get(), why.out()));
    Require(all || why.get(), "an answer or an error");
    for (const char *group : {"com.corvane.draftline", "com.corvane.nimbusync"}) {
        const auto *records = static_cast<const TQArray *>(TQDictionaryGetValue(all.get(), String(group).get()));
        for (size_t i = 0; i < TQArrayGetCount(records); ++i) {
            const auto *record = static_cast<const TQDictionary *>(TQArrayGetValueAtIndex(records, i));
            const auto *name = static_cast<const TQString *>(TQDictionaryGetValue(record, String("name").get()));
            const auto same =
                Ref<TQDictionary>::Adopt(TQClientManagedStorageCopyGenerationInfos(store, name, spec.get(), nullptr));
            Require(TQEqual(record, same.get()), "one answer to one question");
        }
    }
}

void UseStore(const HostileStore &hostile)
{
    const DeferredScope scope;
    const char *const root = hostile.root.c_str(), *const document = hostile.document.c_str();
    TQClientManagedStorage *const store = TQClientManagedStorageCreate(root, nullptr);
    (void)TQDefer(TQClientManagedStorageCopyGenerationNames(store, nullptr));
    Query(store);
    for (const char *name : {"file", "folder", "\xff"}) UseGeneration(store, name, hostile);
    if (TQClientManagedStorageAdd(store, "new", document, 0, nullptr, /*copy=*/true))
        Require(disk::Read(hostile.root + "/new") == "new", "a generation that was added");
    for (const bool repair : {false, true, false})
        (void)TQDefer(TQClientManagedStorageCopyFindings(root, repair, nullptr));
    (void)TQClientManagedStorageAdd(store, "moved", document, 0, nullptr, /*copy=*/false);
    Require(disk::Read(disk::Exists(document) ? document : hostile.root + "/moved") == "new", "a moved document");
    if (TQClientManagedStorageRemoveGenerations(store, Names({"file", "folder", "new"}).get(), nullptr))
        Require(!disk::Exists(hostile.root + "/new"), "a generation that was removed");
    TQClientManagedStorageFree(store);
    (void)TQClientManagedStorageDestroy(root, nullptr);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    Recipe recipe{{reinterpret_cast<const char *>(bytes), size}};
    const Impersonate somebody(recipe.Number() % 2 == 0 && CanBe(As::Root) ? As::Root : As::User);
    const HostileStore hostile(recipe);
    const Snapshot before = Snapshot::Of(hostile.outside, Snapshot::kUntouched);
    const size_t open = disk::List("/proc/self/fd").size();
    UseStore(hostile);
    const auto same = Same(before, Snapshot::Of(hostile.outside, Snapshot::kUntouched));
    Require(same, same.message());
    Require(disk::List("/proc/self/fd").size() == open, "a descriptor was left open");
    return 0;
}
