// The seals of generations, which stand in their info.

#pragma once

#include "progress_bar.h"
#include "store.h"
#include "tree_reader.h"

// None if it is not sealed. Throws if the seal can't be read, or is of a kind that this version does not know.
std::optional<Seal> SealOf(const Store &store, const std::string &name);

// Reads all of a generation and notes its seal. The reader's caller catches signals. Throws if any of it can't be read,
// or there is no room for the smallest seal.
void SealGeneration(const Store &store, const std::string &name, TreeReader &reader);

// Seals what was just kept, and returns an exit code: what can't be sealed is kept all the same, and the user is told.
int SealKept(const Store &store, const std::string &name, ProgressBar &bar);
