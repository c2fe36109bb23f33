#include "vaultry_client_managed_placeholder.h"

#include <vaultry/path.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

constexpr char kMark[] = "-tmp.nosync.";
constexpr char kUnique[] = "XXXXXX";
constexpr size_t kRoom = NAME_MAX - (sizeof kMark - 1) - (sizeof kUnique - 1);

// As much of `text` as has room, in whole characters.
size_t Fitting(const char *text, size_t length, size_t room)
{
    if (length <= room) return length;
    while (room > 0 && (static_cast<unsigned char>(text[room]) & 0xC0) == 0x80) --room;
    return room;
}

} // namespace

PlaceholderName::PlaceholderName(const char *document, bool isFolder)
{
    const char *extension = isFolder ? nullptr : TQGetFileNameExtensionForPath(document);
    if (!extension) extension = document + strlen(document);
    extensionLength = Fitting(extension, strlen(extension), kRoom);
    stemLength = Fitting(document, static_cast<size_t>(extension - document), kRoom - extensionLength);
    (void)snprintf(text, sizeof text, "%.*s%s%s%.*s", static_cast<int>(stemLength), document, kMark, kUnique,
                   static_cast<int>(extensionLength), extension);
}

bool PlaceholderName::Matches(const char *name) const
{
    const size_t fixed = stemLength + sizeof kMark - 1, length = strlen(text);
    return strlen(name) == length && memcmp(name, text, fixed) == 0 &&
           memcmp(name + length - extensionLength, text + length - extensionLength, extensionLength) == 0;
}
