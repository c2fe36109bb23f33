// Generation names in the form that file systems take.

#include "Shared/vaultry_internal_names.h"

#include "Shared/vaultry_internal_failure.h"

#include <vaultry/path.h>

#include <cstring>

bool TQValidateGenerationName(const char *name)
{
    return name && name[0] != '.' && !strchr(name, '/');
}

bool TQStringGetGenName(const TQString *name, char *buffer, TQError **error)
{
    if (buffer && TQStringGetFileSystemRepresentation(name, buffer, kGenerationNameLimit + 1)) return true;
    return Failure(error).Refused(kTQStatusInvalidArgument, "The supplied generation name was invalid");
}
