// Bringing a document back in place from a generation, and keeping what it was: what restore and undo have in common.

#pragma once

#include "arguments.h"
#include "generation.h"

#include <string>

// Whether there is anything at the path of the document. Throws if that can't be told: a document that can't be looked
// at would be replaced without a backup if it counted as absent.
bool IsDocumentThere(const std::string &document);

// Brings back a generation; or one item of it in the document, which then is a folder. Returns the exit code, and says
// what was done. `document` is an absolute path, free of links.
int BringBack(const Store &store, const GenerationItem &item, const std::string &document, const Arguments &arguments);
