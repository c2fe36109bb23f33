// One item of a folder, by its path below it: of a generation, or of a document.
//
// The way there goes by descriptors through folders alone. A link on it is refused, and nothing leads up or out.

#pragma once

#include "Platform/UniqueFd.h"
#include "Shared/PathBuffer.h"

#include <vaultry/error.h>
#include <vaultry/file_status.h>

// What was found of it. If it is not there, `length` says how much of its path names the first item that is missing.
struct FoundItem {
    bool isThere = false;
    size_t length = 0;
    UniqueFd folder{};     // that the item is in, or the one that is missing would be
    TQFileStatus status{}; // of the item, never of what a link leads to
};

// False if the path is not that of an item, or nothing can tell what is there.
bool _FindItem(const char *top, const char *item, FoundItem *found, TQError **error);
