// See progress_bar.h.

#include "progress_bar.h"

#include "text.h"

#include <algorithm>
#include <sys/ioctl.h>
#include <unistd.h>

static constexpr size_t kBarWidth = 24;

static bool gDisabled = false;

static size_t _TerminalWidth()
{
    struct winsize size {};
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

ProgressBar::ProgressBar(std::string label) : label_(std::move(label)), enabled_(AreShown())
{
    Restart();
}

void ProgressBar::Restart()
{
    start_ = Clock::now();
    next_ = start_ + std::chrono::milliseconds(500);
}

bool ProgressBar::AreShown()
{
    return !gDisabled && IsTerminal(stderr);
}

void ProgressBar::DisableAll()
{
    gDisabled = true;
}

std::string ProgressBar::Line(int64_t done, int64_t total, double seconds) const
{
    const std::string rate = HumanSize(static_cast<uint64_t>(static_cast<double>(done) / seconds)) + "/s";
    std::string figures = HumanSize(static_cast<uint64_t>(done));
    if (total > 0) {
        const double share = std::min(1.0, static_cast<double>(done) / static_cast<double>(total));
        const auto filled = static_cast<size_t>(share * kBarWidth);
        char percent[8];
        snprintf(percent, sizeof percent, "%3d%%", static_cast<int>(share * 100));
        std::string bar = std::string(filled, '#') + std::string(kBarWidth - filled, '-');
        bar.insert(0, 1, '[').append("] ").append(percent).append("  ");
        figures = bar + figures + " of " + HumanSize(static_cast<uint64_t>(total));
    }
    figures += "  " + rate;

    // A line that is wider than the terminal would leave pieces behind; the figures matter more than the label.
    const size_t width = _TerminalWidth() - 1;
    if (figures.size() + 4 > width) return figures.substr(0, width);
    return FittedTo(label_, std::min<size_t>(width - figures.size() - 2, 40)) + "  " + figures;
}

void ProgressBar::Update(int64_t done, int64_t total)
{
    if (!enabled_) return;
    const auto now = Clock::now();
    if (now < next_) return;
    next_ = now + std::chrono::milliseconds(100);
    shown_ = true;
    const std::string line =
        Line(std::max<int64_t>(done, 0), total, std::chrono::duration<double>(now - start_).count());
    fprintf(stderr, "\r%s\x1b[K", line.c_str());
}

void ProgressBar::Clear()
{
    if (shown_) fputs("\r\x1b[K", stderr);
    shown_ = false;
}
