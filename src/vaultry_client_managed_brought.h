// What a document brings along in its attributes when it becomes a generation, and what the generation gets besides.

#pragma once

#include "vaultry_client_managed_owner.h"

#include <vaultry/storage.h>

// Notes what the document has, for whoever gives it back after a move that failed.
void _NoteBroughtAttributes(const Item &document, OwnerNote *note);

// Which attributes with the store's own names are damaged. They would be taken for the store's, and the generation
// could be listed but not described.
struct MalformedMetadata {
    bool info = false, displayName = false;
    bool IsAny() const { return info || displayName; }
};
MalformedMetadata _FindMalformedMetadata(const char *staged, const BroughtMetadata &brought);
bool _DropMalformedMetadata(const char *staged, const MalformedMetadata &malformed, TQError **error);

// Stores the options. A document that brought none needs nothing taken away.
bool _WriteOptionsOver(const char *staged, uint64_t options, const BroughtMetadata &brought, TQError **error);

// Whether the request has values for the info dictionary, and stores them; `size` is that of the generation's files. If
// they are optional, they may be left out.
bool _HasInfo(const TQAddRequest &request);
bool _WriteInfoOf(const char *staged, const TQAddRequest &request, uint64_t size, TQError **error);
