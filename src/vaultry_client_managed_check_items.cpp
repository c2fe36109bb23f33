// Checks generations: the protection of every item, the attributes, and placeholders beside recorded documents.

#include "vaultry_client_managed_check.h"
#include "vaultry_client_managed_placeholder.h"

#include "Platform/ActingAs.h"
#include "Platform/Attributes.h"
#include "Platform/FileStatus.h"
#include "Platform/ProcPath.h"
#include "Platform/Rename.h"
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
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Kind = TreeWalk::Kind;

constexpr char kDocumentKey[] = "vaultry.document"; // absolute path, as data

// An item with one of these flags refuses chmod even to its owner, so they are taken away meanwhile.
bool TakeWriteBits(const TreeWalk::Entry &entry)
{
    const UniqueFd pinned = platform::PinItem(entry.item, entry.status);
    if (!pinned) return false;
    TQFileStatus now = entry.status;
    const uint32_t flags = now.flags, lifted = flags & ~kBlockingFlags;
    if (platform::SetFlagsOfPinned(pinned.get(), now, lifted) != 0) return false;
    now.flags = lifted;
    const bool taken = platform::SetModeOfPinned(pinned.get(), entry.status.mode & 07777 & ~kWriteBits) == 0;
    return platform::SetFlagsOfPinned(pinned.get(), now, flags) == 0 && taken;
}

// Only the record of its permissions says what an item had.
void CheckProtection(const TreeWalk::Entry &entry, Findings &findings)
{
    const char *path = entry.item.path;
    uint8_t saved = 0;
    const ssize_t length =
        platform::GetAttribute(entry.item, Links::NoFollow, kSavedPermissionsAttribute, &saved, sizeof saved);
    if (length < 0 && errno != ENODATA && errno != ERANGE) // ERANGE: too long for a record
        findings.AddUnreadable(path);
    else if (length < 0 && errno == ENODATA)
        findings.Add(path, "not-archived",
                     "The item lacks the record of its permissions; the library did not make it.");
    else if (length != 1 || (saved & ~kSavedBits) != 0)
        findings.Add(path, "permissions-malformed",
                     "The record of the item's permissions is damaged; the generation can't be copied out.");
    else if ((entry.status.mode & kWriteBits) == 0)
        return;
    else if (S_ISREG(entry.status.mode) && entry.status.linkCount > 1)
        findings.Add(path, "unprotected",
                     "The item may be written to. It has several names and may belong to several generations, so only "
                     "a person can decide to change it.");
    else
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
        if (entry.level == 0) findings.Add(entry.item.path, "foreign", "No generation is a link.");
        break;
    case Kind::Other:
        findings.Add(entry.item.path, "foreign", "No generation holds pipes, sockets or devices.");
        break;
    case Kind::Unreadable:
    case Kind::NoStatus:
    case Kind::Error:
        findings.AddUnreadable(entry.item.path);
        break;
    }
}

// Errors are what this looks for; the findings tell what they mean.
void CheckAttributes(const Item &item, Findings &findings)
{
    const bool unnamed =
        platform::GetAttribute(item, Links::Follow, kDisplayNameAttribute, nullptr, 0) < 0 && errno == ENODATA;
    if (!unnamed && !Ref<TQString>::Adopt(_CopyDisplayNameOf(item, nullptr)))
        findings.Add(item.path, "display-name-malformed", "The generation's display name can't be read.");
    const ssize_t options = platform::GetAttribute(item, Links::Follow, kOptionsAttribute, nullptr, 0);
    if (options < 0 && errno != ENODATA)
        findings.AddUnreadable(item.path);
    else if (options >= 0 && options != sizeof(uint64_t))
        findings.Add(item.path, "options-malformed", "The generation's options word has a wrong size, and reads as 0.");
}

// Checks what is left of a restore that noted nothing, or whose note is gone. Only its name tells what it is. No
// document was moved to an empty placeholder; a full one may be the document itself.
void CheckPlaceholder(const Item &placeholder, const Item &document, bool isOnly, const TQFileStatus &owner,
                      Findings &findings)
{
    TQFileStatus status;
    if (platform::GetStatus(placeholder, Links::NoFollow, &status) != 0) {
        if (errno != ENOENT) findings.AddUnreadable(placeholder.path);
        return;
    }
    if (findings.IsAccountedFor(placeholder.path, status)) return;
    TQFileStatus there;
    const bool isGone = platform::GetStatus(document, Links::NoFollow, &there) != 0 && errno == ENOENT;
    switch (_FillingOf(placeholder, status)) {
    case Filling::Empty:
        findings.Add(placeholder.path, "placeholder-empty",
                     isGone ? "A restore that was interrupted left this empty item: the document, if that was empty."
                            : "A restore that was interrupted left this empty item; it may go.");
        break;
    case Filling::Full:
        findings.AddMendable(
            placeholder.path, "document-aside",
            "A restore that was interrupted left the document, or its old state, under this name.",
            [&] {
                // Anybody may have recorded that the document is there, so root goes only where the store's owner can.
                const platform::ActingAs author(owner.owner);
                const OpenedFolder folder(document.path);
                return isOnly && author && folder &&
                       platform::RenameIntoNothing({folder.fd(), placeholder.name, placeholder.path},
                                                   ItemId::Of(status), folder.item()) == 0 &&
                       _FlushEntry(document.path, nullptr);
            },
            document.path);
        break;
    case Filling::Unknown:
        findings.Add(placeholder.path, "placeholder-unreadable",
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

// Checks what restores of the recorded document left beside it.
void CheckPlaceholders(const TQDictionary *info, const TQFileStatus &owner, Findings &findings)
{
    PathBuffer document;
    if (!GetRecordedDocument(info, document) || !findings.BeginDocument(document.c_str())) return;
    const OpenedFolder folder(document.c_str());
    if (!folder && (errno == ENOENT || errno == ENOTDIR)) return;
    const Item item = folder.item();
    if (!item.name[0]) return;

    const PlaceholderName ofFile(item.name, /*isFolder=*/false), ofFolder(item.name, /*isFolder=*/true);
    const auto folderLength = static_cast<int>(item.name - item.path);
    const auto matches = [&](const char *name) { return ofFile.Matches(name) || ofFolder.Matches(name); };
    // If there are several, nobody can tell which is the document. So they are counted before one is given back.
    int fullCount = 0;
    Names all({folder.fd(), ".", item.path});
    while (const char *candidate = folder ? all.Next() : nullptr) {
        const Item found{folder.fd(), candidate, item.path};
        TQFileStatus status;
        if (matches(candidate) && platform::GetStatus(found, Links::NoFollow, &status) == 0)
            fullCount += _FillingOf(found, status) == Filling::Empty ? 0 : 1;
    }
    Names names({folder.fd(), ".", item.path});
    while (const char *candidate = folder ? names.Next() : nullptr) {
        if (!matches(candidate)) continue;
        PathBuffer placeholder;
        if (placeholder.Format("%.*s%s", folderLength, item.path, candidate))
            CheckPlaceholder({folder.fd(), candidate, placeholder.c_str()}, item, fullCount == 1, owner, findings);
    }
    const int error = all.error() != 0 ? all.error() : names.error();
    const bool isGone = error == ENOENT || error == ENOTDIR; // the document's folder
    if (error != 0 && !isGone)
        findings.Add(document.c_str(), "folder-unreadable",
                     "The document's folder can't be read: an interrupted restore may have left something there.");
}

// Some volumes report 0 for a file whose size they don't know.
Filling FillingOfFile(const Item &item, const TQFileStatus &status)
{
    if (status.size != 0) return Filling::Full;
    const UniqueFd file(openat(item.directory, item.name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    char byte = 0;
    const ssize_t length = file ? read(file.get(), &byte, 1) : -1;
    return length < 0 ? Filling::Unknown : length == 0 ? Filling::Empty : Filling::Full;
}

} // namespace

Filling _FillingOf(const Item &item, const TQFileStatus &status)
{
    if (S_ISREG(status.mode)) return FillingOfFile(item, status);
    if (!S_ISDIR(status.mode)) return Filling::Full;
    Names names(item);
    if (names.Next()) return Filling::Full;
    return names.error() == 0 ? Filling::Empty : Filling::Unknown;
}

void _CheckGeneration(const Item &generation, const TQFileStatus &owner, Findings &findings)
{
    TreeWalk walk;
    TQFileStatus status;
    if (!walk.Open(generation) || platform::GetStatus(generation, Links::NoFollow, &status) != 0)
        return findings.AddUnreadable(generation.path);
    while (const TreeWalk::Entry *entry = walk.Next()) CheckItem(*entry, findings);
    // A link that somebody put there is foreign, and what it leads to has nothing to do with the store.
    if (S_ISLNK(status.mode)) return;
    const UniqueFd pinned = platform::PinItem(generation, status);
    if (!pinned) return findings.AddUnreadable(generation.path);
    const platform::ProcPath held(pinned.get());
    const Item item{AT_FDCWD, held.c_str(), generation.path};
    CheckAttributes(item, findings);
    if (const auto info = Ref<TQDictionary>::Adopt(_CopyInfoDictionaryOf(item, nullptr)))
        CheckPlaceholders(info.get(), owner, findings);
    else
        findings.Add(generation.path, "info-malformed", "The generation's info dictionary can't be read.");
}
