// A generation in the words of people, one line for each thing that is known of it.

#pragma once

#include "json.h"

#include <string>
#include <vector>

// `object` is what a program is told. An entry that is not known here stands under its own name.
void PrintDescription(const Json &object, const std::vector<std::string> &moreLines = {});
