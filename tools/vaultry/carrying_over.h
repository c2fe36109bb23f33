// A document's history follows it to a new path: each of its generations gets that path as its document.

#pragma once

#include "history.h"

// The generations of a document, backups included.
std::vector<std::string> NamesOf(const std::vector<Kept> &history, const std::string &document);

// Returns how many of them have the new path. Each that can't get it is one of the problems.
size_t CarryOver(const Store &store, std::vector<std::string> names, const std::string &to, Problems &problems);
