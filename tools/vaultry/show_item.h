// What show tells of a generation and of an item of one.

#pragma once

#include "generation.h"
#include "json.h"

// Kind, size, permissions, owner, flags and time of a stored file or folder, which are those that the document had.
void DescribeStored(const std::string &path, Json &object, Problems &problems);

// Shows one item. Returns the exit code.
int ShowItem(const Store &store, const GenerationItem &item, bool json);
