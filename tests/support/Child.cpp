#include "support/Child.h"

#include "Platform/SystemLog.h"
#include "support/Library.h"

#include <vaultry/log.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/audit.h>
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

#ifndef SYS_fchmodat2
#define SYS_fchmodat2 452
#endif
#ifndef SYS_file_setattr
#define SYS_file_setattr 469
#endif

// Calls that newer machines never had are left out of the sets.
#if defined(__x86_64__)
#define OLDER(...) __VA_ARGS__
#else
#define OLDER(...)
#endif
const Calls kMemory{{SYS_brk, SYS_mmap, SYS_munmap, SYS_mremap, SYS_mprotect, SYS_madvise, SYS_futex, SYS_getrandom}};
const Calls kAllButMemory{kMemory.numbers, true};
const Calls kRename{{OLDER(SYS_rename, ) SYS_renameat, SYS_renameat2}};
const Calls kMode{{OLDER(SYS_chmod, ) SYS_fchmod, SYS_fchmodat, SYS_fchmodat2}};
const Calls kStatus{{OLDER(SYS_stat, SYS_lstat, ) SYS_newfstatat, SYS_fstat, SYS_statx}};
const Calls kOpen{{OLDER(SYS_open, ) SYS_openat, SYS_openat2}};
const Calls kSetAttribute{{SYS_setxattr, SYS_lsetxattr, SYS_fsetxattr}};
const Calls kMakeDirectory{{OLDER(SYS_mkdir, ) SYS_mkdirat}};
const Calls kRemove{{OLDER(SYS_unlink, SYS_rmdir, ) SYS_unlinkat}};
const Calls kGetAttribute{{SYS_getxattr, SYS_lgetxattr, SYS_fgetxattr}};
const Calls kFlags{{SYS_ioctl, SYS_file_setattr}};
const Calls kLock{{SYS_flock}};
const Calls kReadDirectory{{SYS_getdents64}};

bool Calls::Contain(int number) const
{
    return (std::find(numbers.begin(), numbers.end(), number) != numbers.end()) != except;
}

namespace {

constexpr size_t kLines = 200, kText = 1200;

// What the child leaves for its parent, in memory that both see.
struct Report {
    std::atomic<bool> counting, finished;
    bool succeeded, hasError, allocationFailed;
    int32_t status;
    intptr_t underlying;
    char message[kText];
    size_t lineCount;
    struct {
        int level;
        char text[kText];
    } lines[kLines];
};
Report *report;
int allocationsLeft = -1;

[[maybe_unused]] bool AllocationFails()
{
    if (allocationsLeft <= 0 || --allocationsLeft > 0) return false;
    report->allocationFailed = true;
    errno = ENOMEM;
    return true;
}

void Keep(int level, const char *line)
{
    if (report->lineCount == kLines) return;
    auto &slot = report->lines[report->lineCount++];
    slot.level = level;
    (void)snprintf(slot.text, kText, "%s", line);
}

[[noreturn]] void RunChild(const Fault &fault, const Operation &operation)
{
    platform::SetLogSink(Keep);
    (void)tq_log_set_level(7);
    OwnedError error;
    TQError **const out = error.out();
    allocationsLeft = fault.act == Fault::Act::FailAllocation ? fault.nth : -1;
    report->counting = true;
    const bool succeeded = operation(out);
    report->counting = false;
    allocationsLeft = -1;
    report->succeeded = succeeded;
    report->hasError = !succeeded && error.get() != nullptr;
    if (report->hasError) {
        report->status = error.status();
        report->underlying = error.underlying();
        (void)snprintf(report->message, kText, "%s", error.description().c_str());
    }
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

// From here on every call of the child waits for its parent's answer, but for those that end a process or, like
// sendmsg below, hand the listener over.
void ListenAndPass(int socket)
{
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_sendmsg, 3, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit_group, 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_rt_sigreturn, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter = {static_cast<unsigned short>(std::size(program)), program};
    // An ordinary user may filter only what can't gain privileges any more.
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

// Answers the child's calls until it has ended.
void Supervise(pid_t child, int listener, const Fault &fault, Outcome &outcome)
{
    bool killNext = false;
    for (;;) {
        pollfd ready = {listener, POLLIN, 0};
        if (poll(&ready, 1, -1) < 0 || (ready.revents & POLLIN) == 0) return; // nobody is left behind the filter
        seccomp_notif call{};
        if (ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &call) != 0) continue;
        const bool counted = report->counting && fault.calls.Contain(call.data.nr);
        outcome.count += counted ? 1 : 0;
        const bool here = counted && (outcome.count == fault.nth ||
                                      (fault.act == Fault::Act::FailFromThere && outcome.count > fault.nth));
        outcome.faultFired |= here;
        if (killNext || (here && fault.act == Fault::Act::KillBefore)) {
            (void)kill(child, SIGKILL);
            return;
        }
        // What a call did is done when the next one begins.
        killNext = here && fault.act == Fault::Act::KillAfter;
        const bool fail = here && !killNext;
        seccomp_notif_resp answer{};
        answer.id = call.id;
        answer.error = fail ? -fault.error : 0;
        answer.flags = fail ? 0 : SECCOMP_USER_NOTIF_FLAG_CONTINUE;
        (void)ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &answer);
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
    if (const int listener = listens ? ReceiveListener(sockets[0]) : -1; listener >= 0) {
        Supervise(child, listener, fault, outcome);
        (void)close(listener);
    }
    (void)close(sockets[0]);
    int ended = 0;
    (void)waitpid(child, &ended, 0);

    using Fate = Outcome::Fate;
    outcome.succeeded = report->finished && report->succeeded;
    outcome.fate = outcome.succeeded                                  ? Fate::Succeeded
                   : report->finished                                 ? Fate::Failed
                   : WIFSIGNALED(ended) && WTERMSIG(ended) == SIGKILL ? Fate::Killed
                                                                      : Fate::Crashed;
    outcome.faultFired |= report->allocationFailed;
    outcome.hasError = report->hasError;
    outcome.status = report->status;
    outcome.underlying = report->underlying;
    outcome.message = report->message;
    for (size_t i = 0; i < report->lineCount; ++i)
        outcome.log.push_back({report->lines[i].level, report->lines[i].text});
    (void)munmap(report, sizeof(Report));
    return outcome;
}

// The C library's own allocator, made to fail on demand. The sanitizers bring theirs, which is left alone.
#if defined(__has_feature)
#define HAS_FEATURE(feature) __has_feature(feature)
#else
#define HAS_FEATURE(feature) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || HAS_FEATURE(address_sanitizer) ||                 \
    HAS_FEATURE(thread_sanitizer)
const bool kCanFailAllocations = false;
#else
const bool kCanFailAllocations = true;
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *pointer, size_t size);
void *malloc(size_t size)
{
    return AllocationFails() ? nullptr : __libc_malloc(size);
}
void *calloc(size_t count, size_t size)
{
    return AllocationFails() ? nullptr : __libc_calloc(count, size);
}
void *realloc(void *pointer, size_t size)
{
    return AllocationFails() ? nullptr : __libc_realloc(pointer, size);
}
}
#endif
