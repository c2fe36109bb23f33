// The command's message when something goes wrong, and its exit code.
//
// A failure is one sentence that names the operation, the place and the reason, then at most a few lines that
// explain it. It is thrown where it is known, and shown once, where the command decides whether to go on. With --json
// each is an object on standard error, and so is each note.

#pragma once

#include <vaultry/error.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

enum ExitCode {
    kExitSuccess = 0,
    kExitFailure = 1,
    kExitUsage = 2,
    kExitNoSuchGeneration = 3,
    kExitExists = 4,
    kExitPermission = 5,
    kExitNoSpace = 6,
    kExitChanged = 7, // a document, while it was read
    kExitInUse = 8,
    kExitSignal = 128, // plus the signal's number: 130 for Ctrl-C
};

class CommandFailure : public std::runtime_error {
public:
    CommandFailure(int exitCode, const std::string &message) : std::runtime_error(message), exitCode_(exitCode) {}

    // `what` is the operation and its place, "can't add \"a\""; the reason is added to it.
    static CommandFailure Library(const std::string &what, const TQError *error);
    static CommandFailure Errno(const std::string &what, int errorNumber);

    // The same failure in other words, or with another exit code.
    CommandFailure Saying(const std::string &message) const;
    CommandFailure ExitingWith(int exitCode) const;
    // The same failure, of the document, file or store there, unless that is known already.
    CommandFailure At(const std::string &path) const;

    int exitCode() const { return exitCode_; }
    // As it is shown, with the end of the line.
    std::string Line() const;

private:
    struct LibraryError {
        int status;
        std::string domain;
        intptr_t code;
    };

    int exitCode_;
    std::optional<LibraryError> error_;
    int errorNumber_ = 0; // of the system error underneath, if there is one
    std::string path_;    // "" if it is none's
};

int ExitCodeForStatus(int status);

// The number of the system error underneath `error`; 0 if there is none.
int UnderlyingErrno(const TQError *error);

// Parts that could not be read, if the rest is worth showing all the same.
class Problems {
public:
    // Runs a step; a failure is noted instead of thrown.
    template <class Step> void Note(Step step)
    {
        try {
            step();
        } catch (const CommandFailure &failure) {
            failures_.push_back(failure);
        }
    }
    // Forgets one that only tells that the user stopped the reading.
    void ForgetStop()
    {
        std::erase_if(failures_, [](const CommandFailure &failure) { return failure.exitCode() > kExitSignal; });
    }
    bool none() const { return failures_.empty(); }
    const CommandFailure &first() const { return failures_.front(); }
    std::vector<std::string> texts() const;
    // Shows each.
    void SayAll() const;
    // The exit code of the first, or success.
    int exitCode() const { return none() ? kExitSuccess : failures_.front().exitCode(); }

private:
    std::vector<CommandFailure> failures_;
};

// Lets all that is said be objects.
void SayInJson();

// What is worth knowing, but no failure: one line on standard error, after "vaultry: ".
void Say(const std::string &note);
std::string LineOfNote(const std::string &note);
void Say(const CommandFailure &failure);
