// Which generation a user means.

#pragma once

#include "store.h"

#include <functional>
#include <vector>

// The generation that `given` names: exactly, or by a beginning that no other has. Throws if there is none, or several.
std::string ResolveGeneration(const Store &store, const std::string &given);

// The newest generation of a document that was kept no later than `time` (or at all). Throws if there is none.
std::string NewestGenerationOf(const Store &store, const std::string &document, std::optional<double> time);

// The same for an add that shares unchanged files, in one go where nothing is damaged. None if there is none.
std::optional<std::string> BaseFor(const Store &store, const std::string &document);

// Visits the record of each generation, as it was at one moment. False if they can't be read in one go, as if a single
// one is damaged. If the store's directory can't be read to its end, the rest is missing without a word.
bool ForEachRecord(const Store &store, const std::function<void(const TQDictionary *record)> &visit);
