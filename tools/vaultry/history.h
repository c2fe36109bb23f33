// What is known of all generations of a store.

#pragma once

#include "store.h"

#include <functional>
#include <vector>

// Visits the record of each generation, as it was at one moment. False if they can't be read in one go, as if a single
// one is damaged. If the store's directory can't be read to its end, the rest is missing without a word.
bool ForEachRecord(const Store &store, const std::function<void(const TQDictionary *record)> &visit);

struct Kept {
    std::string name;
    GenerationInfo info;
};

// Every generation with what was noted of it, in order of their names. One that can't be read is missing, and is one of
// the problems. Throws if it can't be told which there are. Takes a third of the time and memory that the records take,
// but reads without the lock: what others note meanwhile may be seen of one generation and not yet of another.
std::vector<Kept> ReadHistory(const Store &store, Problems &problems);
