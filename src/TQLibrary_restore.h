// Restoring, seen from inside.

#pragma once

#include <vaultry/file_status.h>

#include <sys/types.h>

// The permission bits that a restored item gets, from the mode of its staged copy (of which only the type counts) and
// the document that it replaces. `copy` is the item that stands beside the document by now. It may belong to somebody
// else, or to another group.
mode_t _RestoredModeFor(mode_t staged, const TQFileStatus &document, const TQFileStatus &copy);
