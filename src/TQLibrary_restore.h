// Restoring, seen from inside.

#pragma once

#include <vaultry/file_status.h>

#include <sys/types.h>

// The permission bits that a restored item gets, from the mode of its staged copy (of which only the type counts) and
// that of the document which it replaces.
mode_t _RestoredMode(mode_t staged, mode_t document);

// The same for `copy`, which may belong to somebody else than the document: it then gets no set-id bits of theirs.
mode_t _RestoredModeFor(mode_t staged, const TQFileStatus &document, const TQFileStatus &copy);
