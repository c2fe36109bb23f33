// Files and directories under names that nobody else has.
//
// Every trailing X of the template (before the suffix) becomes a letter or digit from the kernel's random
// source. The template is changed on success only, so that a message can still show it. EINVAL without an X; EEXIST
// when a thousand names in a row were taken. errno is untouched on success.

#pragma once

#include "Platform/ItemId.h"

namespace platform {

inline constexpr char kUniqueAlphabet[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

// Mode 0700, whatever the process's mask is; so is that of a file. 0, or -1 with errno. The second makes it in an open
// directory, and leaves the last `suffixLength` bytes as they are.
int MakeUniqueDirectory(char *pathTemplate);
int MakeUniqueDirectoryAt(int directory, char *nameTemplate, int suffixLength);

// Mode 0600, read-write, close-on-exec. The descriptor, or -1 with errno. The last `suffixLength` bytes stay as they
// are. The second makes it in an open directory.
int MakeUniqueFile(char *pathTemplate, int suffixLength);
int MakeUniqueFileAt(int directory, char *nameTemplate, int suffixLength);

// Only finds such a name in an open directory, for who has to note it before anything stands there; and makes what is
// to stand there, with the modes above. 0 or the descriptor, or -1 with errno: EEXIST if the name was taken meanwhile.
int ChooseUniqueNameAt(int directory, char *nameTemplate, int suffixLength);
int MakeOwnDirectoryAt(int directory, const char *name);
int MakeOwnFileAt(int directory, const char *name);

// Moves the item `id` to such a name. 0, or -1 with errno.
int RenameToUnique(const char *from, const ItemId &id, char *pathTemplate);

} // namespace platform
