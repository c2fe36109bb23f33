// How generations are listed.

#pragma once

#include "store.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct Entry {
    std::string name;
    GenerationInfo info;
    uint64_t options;
    std::string displayName;
    std::optional<uint64_t> size = {};      // none if it can't be read
    std::vector<std::string> problems = {}; // with reading this generation
    bool isKnown = true;                    // whether the info could be read
};

// One line each, in their order.
void PrintEntries(const std::vector<Entry> &entries, bool asJson, bool isLong);

// One line for each document of theirs, in the order in which it comes first.
void PrintDocuments(const std::vector<Entry> &entries, bool asJson);
