#include "support/Child.h"

#include "Platform/SystemLog.h"
#include "support/Library.h"

#include <vaultry/log.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#ifndef SYS_file_setattr
#define SYS_file_setattr 469
#endif

const Calls kFlags{SYS_ioctl, SYS_file_setattr};
const Calls kLock{SYS_flock};

namespace {

// Calls that the parent does not hear of: those for memory, whose failures the allocator reports; those that end a
// process; and sendmsg, which hands the listener over.
constexpr int kUnheard[] = {SYS_brk,     SYS_mmap,    SYS_munmap,         SYS_mremap,       SYS_mprotect,
                            SYS_madvise, SYS_futex,   SYS_exit_group,     SYS_tgkill,       SYS_gettid,
                            SYS_getpid,  SYS_sendmsg, SYS_rt_sigprocmask, SYS_rt_sigaction, SYS_rt_sigreturn};
constexpr int kEndless = 100000; // far more calls than any operation of a test makes

// The child's report to its parent, in shared memory.
struct Report {
    std::atomic<bool> counting, finished;
    Result result;
    size_t used;
    char texts[256 << 10]; // each after its kind and with its zero: 'E'rror, 'A'nswer, or the level of a line
};
Report *report;
int allocationsLeft; // until one fails, if above 0
bool tracking;       // allocations,
int live;            // and those not given back

void Keep(char kind, const char *text)
{
    const size_t size = std::strlen(text) + 2;
    if (report->used + size > sizeof report->texts) return;
    report->texts[report->used] = kind;
    std::memcpy(report->texts + report->used + 1, text, size - 1);
    report->used += size;
}

void StopCounting()
{
    report->counting = false;
    allocationsLeft = 0;
}

[[noreturn]] void RunChild(const Fault &fault, const Operation &operation)
{
    platform::SetLogSink([](int level, const char *line) { Keep(static_cast<char>('0' + level), line); });
    (void)tq_log_set_level(7);
    OwnedError error;
    TQError **const out = error.out();
    Result &result = report->result;
    allocationsLeft = fault.act == Fault::Act::FailAllocation ? fault.nth : 0;
    report->counting = tracking = true;
    result.succeeded = operation(out);
    StopCounting();
    result.hasError = !result.succeeded && error.get() != nullptr;
    if (result.hasError) {
        result.status = error.status();
        result.underlying = error.underlying();
        Keep('E', error.description().c_str());
    }
    (void)error.out(); // releases the error
    result.leaked = live;
    report->finished = true;
    _exit(0);
}

// A message of one byte and one descriptor.
struct Passed {
    char byte = 0;
    iovec data{&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{nullptr, 0, &data, 1, control, sizeof control, 0};
};

// From now on every call of the child waits for its parent's answer.
void ListenAndPass(int socket)
{
    std::vector<sock_filter> program{BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const int unheard : kUnheard) {
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(unheard), 0, 1));
        program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF));
    const sock_fprog filter = {static_cast<unsigned short>(program.size()), program.data()};
    // An ordinary user may set a filter only if the process can't gain privileges any more.
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) _exit(2);
    const long listener = syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &filter);
    if (listener < 0) _exit(3);
    Passed passed;
    cmsghdr *header = CMSG_FIRSTHDR(&passed.message);
    *header = {CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
    const int fd = static_cast<int>(listener);
    std::memcpy(CMSG_DATA(header), &fd, sizeof fd);
    if (sendmsg(socket, &passed.message, 0) != 1) _exit(4);
}

int ReceiveListener(int socket)
{
    Passed passed;
    int fd = -1;
    if (recvmsg(socket, &passed.message, MSG_CMSG_CLOEXEC) == 1)
        std::memcpy(&fd, CMSG_DATA(CMSG_FIRSTHDR(&passed.message)), sizeof fd);
    return fd;
}

// Answers the child's calls until it has ended. False if it had to be killed here because it went on for ever.
bool Supervise(pid_t child, int listener, const Fault &fault, Outcome &outcome)
{
    // Where the kernel can, whoever wakes the other gives it this processor: they never work at the same time.
    constexpr unsigned long kSetFlags = _IOW('!', 4, uint64_t), kSyncWakeUp = 1; // missing in older headers
    (void)ioctl(listener, kSetFlags, kSyncWakeUp);
    for (bool killNext = false;;) {
        pollfd ready = {listener, POLLIN, 0};
        if (poll(&ready, 1, -1) < 0 || (ready.revents & POLLIN) == 0) return true; // no filtered process is left
        seccomp_notif call{};
        if (ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &call) != 0) continue;
        const auto &calls = fault.calls;
        const bool counted =
            report->counting && (calls.empty() || std::find(calls.begin(), calls.end(), call.data.nr) != calls.end());
        outcome.count += counted ? 1 : 0;
        const bool first = counted && outcome.count == fault.nth,
                   here = first || (counted && fault.fromThereOn && outcome.count > fault.nth);
        report->result.faultFired |= here;
        if (first) outcome.call = call.data.nr;
        const bool endless = outcome.count > kEndless;
        if (killNext || endless || (here && fault.act == Fault::Act::KillBefore)) {
            (void)kill(child, SIGKILL);
            return !endless;
        }
        // A call is complete when the next one begins.
        killNext = here && fault.act == Fault::Act::KillAfter;
        const bool fail = here && !killNext;
        seccomp_notif_resp answer{};
        answer.id = call.id;
        answer.error = fail ? -fault.error : 0;
        answer.flags = fail ? 0 : SECCOMP_USER_NOTIF_FLAG_CONTINUE;
        (void)ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &answer);
    }
}

void ReadReport(Outcome &outcome)
{
    static_cast<Result &>(outcome) = report->result;
    outcome.succeeded &= report->finished;
    for (size_t at = 0; at < report->used;) {
        const std::string text = report->texts + at;
        at += text.size() + 1;
        if (text[0] == 'E' || text[0] == 'A')
            (text[0] == 'E' ? outcome.message : outcome.answer) = text.substr(1);
        else
            outcome.log.push_back({text[0] - '0', text.substr(1)});
    }
}

} // namespace

Outcome InChild(const Fault &fault, const Operation &operation)
{
    const bool listens = fault.act != Fault::Act::None && fault.act != Fault::Act::FailAllocation;
    report =
        static_cast<Report *>(mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    int sockets[2];
    if (report == MAP_FAILED || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) abort();
    (void)fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) abort();
    if (child == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        (void)close(sockets[0]);
        if (listens) ListenAndPass(sockets[1]);
        RunChild(fault, operation);
    }
    (void)close(sockets[1]);
    Outcome outcome;
    bool ends = true;
    if (const int listener = listens ? ReceiveListener(sockets[0]) : -1; listener >= 0) {
        ends = Supervise(child, listener, fault, outcome);
        (void)close(listener);
    }
    (void)close(sockets[0]);
    int ended = 0;
    (void)waitpid(child, &ended, 0);
    ReadReport(outcome);
    outcome.signal = WIFSIGNALED(ended) ? WTERMSIG(ended) : 0;
    using Fate = Outcome::Fate;
    outcome.fate = outcome.succeeded                   ? Fate::Succeeded
                   : report->finished                  ? Fate::Failed
                   : ends && outcome.signal == SIGKILL ? Fate::Killed
                                                       : Fate::Crashed;
    (void)munmap(report, sizeof(Report));
    report = nullptr;
    return outcome;
}

void Answer(const std::function<std::string()> &text)
{
    if (!report) return; // not in a child
    StopCounting();
    Keep('A', text().c_str());
}

// The C library's own allocator, counted in a child and made to fail on demand. The sanitizers have their own, which is
// left alone.
#ifdef VAULTRY_SANITIZED
const bool kIsSanitized = true;
#else
const bool kIsSanitized = false;

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *pointer, size_t size);
void __libc_free(void *pointer);

static bool _Fails()
{
    if (allocationsLeft <= 0 || --allocationsLeft > 0) return false;
    report->result.faultFired = true;
    errno = ENOMEM;
    return true;
}
static void *_Tracked(void *pointer)
{
    if (tracking && pointer) ++live;
    return pointer;
}
void *malloc(size_t size)
{
    return _Fails() ? nullptr : _Tracked(__libc_malloc(size));
}
void *calloc(size_t count, size_t size)
{
    return _Fails() ? nullptr : _Tracked(__libc_calloc(count, size));
}
void *realloc(void *pointer, size_t size)
{
    if (_Fails()) return nullptr;
    return pointer ? __libc_realloc(pointer, size) : _Tracked(__libc_malloc(size));
}
void free(void *pointer)
{
    if (tracking && pointer) --live;
    __libc_free(pointer);
}
}
#endif
