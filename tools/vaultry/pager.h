// What is longer than the screen is shown page by page, where standard output is a terminal.
//
// The pager is $VAULTRY_PAGER or $PAGER, run by a shell, else less; none if that is empty, "cat" or not there. Who has
// seen enough quits it, and that is no failure.

#pragma once

#include <csignal>
#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

// Of the terminal that is standard output; none if it is no terminal, or does not tell.
struct Screen {
    size_t rows, columns;
};
std::optional<Screen> ScreenOfOutput();

// As long as one lives, the pager has what is printed. At its end, the user has quit the pager.
class Pager {
public:
    // Nothing is started for that many lines if they fit the screen. A pager finds out itself if nobody knows yet.
    explicit Pager(size_t lines = SIZE_MAX);
    ~Pager();
    Pager(const Pager &) = delete;
    Pager &operator=(const Pager &) = delete;

    // Whether one would be started.
    static bool IsFor(size_t lines);
    // Lets none be started from now on.
    static void DisableAll();
    // Whether one could not be run, so that nothing was shown. It is told once.
    static bool TakeFailure();

private:
    void Start(const std::string &command);

    pid_t process_ = -1;
    int terminal_ = -1;                                     // standard output, meanwhile
    sighandler_t onPipe_ = SIG_DFL, onInterrupt_ = SIG_DFL; // before it
};

// Prints lines, in a pager if they are many.
void PrintLines(const std::vector<std::string> &lines);
