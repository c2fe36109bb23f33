// A question to the user, on a terminal.

#pragma once

#include <string>

// Whether the answer is yes. Anything else, and no answer, counts as no.
bool Confirmed(const std::string &question);
