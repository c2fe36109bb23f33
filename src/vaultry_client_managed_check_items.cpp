// Checking generations: protection and attributes of every item, and placeholders beside recorded documents.

#include "vaultry_client_managed_check.h"

#include "Platform/Attributes.h"
#include "Platform/FileStatus.h"
#include "Platform/Rename.h"
#include "Platform/ScopeExit.h"
#include "Platform/TreeWalk.h"
#include "Shared/PathBuffer.h"
#include "Shared/vaultry_flush.h"
#include "Shared/vaultry_storage.h"

#include <vaultry/data.h>
#include <vaultry/filesystem.h>
#include <vaultry/metadata.h>
#include <vaultry/path.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace {

using Kind = TreeWalk::Kind;

constexpr unsigned kSavedAll = kSavedImmutable | kSavedAppend | kSavedOwnerWrite | kSavedGroupWrite | kSavedOtherWrite;
constexpr char kDocumentKey[] = "vaultry.document"; // absolute path, as data
constexpr char kPlaceholderMark[] = "-tmp.nosync.";
constexpr size_t kPlaceholderUnique = 6;

// An item with one of these flags refuses chmod even to its owner: they go for the moment.
bool TakeWriteBits(const TreeWalk::Entry &entry)
{
    const uint32_t flags = entry.status.flags, lifted = flags & ~kBlockingFlags;
    if (lifted != flags && platform::SetFlags(entry.item, Links::NoFollow, lifted) != 0) return false;
    const bool taken = platform::SetMode(entry.item, Links::NoFollow, entry.status.mode & 07777 & ~kWriteBits) == 0;
    return (lifted == flags || platform::SetFlags(entry.item, Links::NoFollow, flags) == 0) && taken;
}

// Only the record of its permissions says what an item had.
void CheckProtection(const TreeWalk::Entry &entry, Findings &findings)
{
    const char *path = entry.item.path;
    uint8_t saved = 0;
    const ssize_t length =
        platform::GetAttribute(entry.item, Links::NoFollow, kSavedPermissionsAttribute, &saved, sizeof saved);
    if (length < 0 && errno != ENODATA && errno != ERANGE) // a longer one than can be
        findings.AddUnreadable(path);
    else if (length < 0 && errno == ENODATA)
        findings.Add(path, "not-archived",
                     "The item lacks the record of its permissions; the library did not make it.");
    else if (length != 1 || (saved & ~kSavedAll) != 0)
        findings.Add(path, "permissions-malformed",
                     "The record of the item's permissions is damaged; the generation can't be copied out.");
    else if ((entry.status.mode & kWriteBits) != 0)
        findings.AddMendable(path, "unprotected", "The item may be written to.", [&] { return TakeWriteBits(entry); });
}

void CheckItem(const TreeWalk::Entry &entry, Findings &findings)
{
    switch (entry.kind) {
    case Kind::Directory:
        break;
    case Kind::File:
        if (IsSidecarName(entry.item.name)) break;
        [[fallthrough]];
    case Kind::DirectoryDone:
        CheckProtection(entry, findings);
        break;
    case Kind::Link:
    case Kind::Other:
        findings.Add(entry.item.path, "foreign", "No generation holds links, pipes, sockets or devices.");
        break;
    case Kind::Unreadable:
    case Kind::NoStatus:
    case Kind::Error:
        findings.AddUnreadable(entry.item.path);
        break;
    }
}

// Errors are what is looked for here; the findings say what they mean.
void CheckAttributes(const char *path, Findings &findings)
{
    const Item item = Item::AtPath(path);
    const bool unnamed =
        platform::GetAttribute(item, Links::NoFollow, kDisplayNameAttribute, nullptr, 0) < 0 && errno == ENODATA;
    if (!unnamed && !Ref<TQString>::Adopt(TQCopyOriginalDisplayName(path, nullptr)))
        findings.Add(path, "display-name-malformed", "The generation's display name can't be read.");
    const ssize_t options = platform::GetAttribute(item, Links::NoFollow, kOptionsAttribute, nullptr, 0);
    if (options < 0 && errno != ENODATA)
        findings.AddUnreadable(path);
    else if (options >= 0 && options != sizeof(uint64_t))
        findings.Add(path, "options-malformed", "The generation's options word has a wrong size, and reads as 0.");
}

// Whether `name` is `stem`, the mark, six characters, and `extension`.
bool IsPlaceholderName(const char *name, const char *stem, size_t stemLength, const char *extension)
{
    const size_t markLength = sizeof kPlaceholderMark - 1;
    const size_t length = strlen(name);
    return length == stemLength + markLength + kPlaceholderUnique + strlen(extension) &&
           memcmp(name, stem, stemLength) == 0 && memcmp(name + stemLength, kPlaceholderMark, markLength) == 0 &&
           strcmp(name + length - strlen(extension), extension) == 0;
}

enum class Filling { Empty, Full, Unknown };

Filling FillingOf(const char *path)
{
    TQFileStatus status;
    if (platform::GetStatus(Item::AtPath(path), Links::NoFollow, &status) != 0) return Filling::Unknown;
    if (!S_ISDIR(status.mode)) return status.size == 0 ? Filling::Empty : Filling::Full;
    Names names(path);
    if (names.Next()) return Filling::Full;
    return names.error() == 0 ? Filling::Empty : Filling::Unknown;
}

// An empty placeholder is one that no document was moved to yet; a full one is the document itself.
void CheckPlaceholder(const char *placeholder, const char *document, Findings &findings)
{
    switch (FillingOf(placeholder)) {
    case Filling::Empty:
        findings.Add(placeholder, "placeholder-empty",
                     _PathNotExists(document)
                         ? "A restore that was interrupted left this empty item: the document, if that was empty."
                         : "A restore that was interrupted left this empty item; it may go.");
        break;
    case Filling::Full:
        findings.AddMendable(
            placeholder, "document-aside",
            "A restore that was interrupted left the document, or its old state, under this name.",
            [=] { return platform::RenameIntoNothing(placeholder, document) == 0 && _FlushEntry(document, nullptr); });
        break;
    case Filling::Unknown:
        findings.Add(placeholder, "placeholder-unreadable",
                     "A restore that was interrupted left this, and it can't be read: it may be the document.");
        break;
    }
}

// The path of the document that a generation was made from, as a client recorded it.
bool GetRecordedDocument(const TQDictionary *info, PathBuffer &document)
{
    const auto key = Ref<TQString>::Adopt(TQStringCreate(kDocumentKey));
    const TQValue *value = TQDictionaryGetValue(info, key.get());
    const char *bytes = "";
    size_t length = 0;
    if (TQGetTypeID(value) == TQDataGetTypeID()) {
        bytes = static_cast<const char *>(TQDataGetBytes(static_cast<const TQData *>(value)));
        length = TQDataGetLength(static_cast<const TQData *>(value));
    } else if (TQGetTypeID(value) == TQStringGetTypeID()) {
        bytes = TQStringGetUTF8(static_cast<const TQString *>(value));
        length = TQStringGetUTF8Length(static_cast<const TQString *>(value));
    }
    if (length == 0 || bytes[0] != '/' || memchr(bytes, '\0', length)) return false;
    return length < PathBuffer::kCapacity && document.Format("%.*s", static_cast<int>(length), bytes);
}

// What restores of the recorded document left beside it.
void CheckPlaceholders(const TQDictionary *info, Findings &findings)
{
    PathBuffer document;
    if (!GetRecordedDocument(info, document) || !findings.IsNewDocument(document.c_str())) return;
    PathBuffer parent;
    const char *name = separate_path_parent_child(document.c_str(), parent.data());
    const char *directoryPath = parent.c_str()[0] == '\0' ? "/" : parent.c_str();
    if (!name || !name[0]) return;

    const char *extension = TQGetFileNameExtensionForPath(name);
    if (!extension) extension = name + strlen(name);
    const size_t stemLength = static_cast<size_t>(extension - name);
    Names names(directoryPath);
    while (const char *candidate = names.Next()) {
        // A directory's placeholder has no extension; its name is the whole name and the mark.
        if (!IsPlaceholderName(candidate, name, stemLength, extension) &&
            !IsPlaceholderName(candidate, name, strlen(name), ""))
            continue;
        PathBuffer placeholder;
        if (placeholder.Format("%s/%s", strcmp(directoryPath, "/") == 0 ? "" : directoryPath, candidate))
            CheckPlaceholder(placeholder.c_str(), document.c_str(), findings);
    }
    const bool isGone = names.error() == ENOENT || names.error() == ENOTDIR; // the document's folder
    if (names.error() != 0 && !isGone)
        findings.Add(document.c_str(), "folder-unreadable",
                     "The document's folder can't be read: an interrupted restore may have left something there.");
}

} // namespace

void _CheckGeneration(const char *path, Findings &findings)
{
    TreeWalk walk;
    if (!walk.Open(path)) return findings.AddUnreadable(path);
    while (const TreeWalk::Entry *entry = walk.Next()) CheckItem(*entry, findings);
    CheckAttributes(path, findings);
    if (const auto info = Ref<TQDictionary>::Adopt(TQCopyMutableInfoDictionary(path, nullptr)))
        CheckPlaceholders(info.get(), findings);
    else
        findings.Add(path, "info-malformed", "The generation's info dictionary can't be read.");
}
