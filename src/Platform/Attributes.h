// Extended attributes, under the names that the library uses.
//
// On disk every name begins with "user.", the only namespace that is free for applications; it is added here and
// nowhere else. Getting returns the size, setting and removing return 0; -1 with errno on failure: ENODATA when the
// attribute is absent, ERANGE when the buffer is too small. errno is untouched on success. A null buffer of size 0 asks
// for the size.

#pragma once

#include "Platform/Item.h"

#include <cstddef>
#include <sys/types.h>

namespace platform {

ssize_t GetAttribute(const Item &item, Links links, const char *name, void *buffer, size_t size);
int SetAttribute(const Item &item, Links links, const char *name, const void *value, size_t size);
int RemoveAttribute(const Item &item, Links links, const char *name);

ssize_t GetAttributeOfFd(int fd, const char *name, void *buffer, size_t size);
int SetAttributeOfFd(int fd, const char *name, const void *value, size_t size);
int AddAttributeOfFd(int fd, const char *name, const void *value, size_t size); // -1 with EEXIST if it is there

} // namespace platform
