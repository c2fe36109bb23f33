// Whether a document is still what its newest version holds.

#pragma once

#include "store.h"

// The newest version of the document, if nothing differs that a copy would bring back, and nobody changed the document
// while it was compared. None if there is none; nor if that can't be told, which is said.
std::optional<std::string> UnchangedSince(const Store &store, const std::string &document);
