// Times as options take them. Each throws, naming the option, if the text is no time, and says which moment is meant
// where clocks are put back or forward.

#pragma once

#include <string>

// The first and the last moment of the day, minute or second that the text names; and the last moment before it.
double FirstMomentOf(const std::string &option, const std::string &text);
double LastMomentOf(const std::string &option, const std::string &text);
double LastMomentBefore(const std::string &option, const std::string &text);
