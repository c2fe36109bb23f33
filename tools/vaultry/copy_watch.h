// Shows how much of a copy has been written, by looking at it: copying out reports no progress of its own.

#pragma once

#include "progress_bar.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// Watches on a thread of its own as long as it lives; makes no thread if nobody would see the bar.
class CopyWatch {
public:
    // The paths that are being written; asked for each time.
    using Places = std::function<std::vector<std::string>()>;

    CopyWatch(std::string source, std::string label, Places places);
    ~CopyWatch();
    CopyWatch(const CopyWatch &) = delete;
    CopyWatch &operator=(const CopyWatch &) = delete;

private:
    void Watch();
    // Sleeps; false if the watch is over.
    bool Wait(std::chrono::steady_clock::duration time);

    const std::string source_;
    const std::string label_;
    const Places places_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool isOver_ = false;
    std::thread thread_;
};
