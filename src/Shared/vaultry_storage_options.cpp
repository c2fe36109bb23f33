// The options word of a generation, in one attribute. A word with none of the bits 0x1e is not stored, and an absent
// one reads as 1. One that is damaged or can't be read reads as 0.

#include "Shared/vaultry_storage.h"

#include "Platform/Attributes.h"
#include "Shared/vaultry_flush.h"

#include <cerrno>

namespace {

constexpr uint64_t kDefaultOptions = 1;

} // namespace

bool _WriteGenerationOptions(const char *path, uint64_t options, TQError **error)
{
    if ((options & kStoredOptionBits) == 0) return _WriteProtectedAttribute(path, kOptionsAttribute, nullptr, 0, error);
    return _WriteProtectedAttribute(path, kOptionsAttribute, &options, sizeof options, error);
}

bool TQSetGenerationOptions(const char *path, uint64_t options, TQError **error)
{
    if (!path) path = "";
    return _WriteGenerationOptions(path, options, error) && _FlushItem(path, error);
}

uint64_t TQGetGenerationOptions(const char *path)
{
    uint64_t options = 0;
    const ssize_t length = platform::GetAttribute(Item::AtPath(path ? path : ""), Links::NoFollow, kOptionsAttribute,
                                                  &options, sizeof options);
    if (length < 0) return errno == ENODATA ? kDefaultOptions : 0;
    return length == sizeof options ? options : 0;
}
