// What is known of all generations of a store, read in one go.

#pragma once

#include "store.h"

#include <functional>
#include <vector>

// What a record has beside the name: all that can be known, or only display name and info.
enum class Fields { All, Notes };

// Visits the record of each generation, as it was at one moment. False if they can't be read in one go, as if a single
// one is damaged. If the store's directory can't be read to its end, the rest is missing without a word.
bool ForEachRecord(const Store &store, Fields fields, const std::function<void(const TQDictionary *record)> &visit);

struct Kept {
    std::string name;
    GenerationInfo info;
};

// Every generation with what was noted of it. One that can't be read is missing, and is one of the problems. Throws if
// it can't be told which there are.
std::vector<Kept> ReadHistory(const Store &store, Problems &problems);
