// What the copy service tells its client, and what the client answers.
//
// Without a callback, the copy goes on until the first error. A client's Quit is final: errno is then what the client
// set, or ECANCELED if it set none.

#pragma once

#include "Platform/duplix.h"

namespace platform {

// How one step of a copy ended.
enum class Copied {
    Yes,
    No,      // errno says why; nobody was told yet
    Stopped, // the client was told, or has quit; errno is what the copy ends with
};

class DuplixReports {
public:
    enum class Answer { Continue, Skip, Quit };

    DuplixReports(DuplixCallback callback, void *context) : callback_(callback), context_(context) {}

    // What the reports that follow are about. All borrowed.
    void SetSubject(const char *source, const TQFileStatus *status, const Item &destination);

    Answer Start(int what);
    Answer StartAttribute(const char *name);
    Answer AskForSubstitute(DuplixSubstitute substitute, const DuplixOpened &file);
    // The others return whether to go on.
    bool Finish(int what, const DuplixFinished *finished);
    bool Progress(uint64_t bytesCopied);
    bool Error(int what); // errno says what failed

private:
    Answer Ask(int what, int stage);
    static Answer Understand(int answer);

    DuplixCallback callback_;
    void *context_;
    const char *source_ = nullptr;
    DuplixState state_;
};

} // namespace platform
