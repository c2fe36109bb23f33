// Files and directories under names that nobody else has.
//
// Every trailing X of the template (before the suffix) becomes a letter or digit from the kernel's random
// source. The template is changed on success only, so that a message can still show it.

#pragma once

namespace platform {

// Mode 0700. 0, or -1 with errno.
int MakeUniqueDirectory(char *pathTemplate);

// Mode 0600, read-write, close-on-exec. The descriptor, or -1 with errno.
int MakeUniqueFile(char *pathTemplate, int suffixLength);

} // namespace platform
