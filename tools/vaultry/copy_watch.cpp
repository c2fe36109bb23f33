// See copy_watch.h.

#include "copy_watch.h"

#include <vaultry/archive.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sys/stat.h>

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// The allocated bytes if they are fewer than the size: a file may have its full size before it has its data.
static int64_t _Written(const std::string &path)
{
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return 0;
    const bool mayLieInTheInode = status.st_size < 4096;
    return mayLieInTheInode ? status.st_size : std::min<int64_t>(status.st_size, status.st_blocks * 512);
}

static int64_t _WrittenTree(const std::string &path)
{
    int64_t bytes = _Written(path);
    std::error_code error;
    if (fs::symlink_status(path, error).type() != fs::file_type::directory) return bytes;
    for (fs::recursive_directory_iterator item(path, error), end; !error && item != end; item.increment(error))
        bytes += _Written(item->path());
    return bytes;
}

CopyWatch::CopyWatch(std::string source, std::string label, Places places)
    : source_(std::move(source)), label_(std::move(label)), places_(std::move(places))
{
    if (!ProgressBar::AreShown()) return;
    // Signals are for the thread that copies: it may be waiting for the store's lock, which a signal ends.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    thread_ = std::thread(&CopyWatch::Watch, this);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

CopyWatch::~CopyWatch()
{
    {
        const std::lock_guard lock(mutex_);
        isOver_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

bool CopyWatch::Wait(Clock::duration time)
{
    std::unique_lock lock(mutex_);
    return !wake_.wait_for(lock, time, [this] { return isOver_; });
}

void CopyWatch::Watch()
{
    ProgressBar bar(label_);
    if (!Wait(std::chrono::milliseconds(500))) return;
    const int64_t total = TQComputeTreeSize(source_.c_str(), nullptr);
    Clock::duration pause = std::chrono::milliseconds(200);
    do {
        const auto start = Clock::now();
        int64_t written = 0;
        for (const std::string &place : places_()) written += _WrittenTree(place);
        bar.Update(written, total);
        // Looking at a big tree takes time from copying it, but never more than a tenth.
        pause = std::max<Clock::duration>(std::chrono::milliseconds(200), 10 * (Clock::now() - start));
    } while (Wait(pause));
}
