// Which generation a user means.

#pragma once

#include "store.h"

#include <vector>

// The generation that `given` names: exactly, or by a beginning that no other has. Throws if there is none, or several.
std::string ResolveGeneration(const Store &store, const std::string &given);

// The newest generation of a document that was kept no later than `time` (or at all). Throws if there is none.
std::string NewestGenerationOf(const Store &store, const std::string &document, std::optional<double> time);
