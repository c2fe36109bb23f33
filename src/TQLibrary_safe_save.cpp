// Safe-save notifications. The store keeps no record of safe saves, so these test their arguments and answer no.

#include "TQLibrary.h"

#include "Runtime/Ref.h"
#include "Shared/vaultry_internal_failure.h"

bool TQLibraryDocumentWillSafeSave(const TQURL *document, const TQURL *replacement)
{
    if (!TQURLIsFileURL(document) || !TQURLIsFileURL(replacement))
        return Failure(nullptr).Status(kTQStatusBadPath, "not a file URL");
    const DeferredScope scope;
    return false;
}

void TQLibraryDocumentDidSafeSave(const TQURL *, const TQURL *)
{
    const DeferredScope scope;
}

// Unlike an error's, this out-slot must not be null.
bool TQLibraryHasGenerationsForPaths(TQLibrary *, const TQValue *, TQValue **generations)
{
    const DeferredScope scope;
    *generations = nullptr;
    return false;
}
