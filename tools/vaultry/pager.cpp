// See pager.h.

#include "pager.h"

#include "text.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <stdio_ext.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

static bool gIsDisabled = false, gHasFailed = false;
static pid_t gProcess = -1;

std::optional<Screen> ScreenOfOutput()
{
    struct winsize size {};
    if (!IsTerminal(stdout) || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return std::nullopt;
    if (size.ws_row == 0 || size.ws_col == 0) return std::nullopt;
    return Screen{size.ws_row, size.ws_col};
}

extern "C" {
static void _Wait(pid_t process, int *status)
{
    while (waitpid(process, status, 0) < 0 && errno == EINTR) {
    }
}

// Ctrl-C ends what is still to be printed. The pager has the terminal until the user quits it.
static void _OnInterrupt(int number)
{
    (void)close(STDOUT_FILENO);
    _Wait(gProcess, nullptr);
    signal(number, SIG_DFL);
    raise(number);
}

// Whoever writes to a pager that was quit is told by its error. Unlike an ignored signal, programs that are started
// meanwhile have this one as it was.
static void _OnPipe(int) {}
}

static std::string _Command()
{
    const char *command = getenv("VAULTRY_PAGER");
    if (!command) command = getenv("PAGER");
    return command ? command : "less";
}

bool Pager::IsFor(size_t lines)
{
    const std::optional<Screen> screen = ScreenOfOutput();
    const std::string command = _Command();
    return !gIsDisabled && screen && lines >= screen->rows && !command.empty() && command != "cat";
}

Pager::Pager(size_t lines)
{
    if (IsFor(lines)) Start(_Command());
}

void Pager::Start(const std::string &command)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return;
    setenv("LESS", "FRX", /*overwrite=*/0); // short texts are just printed, and stay on the screen
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[0], STDIN_FILENO);
    const char *direct[] = {command.c_str(), nullptr}, *byShell[] = {"sh", "-c", command.c_str(), nullptr};
    const char **words = command == "less" ? direct : byShell;
    fflush(stdout);
    if (posix_spawnp(&process_, words[0], &actions, nullptr, const_cast<char **>(words), environ) != 0) process_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    if (process_ >= 0) {
        gProcess = process_;
        terminal_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
        onPipe_ = signal(SIGPIPE, _OnPipe);
        onInterrupt_ = signal(SIGINT, _OnInterrupt);
        (void)dup2(ends[1], STDOUT_FILENO);
    }
    (void)close(ends[0]);
    (void)close(ends[1]);
}

Pager::~Pager()
{
    if (process_ < 0) return;
    (void)fflush(stdout);
    __fpurge(stdout); // of what nobody wanted to see
    clearerr(stdout);
    (void)dup2(terminal_, STDOUT_FILENO);
    (void)close(terminal_);
    int status = 0;
    _Wait(process_, &status);
    signal(SIGPIPE, onPipe_);
    signal(SIGINT, onInterrupt_);
    static constexpr int kCanNotBeRun = 126, kNotFound = 127; // as shells say it
    gHasFailed |= WIFEXITED(status) && (WEXITSTATUS(status) == kCanNotBeRun || WEXITSTATUS(status) == kNotFound);
}

bool Pager::TakeFailure()
{
    return std::exchange(gHasFailed, false);
}

void Pager::DisableAll()
{
    gIsDisabled = true;
}

void PrintLines(const std::vector<std::string> &lines)
{
    const Pager pager(lines.size());
    for (const std::string &line : lines) puts(line.c_str());
}
