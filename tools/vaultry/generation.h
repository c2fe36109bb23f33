// Which generation a user means.

#pragma once

#include "arguments.h"
#include "store.h"

// The generation that `given` names: exactly, or by a beginning that no other has. Throws if there is none, or several.
std::string ResolveGeneration(const Store &store, const std::string &given);

// The same, or, with a choice, the one of the document `given` that was chosen. Throws if there is none.
std::string ChosenGeneration(const Store &store, const Choice &choice, const std::string &given);

// Why `given` names none of the generations that are present. If it names a document, how many it has, and what to type
// instead; else the name that is the nearest.
CommandFailure NoSuchGeneration(const Store &store, const std::set<std::string> &present, const std::string &given);

// The same if `given` names a document of which something is kept; none if not.
std::optional<CommandFailure> IsADocument(const Store &store, const std::string &given);

// The newest generation of a document, for an add that shares unchanged files. None if there is none.
std::optional<std::string> BaseFor(const Store &store, const std::string &document);
