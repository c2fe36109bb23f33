// The generation archive, seen from inside.
//
// An archived item carries one byte that records what write protection took from it, and has no write bit left. The
// byte is written before the write bits are taken, and removed only when they are back, so an item that lacks them
// always says which ones it had. The flags that bar a change have to be cleared before the byte is written. Until then
// only the owner file records them, and only for the top item of a moved document.

#pragma once

#include "Platform/FileStatus.h"
#include "Platform/Item.h"
#include "Platform/ItemId.h"
#include "Platform/UniqueFd.h"
#include "Platform/Volume.h"
#include "Platform/duplix.h"

#include <vaultry/archive.h>
#include <vaultry/metadata.h>
#include <vaultry/progress.h>

#include <optional>

class BaseFiles;

// The attributes that the store keeps on items of generations; a copy gets none of them.
inline constexpr char kSavedPermissionsAttribute[] = "com.corvane.vaultry.orig_perms_v1"; // every archived item
inline constexpr char kInfoAttribute[] = "com.corvane.vaultry.info";                      // top items only
inline constexpr char kDisplayNameAttribute[] = "com.corvane.vaultry.origdisplayname";
inline constexpr char kOptionsAttribute[] = "com.corvane.vaultry.gen_options";
inline constexpr const char *kStoreAttributes[] = {kSavedPermissionsAttribute, kInfoAttribute, kDisplayNameAttribute,
                                                   kOptionsAttribute};
inline constexpr uint64_t kStoredOptionBits = 0x1e; // an options word with none of them is not stored
// On a staging directory, it is where earlier versions noted to which path the document in it belongs. It is read, but
// no longer written.
inline constexpr char kMovedFromAttribute[] = "com.corvane.vaultry.moved_from";

// The saved-permissions byte.
enum : uint8_t {
    kSavedImmutable = 0x01,
    kSavedAppend = 0x02,
    kSavedOwnerWrite = 0x04,
    kSavedGroupWrite = 0x08,
    kSavedOtherWrite = 0x10,
};
inline constexpr mode_t kWriteBits = 0222;
inline constexpr uint8_t kSavedBits = 0x1f; // all that there are
uint8_t SavedPermissionsOf(uint32_t mode, uint32_t flags);
mode_t SavedWriteBits(uint8_t saved);
uint32_t SavedFlags(uint8_t saved);

// Whether the name is that of a sidecar: "._" and the name of a file beside it, whose attributes it holds where the
// volume has no room for them.
bool IsSidecarName(const char *name);

// TQCopyMutableInfoDictionary and TQCopyOriginalDisplayName for an item that the caller holds. Both follow links too.
TQDictionary *_CopyInfoDictionaryOf(const Item &item, TQError **error);
TQString *_CopyDisplayNameOf(const Item &item, TQError **error);

// _SetEAOnGeneration, TQSetGenerationOptions and TQSetInfoValues for a generation that its caller flushes.
bool _WriteProtectedAttribute(const char *path, const char *name, const void *value, size_t size, TQError **error);
bool _WriteGenerationOptions(const char *path, uint64_t options, TQError **error);
bool _WriteInfoValues(const char *path, const TQDictionary *values, TQError **error);
bool _RemoveInfoValues(const char *path, const TQDictionary *values, TQError **error); // those with these keys

// Which attributes with the store's own names an item has, or may have.
struct BroughtMetadata {
    bool info = true, displayName = true, options = true;
};

// How a document becomes a generation.
struct AddManner {
    bool copy = true;
    bool keepLinks = false;    // symbolic links below the top stay what they are, and are not archived
    BaseFiles *base = nullptr; // when copying: whose files unchanged ones are shared with
    bool leavesFileOpen = false;
};

// What has become of it.
struct AddedTree {
    BroughtMetadata brought{}; // by the document's top item
    uint64_t bytes = 0;        // of its files
    UniqueFd file{};           // a copy that is a file, if it is left open for writing; its close is to be looked at
};

// As TQAddPathAsGeneration, archiving.
bool _AddPathAsGeneration(const char *source, const char *destination, const AddManner &manner, AddedTree *added,
                          TQError **error);

// What the copy service's callback carries while adding.
struct TQAddContext {
    uint8_t makeReadable;
    uint8_t archive;
    uint64_t bytesCompleted;                         // of the files finished so far
    TQProgress *progress;                            // may be null
    TQError **error;                                 // may be null
    BroughtMetadata brought = {false, false, false}; // by any item of it
    bool bringsRecord = false;         // the item at hand has a record of an earlier archiving, which is not copied
    std::optional<bool> mayBlock = {}; // whether flags in such a record could be given back; asked for the first one
    const char *source = nullptr;      // the document, if links below it are kept
    BaseFiles *base = nullptr;         // may be null
};

int _DuplixAddCallback(int what, int stage, DuplixState *state, const char *source, const char *destination,
                       void *addContext);
int _DuplixUnarchiveCallback(int what, int stage, DuplixState *state, const char *source, const char *destination,
                             void *errorOut);

// What both callbacks have in common.
bool IsSidecarStart(int what, int stage, const char *source);
bool IsItemFinished(int what, int stage);
int QuitOnCopyError(TQError **error, int what, int stage, const char *source, const char *destination);

// As TQCopyOutGeneration. The copy is never more open than it will be in the end, unless `leaveWritable` is set, which
// is for a copy that is still to be moved. `made`, unless null, tells what was made at the destination. With
// `flushEach`, each item is flushed as DuplixOptions says. `only`, unless null, is the path of an item below that of
// `stored`: nothing else is copied then, but the folders on the way to it.
bool _CopyOutGeneration(const Item &stored, const char *destination, uint16_t *mode, uint32_t *flags,
                        platform::DuplixMade *made, bool flushEach, bool leaveWritable, const char *only,
                        TQError **error);

// Archives one item. A record that it has already stays. `status` may be null; it is then read.
bool _ArchiveItem(const char *path, const TQFileStatus *status, bool makeReadable, TQError **error);

// An item to be archived. `before` is what it had, and is recorded unless `record` is given.
struct ArchivedItem {
    const Item &item;
    const TQFileStatus &before;
    bool makeReadable;
    bool replaceRecord = false;         // a record that it has is of another time, or made by somebody else
    std::optional<uint8_t> record = {}; // recorded in place of `before`
    std::optional<mode_t> modeNow = {}; // if it is not that of `before`
    platform::VolumeMemory *flush = {}; // if not null, the item is flushed where the volume needs that
};

// The first opens the item, which has to be the one that `now` describes (ESTALE if another took its place). For the
// second, the caller has it open as `fd`.
bool _ArchiveItemAt(const ArchivedItem &archived, const TQFileStatus &now, TQError **error);
bool _ArchiveOpenItem(const ArchivedItem &archived, int fd, TQError **error);

// As TQArchiveTree, for a document that is given back if this fails: the item at which it failed gets its mode and
// flags back. Records that the document brought along are replaced, and items that a flush of the volume would not
// reach are flushed. With `keepLinks`, symbolic links below the top are left as they are.
bool _ArchiveMovedTree(const char *path, bool makeReadable, bool keepLinks, uint64_t *totalSize, TQError **error);

// Gives a file with several links its own data: the name at `file` becomes a new file, which `made` then describes; the
// other links stay. The new file has the old one's owner, mode and flags as far as its maker may give them, and the
// set-id bits only if it got owner and group. Returns the new file, open for writing; nothing on failure.
struct HardLinkedFile {
    Item item;
    const TQFileStatus &status;
    size_t parentPathLength; // of item.path
    bool noteParent;         // whether to record on its directory, one of the document's, what that loses meanwhile
};
UniqueFd _BreakHardLink(const HardLinkedFile &file, TQFileStatus *made, TQError **error);

// If `name` can be that of a copy that was to replace a hard link, the length of the original's name; otherwise 0.
size_t LengthOfLinkedName(const char *name);

// The options word that a document brought along. If it is not known, what is there is left alone.
struct BroughtOptions {
    bool isKnown = false, isThere = false;
    uint64_t word = 0;
};

// The same of an attribute with one of the store's names. One that is longer is not known, and isTooLong.
template <size_t capacity> struct BroughtAttribute {
    bool isKnown = false, isThere = false, isTooLong = false;
    size_t length = 0;
    char bytes[capacity];
};
using BroughtInfo = BroughtAttribute<4096>; // what ext4 holds as it is usually made
using BroughtName = BroughtAttribute<1024>;

// What an add by moving knew of its document before it took it.
struct MovedDocument {
    // What its top item had, if that is still `top`; else the record of permissions is all there is.
    bool knowsTop = false;
    ItemId top{};
    uint32_t topMode = 0;
    uint32_t topFlags = 0;
    BroughtOptions topOptions{};
    BroughtInfo topInfo{};
    BroughtName topName{};
    struct timespec since {}; // when the add began, by the volume's clock; it made no change before that
};

// Undoes the archiving of what an add by moving took, removes copies that were to replace hard links, and moves the
// document back to where it came from. Nothing at `home` is replaced. True also if there is nothing at `moved`. False
// if it can't be moved: the item then lies where it was, and a line at level 3 says where.
bool _GiveDocumentBack(const Item &moved, const Item &home, const MovedDocument &document);
