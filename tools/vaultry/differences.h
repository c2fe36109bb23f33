// How differences between two trees are shown.

#pragma once

#include "arguments.h"
#include "comparing.h"

class DifferencePrinter {
public:
    DifferencePrinter(const ComparedTree &first, const ComparedTree &second, const Arguments &arguments)
        : first_(first), second_(second), arguments_(arguments)
    {
    }

    void Show(const Difference &difference);
    // What comes after the last one.
    void Finish() const;
    bool none() const { return count_ == 0; }

private:
    void ShowJson(const Difference &difference) const;
    std::string WordsFor(const Difference &difference) const;
    void ShowContents(const Difference &difference) const;
    void ShowTotals() const;

    const ComparedTree &first_, &second_;
    const Arguments &arguments_;
    size_t count_ = 0;
    std::map<unsigned, size_t> counts_{}; // by change
    uint64_t before_ = 0, now_ = 0;       // bytes of the files whose contents differ
};
