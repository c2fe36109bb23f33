// Restoring, seen from inside.

#pragma once

#include <sys/types.h>

// The permission bits that a restored item gets, from the mode of its staged copy (of which only the type counts) and
// that of the document which it replaces.
mode_t _RestoredMode(mode_t staged, mode_t document);
