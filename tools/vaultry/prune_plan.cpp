// See prune_plan.h.

#include "prune_plan.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <tuple>
#include <utility>

static constexpr std::array<const char *, static_cast<size_t>(Rule::Count)> kRuleWords = {
    "hourly", "daily", "weekly", "monthly", "yearly", "last", "within", "pinned", "newest", "foreign", "future",
};

std::vector<std::string> RuleWords(const RuleSet &rules)
{
    std::vector<std::string> words;
    for (size_t rule = 0; rule < rules.size(); ++rule)
        if (rules.test(rule)) words.emplace_back(kRuleWords[rule]);
    return words;
}

bool PruneRules::areSome() const
{
    return last > 0 || within || std::any_of(spans.begin(), spans.end(), [](size_t count) { return count > 0; });
}

using Spans = std::array<int64_t, kSpanRules>;

static constexpr int64_t kHour = 3600, kDay = 24 * kHour;

// Rounded down, also before 1970.
static int64_t _Quotient(int64_t number, int64_t divisor)
{
    return (number - (number % divisor + divisor) % divisor) / divisor;
}

// The number of the hour, day, week, month and year of the local calendar. An hour that clocks show twice is two.
static Spans _SpansAt(double time)
{
    const auto seconds = static_cast<time_t>(std::floor(time));
    struct tm parts {};
    (void)localtime_r(&seconds, &parts);
    const int64_t shown = seconds + parts.tm_gmtoff, day = _Quotient(shown, kDay);
    const int64_t hourBegan = _Quotient(shown, kHour) * kHour - parts.tm_gmtoff;
    return {hourBegan, day, _Quotient(day + 3, 7), // 1970 began on a Thursday, and weeks begin on Mondays
            parts.tm_year * INT64_C(12) + parts.tm_mon, parts.tm_year};
}

PrunePlan::PrunePlan(const PruneRules &rules, std::vector<Generation> generations)
    : generations_(std::move(generations))
{
    std::sort(generations_.begin(), generations_.end(), [](const Generation &a, const Generation &b) {
        return std::tie(a.time, a.name) < std::tie(b.time, b.name);
    });
    std::array<size_t, kSpanRules> left = rules.spans;
    std::array<std::optional<int64_t>, kSpanRules> before; // the span of the generation before, which is newer
    size_t lastLeft = rules.last;
    for (auto generation = generations_.rbegin(); generation != generations_.rend(); ++generation) {
        const auto keepBy = [&](Rule rule) { generation->keptBy.set(static_cast<size_t>(rule)); };
        const Spans spans = _SpansAt(generation->time);
        for (size_t rule = 0; rule < kSpanRules; ++rule) {
            if (std::exchange(before[rule], spans[rule]) == spans[rule] || left[rule] == 0) continue;
            --left[rule];
            keepBy(static_cast<Rule>(rule));
        }
        if (lastLeft > 0) {
            --lastLeft;
            keepBy(Rule::Last);
        }
        if (rules.within && generation->time >= *rules.within) keepBy(Rule::Within);
        if (generation->isPinned) keepBy(Rule::Pinned);
        if (generation == generations_.rbegin() && generation->keptBy.none()) keepBy(Rule::Newest);
    }
}
