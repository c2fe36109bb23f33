// Which of a document's generations a prune keeps, and by which rule.
//
// It goes by names, times and rules alone, and looks at neither the store nor the clock: the same ones always give the
// same plan. Always: the newest generation stays, and so does each that is pinned.

#pragma once

#include <array>
#include <bitset>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

// What a generation is kept by. The rules that go by a span keep the newest of each.
enum class Rule { Hourly, Daily, Weekly, Monthly, Yearly, Last, Within, Pinned, Newest, Foreign, Future, Count };
inline constexpr size_t kSpanRules = 5; // the first of them

using RuleSet = std::bitset<static_cast<size_t>(Rule::Count)>;

// The words for rules, in order.
std::vector<std::string> RuleWords(const RuleSet &rules);

struct PruneRules {
    std::array<size_t, kSpanRules>
        spans{};                       // how many of each rule's spans, of those that hold a generation; 0 for none
    size_t last = 0;                   // how many of the newest
    std::optional<double> within = {}; // since then, all

    bool areSome() const;
};

class PrunePlan {
public:
    struct Generation {
        std::string name;
        double time; // seconds since 1970, of a year that the calendar has
        bool isPinned = false;
        bool isTimeNoted = true; // or guessed
        RuleSet keptBy = {};     // it goes if there is none
    };

    PrunePlan(const PruneRules &rules, std::vector<Generation> generations);

    // Oldest first.
    const std::vector<Generation> &generations() const { return generations_; }

private:
    std::vector<Generation> generations_;
};
