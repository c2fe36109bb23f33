// Files and directories under names that nobody else has.
//
// Every trailing X of the template (before the suffix) becomes a letter or digit from the kernel's random
// source. The template is changed on success only, so that a message can still show it. EINVAL without an X; EEXIST
// when a thousand names in a row were taken. errno is untouched on success.

#pragma once

#include "Platform/ItemId.h"

namespace platform {

inline constexpr char kUniqueAlphabet[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

// Mode 0700, whatever the umask is. 0, or -1 with errno. The second makes it in an open directory, and leaves the last
// `suffixLength` bytes as they are.
int MakeUniqueDirectory(char *pathTemplate);
int MakeUniqueDirectoryAt(int directory, char *nameTemplate, int suffixLength);

// Mode 0600, whatever the umask is; read-write, close-on-exec. The descriptor, or -1 with errno. The last
// `suffixLength` bytes stay as they are. The second makes it in an open directory.
int MakeUniqueFile(char *pathTemplate, int suffixLength);
int MakeUniqueFileAt(int directory, char *nameTemplate, int suffixLength);

// The first only chooses such a name in an open directory, for a caller that has to note it before anything stands
// there. The others then make the item, with the modes above. 0 or the descriptor, or -1 with errno: EEXIST if the name
// was taken meanwhile.
int ChooseUniqueNameAt(int directory, char *nameTemplate, int suffixLength);
int MakeOwnDirectoryAt(int directory, const char *name);
int MakeOwnFileAt(int directory, const char *name);

// Moves the item `id` to such a name. 0, or -1 with errno.
int RenameToUnique(const char *from, const ItemId &id, char *pathTemplate);

} // namespace platform
