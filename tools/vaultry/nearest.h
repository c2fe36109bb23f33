// What a user may have meant by a word that is wrong.

#pragma once

#include <optional>
#include <string>
#include <vector>

enum class Match { Whole, Beginning };

// The candidate that the fewest slips of the fingers turn into `word`: a character too many, too few, wrong, or changed
// with the next one. What is missing at its end counts as one slip, and with Match::Beginning as none. No candidate if
// it would need more than one for three characters. Among equals, the last.
std::optional<std::string> NearestTo(const std::string &word, const std::vector<std::string> &candidates, Match match);

// ": did you mean …?", or nothing.
std::string DidYouMean(const std::optional<std::string> &nearest);
