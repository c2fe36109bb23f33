#include "vaultry_client_managed_item.h"

#include "Platform/FileStatus.h"
#include "Shared/PathBuffer.h"
#include "Shared/vaultry_internal_failure.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

// A component of an item's path; empty if it is none that names an item of its folder.
class Component {
public:
    explicit Component(const char *start) : length_(strcspn(start, "/"))
    {
        if (length_ > NAME_MAX) return;
        memcpy(text_, start, length_);
        if (strcmp(text_, ".") == 0 || strcmp(text_, "..") == 0) text_[0] = '\0';
    }
    explicit operator bool() const { return text_[0] != '\0'; }
    const char *c_str() const { return text_; }
    size_t length() const { return length_; }

private:
    size_t length_;
    char text_[NAME_MAX + 1] = "";
};

static bool _RequireItemPath(const char *item, TQError **error)
{
    for (const char *rest = item; rest; ++rest) {
        const Component component(rest);
        if (!component) break;
        rest += component.length();
        if (*rest == '\0') return true;
    }
    return Failure(error).Refused(kTQStatusInvalidArgument, "The supplied item path was invalid");
}

bool _FindItem(const char *top, const char *item, FoundItem *found, TQError **error)
{
    constexpr int kFolder = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    if (!_RequireItemPath(item, error)) return false;
    found->folder.Reset(open(TrimmedPath(top).c_str(), kFolder)); // a slash at the end would follow a link
    if (!found->folder) return Failure(error).Errno("failed to open \"%s\"", top);
    for (const char *rest = item;; ++rest) {
        const Component component(rest);
        rest += component.length();
        found->length = static_cast<size_t>(rest - item);
        const Item here{found->folder.get(), component.c_str(), item};
        const bool isLast = *rest == '\0';
        UniqueFd below(isLast ? -1 : openat(here.directory, here.name, kFolder));
        found->isThere = isLast && platform::GetStatus(here, Links::NoFollow, &found->status) == 0;
        if (!found->isThere && !below && errno != ENOENT)
            return Failure(error).Errno("failed to open \"%s/%.*s\"", top, static_cast<int>(found->length), item);
        if (!below) return true;
        found->folder = std::move(below);
    }
}
