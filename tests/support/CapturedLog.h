// Catches the diagnostic lines of a scope, at all levels, instead of the system log.

#pragma once

#include "Platform/SystemLog.h"
#include "support/Child.h"

#include <vaultry/log.h>

#include <mutex>

class CapturedLog {
public:
    explicit CapturedLog(int32_t threshold = 7) : before_(tq_log_min_priority)
    {
        lines_.clear();
        (void)tq_log_set_level(threshold);
        platform::SetLogSink([](int level, const char *line) {
            const std::lock_guard<std::mutex> guard(mutex_);
            lines_.push_back({level, line});
        });
    }
    ~CapturedLog()
    {
        platform::SetLogSink(nullptr);
        (void)tq_log_set_level(before_);
    }
    CapturedLog(const CapturedLog &) = delete;
    CapturedLog &operator=(const CapturedLog &) = delete;

    // The lines so far as "LEVEL message"; forgets them.
    static std::vector<std::string> Take()
    {
        std::vector<std::string> taken;
        for (const auto &[level, line] : lines_) {
            const size_t begin = line.find(' ') + 1;
            taken.push_back(std::to_string(level) + " " + line.substr(begin, line.rfind(" (on ") - begin));
        }
        lines_.clear();
        return taken;
    }
    static const std::vector<LogLine> &Whole() { return lines_; }

private:
    static inline std::mutex mutex_;
    static inline std::vector<LogLine> lines_;
    int32_t before_;
};
