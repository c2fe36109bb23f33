// An open store, with the questions that every subcommand asks it.

#pragma once

#include "failure.h"
#include "location.h"
#include "owned.h"

#include <vaultry/collections.h>
#include <vaultry/storage.h>

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

// What the command noted beside a generation when it kept it; absent if another client kept it.
struct GenerationInfo {
    std::optional<std::string> document; // absolute path, any bytes
    std::optional<double> time;          // seconds since 1970
    std::optional<uint64_t> size;        // of its files, in bytes
    std::optional<std::string> backupOf; // a restore put it aside: which generation came in its place, "" if unknown
    std::optional<double> backupOfTime;  // when that one had been kept
    bool isPinned = false;               // never to be pruned
    bool isSealed = false;               // what it holds can be verified: see sealing.h
};

// Any client may have written those keys: a value of another kind counts as none.
GenerationInfo ToGenerationInfo(const TQDictionary *info);

// The notes of a document's history. The library adds the size itself.
// With `restored`, they are those of a backup that the restore from that generation, of that time, made.
Owned<TQDictionary> MakeNotes(const std::string &document, double time, const std::string &restored = "",
                              std::optional<double> restoredTime = std::nullopt);

class Store {
public:
    // Opens the store; makes it first if there is nothing or an empty directory.
    static Store OpenOrMake(const std::string &path);
    // Opens the store; none if there is nothing yet. Throws if the item there is not a store.
    static std::optional<Store> OpenExisting(const std::string &path);
    // The same, but throws if there is no store: for a caller that wants a generation.
    static Store Require(const std::string &path);
    // The same for a caller that would make one, had the user not said where it is.
    static Store RequireMade(const std::string &path);

    const std::string &path() const { return path_; }
    const TQClientManagedStorage *handle() const { return handle_.get(); }

    std::set<std::string> Names() const;
    // Whether there is surely no such generation. It goes by the names, since the status of a failed operation would be
    // the same for an invalid name. Also false if the names can't be read.
    bool Lacks(const std::string &name) const noexcept;
    // Where a generation lies.
    std::string PathOf(const std::string &name) const;
    // The whole info dictionary, the command's own entries in it, and the display name, "" if there is none. Each
    // throws if it can't be read, whether or not the others can.
    Owned<TQDictionary> InfoDictionaryOf(const std::string &name) const;
    GenerationInfo InfoOf(const std::string &name) const { return ToGenerationInfo(InfoDictionaryOf(name).get()); }
    // The same by one call of the kernel, without the lock: notes are written and read whole.
    GenerationInfo PeekAtInfoOf(const std::string &name) const;
    std::string DisplayNameOf(const std::string &name) const;
    // Whether these notes could be stored when it was added. The document may have brought others.
    bool HasNotes(const std::string &name, const TQDictionary *notes) const noexcept;
    // Writes all of the notes; on failure, none.
    bool SetInfoOf(const std::string &name, const TQDictionary *notes, TQError **error) const;
    // Removes them in order, up to the first that can't be removed; passes over a name without a generation, and unless
    // `pinnedToo` over what is pinned by then, or may be. Takes one lock and one flush, however many they are.
    void Remove(const std::vector<std::string> &names, bool pinnedToo) const;

private:
    Store(const std::string &path);

    std::string path_;
    std::unique_ptr<TQClientManagedStorage, void (*)(TQClientManagedStorage *)> handle_;
};

// Why the item at `path` can't be used as a store.
CommandFailure NoStore(const std::string &path, PlaceKind kind);

// The bytes of a generation's files. Throws if a part of it can't be read.
uint64_t SizeOfTree(const std::string &path);

// The info dictionary's keys, which other clients may read and write.
inline constexpr char kDocumentKey[] = "vaultry.document"; // data: the bytes of the absolute path
inline constexpr char kTimeKey[] = "vaultry.time";         // date
inline constexpr char kSizeKey[] = "vaultry.size";         // number
inline constexpr char kKindKey[] = "vaultry.kind";         // string: "backup", if a restore made it
inline constexpr char kBackupKind[] = "backup";
inline constexpr char kBackupOfKey[] = "vaultry.of";            // string: the generation that was restored then
inline constexpr char kBackupOfTimeKey[] = "vaultry.of-time";   // date: when that one had been kept
inline constexpr char kPinnedKey[] = "vaultry.pinned";          // boolean
inline constexpr char kDigestKey[] = "vaultry.digest";          // data: a seal
inline constexpr char kDigestKindKey[] = "vaultry.digest-kind"; // string: the hash that it is made of
