// The vaultry command: earlier versions of documents, kept and brought back from a shell.
//
// A client like any other: it uses only the public headers. Each subcommand has a file; failures are thrown as a
// CommandFailure and shown here.

#include "commands.h"
#include "failure.h"
#include "location.h"
#include "output.h"
#include "pager.h"
#include "progress_bar.h"
#include "waiting.h"

#include <vaultry/log.h>

#include <clocale>
#include <exception>
#include <new>
#include <syslog.h>

static void _OpenLog(bool verbose)
{
    // The library's lines have this name in the system log; with -v they also appear here.
    openlog("vaultry", verbose ? LOG_PERROR : 0, LOG_USER);
    if (!verbose) return;
    while (!tq_log_set_level(LOG_DEBUG)) {
    }
    ProgressBar::DisableAll();
}

static int _Run(const Arguments &arguments)
{
    switch (arguments.command) {
    case Command::Init:
        return RunInit(arguments);
    case Command::Add:
        return RunAdd(arguments);
    case Command::List:
        return RunList(arguments);
    case Command::Show:
        return RunShow(arguments);
    case Command::Copy:
        return RunCopy(arguments);
    case Command::Restore:
        return RunRestore(arguments);
    case Command::Undo:
        return RunUndo(arguments);
    case Command::Moved:
        return RunMoved(arguments);
    case Command::Diff:
        return RunDiff(arguments);
    case Command::Set:
        return RunSet(arguments);
    case Command::Remove:
        return RunRemove(arguments);
    case Command::Pin:
    case Command::Unpin:
        return RunPin(arguments);
    case Command::Prune:
        return RunPrune(arguments);
    case Command::Seal:
        return RunSeal(arguments);
    case Command::Usage:
        return RunUsage(arguments);
    case Command::Clone:
        return RunClone(arguments);
    case Command::Check:
        return RunCheck(arguments);
    case Command::Destroy:
        return RunDestroy(arguments);
    case Command::Completion: // printed where the command line is defined
        return kExitSuccess;
    }
    return kExitUsage;
}

// What went wrong names a call of the system; where all of them fail alike, this tells what they have in common.
static void _TellIfSilent(const Arguments &arguments)
{
    try {
        if (!DoesAnswer(LocateStore(arguments.checked ? arguments.checked : arguments.store)))
            Say("the store's volume does not answer");
    } catch (const std::exception &) { // what went wrong was that nobody can tell where the store is
    }
}

static int _RunAndReport(int argc, char **argv)
{
    Arguments arguments;
    try {
        if (const auto exitCode = ParseArguments(argc, argv, arguments)) return *exitCode;
        _OpenLog(arguments.verbose);
        if (arguments.json) ProgressBar::DisableAll();
        if (arguments.noPager) Pager::DisableAll();
        const WaitWatch watch(arguments.wait);
        const int exitCode = _Run(arguments);
        if (exitCode == kExitFailure) _TellIfSilent(arguments);
        return exitCode;
    } catch (const CommandFailure &failure) {
        Say(failure);
        if (failure.exitCode() == kExitFailure) _TellIfSilent(arguments);
        return failure.exitCode();
    } catch (const std::bad_alloc &) {
        Say(CommandFailure(kExitFailure, "out of memory"));
    } catch (const std::exception &exception) {
        Say(CommandFailure(kExitFailure, exception.what()));
    }
    return kExitFailure;
}

int main(int argc, char **argv)
{
    HoldStandardStreams();
    // This is only for the width of characters: names are UTF-8 whatever the user's locale is.
    setlocale(LC_CTYPE, "C.UTF-8");
    const int exitCode = _RunAndReport(argc, argv);
    try {
        RequireOutput();
    } catch (const CommandFailure &failure) {
        Say(failure);
        return exitCode == kExitSuccess ? failure.exitCode() : exitCode;
    }
    return exitCode;
}
