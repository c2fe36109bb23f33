// Changes one value of a generation's info dictionary. The user is told why that fails.

#pragma once

#include "store.h"

void SetInfoValue(const Store &store, const std::string &name, const std::string &key, TQValue *value);

// There has to be one.
void RemoveInfoValue(const Store &store, const std::string &name, const std::string &key);
