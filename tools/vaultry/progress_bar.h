// One line on the terminal that shows how far a long operation has come.

#pragma once

#include <chrono>
#include <cstdint>
#include <string>

// Appears after half a second, so that short operations leave the terminal alone, and goes without a trace. Shows
// nothing if standard error is not a terminal. Belongs to one thread at a time.
class ProgressBar {
public:
    using Clock = std::chrono::steady_clock;

    // `label` is printable text, such as the document's name.
    explicit ProgressBar(std::string label);
    ~ProgressBar() { Clear(); }
    ProgressBar(const ProgressBar &) = delete;
    ProgressBar &operator=(const ProgressBar &) = delete;

    // Starts counting time anew: until now something else took it.
    void Restart();
    // Draws if it is time. A total of 0 or less means unknown.
    void Update(int64_t done, int64_t total);
    void Clear();

    // Whether bars are shown at all: only if standard error is a terminal.
    static bool AreShown();
    static void DisableAll();

private:
    std::string Line(int64_t done, int64_t total, double seconds) const;

    std::string label_;
    bool enabled_;
    bool shown_ = false;
    Clock::time_point start_, next_;
};
