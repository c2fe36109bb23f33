// What a user notes of a generation: "key=text", or "key:=json" for any other value.

#pragma once

#include "owned.h"

#include <string>

struct Assignment {
    std::string key;
    Owned<TQValue> value; // null removes the key
};

// Throws with the usage exit code if it is none.
Assignment ParseAssignment(const std::string &text);
