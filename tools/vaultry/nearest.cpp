// See nearest.h.

#include "nearest.h"

#include "text.h"

#include <algorithm>
#include <array>

// How many slips lie between the two; more than `limit` is all alike.
static size_t _Slips(const std::string &word, const std::string &candidate, Match match, size_t limit)
{
    if (match == Match::Whole && candidate.rfind(word, 0) == 0)
        return std::min<size_t>(candidate.size() - word.size(), 1);
    const size_t width = match == Match::Whole ? candidate.size() : std::min(candidate.size(), word.size() + limit);
    // The rows of the last three characters of `word`; an entry is the slips up to a character of `candidate`.
    std::array<std::vector<size_t>, 3> rows;
    for (auto &row : rows) row.resize(width + 1);
    for (size_t j = 0; j <= width; ++j) rows[0][j] = j;
    for (size_t i = 1; i <= word.size(); ++i) {
        std::vector<size_t> &row = rows[i % 3];
        const std::vector<size_t> &above = rows[(i + 2) % 3], &twoAbove = rows[(i + 1) % 3];
        row[0] = i;
        for (size_t j = 1; j <= width; ++j) {
            const bool isSame = word[i - 1] == candidate[j - 1];
            row[j] = std::min({above[j] + 1, row[j - 1] + 1, above[j - 1] + (isSame ? 0 : 1)});
            const bool areSwapped =
                i > 1 && j > 1 && word[i - 1] == candidate[j - 2] && word[i - 2] == candidate[j - 1];
            if (areSwapped) row[j] = std::min(row[j], twoAbove[j - 2] + 1);
        }
        if (*std::min_element(row.begin(), row.end()) > limit) return limit + 1;
    }
    const std::vector<size_t> &last = rows[word.size() % 3];
    return match == Match::Whole ? last.back() : *std::min_element(last.begin(), last.end());
}

std::optional<std::string> NearestTo(const std::string &word, const std::vector<std::string> &candidates, Match match)
{
    std::optional<std::string> nearest;
    size_t limit = (word.size() + 2) / 3;
    for (const std::string &candidate : candidates) {
        const size_t slips = _Slips(word, candidate, match, limit);
        if (slips > limit || slips >= word.size() || (nearest && slips == limit)) continue;
        nearest = candidate;
        limit = slips;
    }
    return nearest;
}

std::string DidYouMean(const std::optional<std::string> &nearest)
{
    return nearest ? ": did you mean " + Quoted(*nearest) + "?" : "";
}
