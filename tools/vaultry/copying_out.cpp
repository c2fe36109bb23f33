// See copying_out.h.

#include "copying_out.h"

#include "copy_watch.h"
#include "failure.h"
#include "interrupt.h"
#include "naming.h"
#include "space.h"
#include "text.h"

#include <cerrno>

void CopyOut(const std::string &source, const std::string &destination, const std::string &what,
             const std::function<bool(TQError **error)> &copy)
{
    Owned<TQError> error;
    bool isCopied = false;
    {
        const CopyWatch watch(source, Printable(BaseName(destination)),
                              [&] { return std::vector<std::string>{destination}; });
        isCopied = copy(error.out());
    }
    if (isCopied) return;
    if (InterruptGuard::Came() && UnderlyingErrno(error.get()) == ECANCELED)
        throw CommandFailure(InterruptGuard::ExitCode(), "stopped: nothing was copied");
    const CommandFailure failure = CommandFailure::Library(what, error.get()).At(destination);
    const std::string parent = destination.substr(0, destination.rfind('/') + 1);
    if (!IsAttributeSpace(error.get(), parent, source)) throw failure;
    throw failure.Saying(std::string(failure.what()) + "\n  " + kAttributeSpaceIsFull);
}
