// See store.h.

#include "store.h"

#include "entries.h"
#include "failure.h"
#include "text.h"

#include <vaultry/archive.h>
#include <vaultry/metadata.h>
#include <vaultry/number.h>
#include <vaultry/url.h>

#include <cerrno>

CommandFailure NoStore(const std::string &path, PlaceKind kind)
{
    if (kind == PlaceKind::Damaged)
        return CommandFailure(kExitFailure, "the store " + Quoted(path) + " lacks its lock file or its staging area: " +
                                                "check --repair makes them");
    return CommandFailure(kExitFailure,
                          Quoted(path) + " is no store, and not an empty directory that could become one");
}

Store::Store(const std::string &path) : path_(path), handle_(nullptr, TQClientManagedStorageFree)
{
    Owned<TQError> error;
    handle_.reset(TQClientManagedStorageCreate(path.c_str(), error.out()));
    if (!handle_) throw CommandFailure::Library("can't open the store " + Quoted(path), error.get()).At(path);
}

// The kind of place; throws if it neither is a store nor can become one.
static PlaceKind _RequirePlace(const std::string &path)
{
    const PlaceKind kind = LookAtPlace(path);
    if (kind == PlaceKind::Damaged || kind == PlaceKind::Other) throw NoStore(path, kind).At(path);
    return kind;
}

Store Store::OpenOrMake(const std::string &path)
{
    const bool isMissing = _RequirePlace(path) == PlaceKind::Missing;
    const std::vector<std::string> made = isMissing ? MakePlace(path) : std::vector<std::string>();
    try {
        return Store(path);
    } catch (const CommandFailure &) { // such as a place in another store
        RemoveMade(made);
        throw;
    }
}

std::optional<Store> Store::OpenExisting(const std::string &path)
{
    if (_RequirePlace(path) != PlaceKind::Store) return std::nullopt;
    return Store(path);
}

Store Store::Require(const std::string &path)
{
    std::optional<Store> store = OpenExisting(path);
    if (!store) throw CommandFailure(kExitNoSuchGeneration, "there is no store at " + Quoted(path)).At(path);
    return std::move(*store);
}

std::set<std::string> Store::Names() const
{
    Owned<TQError> error;
    const Owned<TQArray> array(TQClientManagedStorageCopyGenerationNames(handle(), error.out()));
    if (!array) throw CommandFailure::Library("can't list the store " + Quoted(path_), error.get()).At(path_);
    // The library has waited for its turn, and refuses names that are not UTF-8. But it ends without an error if the
    // directory can't be read any further.
    return PeekAtNames(path_);
}

bool Store::Lacks(const std::string &name) const noexcept
{
    try {
        return !Names().contains(name);
    } catch (const std::exception &) {
        return false;
    }
}

Store Store::RequireMade(const std::string &path)
{
    std::optional<Store> store = OpenExisting(path);
    if (store) return std::move(*store);
    throw CommandFailure(kExitNoSuchGeneration, "there is no store at " + Quoted(path) +
                                                    ": mount its volume, or make one with \"vaultry init --store DIR\"")
        .At(path);
}

void Store::Remove(const std::vector<std::string> &names, bool pinnedToo) const
{
    const Owned<TQArray> array(TQArrayCreateMutable());
    for (const std::string &name : names) (void)TQArrayAppendValue(array.get(), MakeString(name).get());
    Owned<TQError> error;
    const bool areRemoved = pinnedToo ? TQClientManagedStorageRemoveGenerations(handle(), array.get(), error.out())
                                      : TQClientManagedStorageRemoveGenerationsUnless(
                                            handle(), array.get(), MakeString(kPinnedKey).get(), error.out());
    if (!areRemoved)
        throw CommandFailure::Library("can't remove " + (names.size() == 1 ? Quoted(names[0]) : "all of them") +
                                          " from the store " + Quoted(path_),
                                      error.get())
            .At(names.size() == 1 ? path_ + "/" + names[0] : path_);
}

std::string Store::PathOf(const std::string &name) const
{
    Owned<TQError> error;
    const Owned<TQURL> url(TQClientManagedStorageCopyURLForGeneration(handle(), name.c_str(), error.out()));
    const char *path = TQURLGetPath(url.get());
    if (!path)
        throw CommandFailure::Library("can't find the generation " + Quoted(name), error.get()).At(path_ + "/" + name);
    return path;
}

Owned<TQDictionary> Store::InfoDictionaryOf(const std::string &name) const
{
    Owned<TQError> error;
    Owned<TQDictionary> dictionary(
        TQClientManagedStorageCopyGenerationInfoDictionary(handle(), name.c_str(), error.out()));
    if (!dictionary)
        throw CommandFailure::Library("can't read what is known of the generation " + Quoted(name), error.get())
            .At(path_ + "/" + name);
    return dictionary;
}

GenerationInfo Store::PeekAtInfoOf(const std::string &name) const
{
    Owned<TQError> error;
    const Owned<TQDictionary> info(TQCopyMutableInfoDictionary((path_ + "/" + name).c_str(), error.out()));
    if (info) return ToGenerationInfo(info.get());
    throw CommandFailure::Library("can't read what is known of the generation " + Quoted(name), error.get())
        .At(path_ + "/" + name);
}

std::string Store::DisplayNameOf(const std::string &name) const
{
    Owned<TQError> error;
    errno = 0; // for a failure that sets none
    const Owned<TQString> displayName(
        TQClientManagedStorageCopyGenerationOriginalDisplayName(handle(), name.c_str(), error.out()));
    if (!displayName && UnderlyingErrno(error.get()) != ENODATA)
        throw CommandFailure::Library("can't read the display name of the generation " + Quoted(name), error.get())
            .At(path_ + "/" + name);
    return ToText(displayName.get());
}

bool Store::HasNotes(const std::string &name, const TQDictionary *notes) const noexcept
{
    try {
        const GenerationInfo found = PeekAtInfoOf(name), wanted = ToGenerationInfo(notes);
        return found.document == wanted.document && found.time == wanted.time;
    } catch (const std::exception &) {
        return false;
    }
}

bool Store::SetInfoOf(const std::string &name, const TQDictionary *notes, TQError **error) const
{
    return TQClientManagedStorageSetGenerationInfoValues(handle(), name.c_str(), notes, error);
}

Owned<TQDictionary> MakeNotes(const std::string &document, double time, const std::string &restored,
                              std::optional<double> restoredTime)
{
    Owned<TQDictionary> notes(TQDictionaryCreateMutable());
    const auto set = [&](const char *key, TQValue *value) {
        const Owned<TQValue> owned(value);
        TQDictionarySetValue(notes.get(), MakeString(key).get(), owned.get());
    };
    set(kDocumentKey, TQDataCreate(document.data(), document.size()));
    set(kTimeKey, TQDateCreate(time));
    // What a document brings from another store says nothing of this generation.
    const Owned<TQDictionary> brought(TQCopyMutableInfoDictionary(document.c_str(), nullptr));
    if (EntryOf(brought.get(), kPinnedKey)) set(kPinnedKey, TQRetain(TQBooleanGet(false)));
    if (EntryOf(brought.get(), kDigestKey)) set(kDigestKey, TQRetain(TQBooleanGet(false)));
    if (restored.empty() && EntryOf(brought.get(), kKindKey)) set(kKindKey, TQStringCreate("version"));
    if (restored.empty()) return notes;
    set(kKindKey, TQStringCreate(kBackupKind));
    set(kBackupOfKey, TQStringCreateWithBytes(restored.data(), restored.size()));
    if (restoredTime || EntryOf(brought.get(), kBackupOfTimeKey))
        set(kBackupOfTimeKey, restoredTime ? TQDateCreate(*restoredTime) : TQRetain(TQBooleanGet(false)));
    return notes;
}

GenerationInfo ToGenerationInfo(const TQDictionary *dictionary)
{
    GenerationInfo info;
    const TQValue *document = EntryOf(dictionary, kDocumentKey);
    if (TQGetTypeID(document) == TQDataGetTypeID()) {
        const auto *data = static_cast<const TQData *>(document);
        info.document.emplace(static_cast<const char *>(TQDataGetBytes(data)), TQDataGetLength(data));
    }
    const auto time = [dictionary](const char *key) {
        const TQValue *value = EntryOf(dictionary, key);
        const bool isDate = TQGetTypeID(value) == TQDateGetTypeID();
        return isDate ? std::optional(TQDateGetSeconds(static_cast<const TQDate *>(value))) : std::nullopt;
    };
    info.time = time(kTimeKey);
    const TQValue *size = EntryOf(dictionary, kSizeKey);
    if (TQGetTypeID(size) == TQNumberGetTypeID() && TQNumberGetInt64(size) >= 0)
        info.size = static_cast<uint64_t>(TQNumberGetInt64(size));
    if (TextOf(dictionary, kKindKey) == kBackupKind) info.backupOf = TextOf(dictionary, kBackupOfKey);
    if (info.backupOf) info.backupOfTime = time(kBackupOfTimeKey);
    info.isSealed = !BytesOf(dictionary, kDigestKey).empty();
    const TQValue *pinned = EntryOf(dictionary, kPinnedKey);
    // A pin protects: whatever is neither false nor 0 is one.
    info.isPinned = pinned && (!TQIsNumber(pinned) || TQNumberGetTruth(pinned));
    return info;
}

uint64_t SizeOfTree(const std::string &path)
{
    Owned<TQError> error;
    const int64_t size = TQComputeTreeSize(path.c_str(), error.out());
    if (size < 0 || error) throw CommandFailure::Library("can't measure " + Quoted(path), error.get()).At(path);
    return static_cast<uint64_t>(size);
}
