// Shows how much of a copy has been written, by looking at it: copying out reports no progress of its own.

#pragma once

#include "progress_bar.h"

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

// Watches on a thread of its own as long as it lives; no thread where nobody would see it.
class CopyWatch {
public:
    CopyWatch(std::string source, std::string destination);
    ~CopyWatch();
    CopyWatch(const CopyWatch &) = delete;
    CopyWatch &operator=(const CopyWatch &) = delete;

private:
    void Watch();
    // Sleeps; false if the watch is over.
    bool Wait(std::chrono::steady_clock::duration time);

    const std::string source_;
    const std::string destination_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool isOver_ = false;
    std::thread thread_;
};
