// Status codes and error objects, seen from inside.

#pragma once

#include <vaultry/status.h>

// The system's words for an error number, in UTF-8 whatever the process's locale: words in another encoding would cost
// the caller the whole error object.
const char *_TQSystemText(int errorNumber, char *buffer, size_t size);

// The code of the error object that `status` becomes; `domain` gets its domain, which is not retained.
// A status outside the table is logged and gets the library's domain with code 0.
intptr_t _TQErrorCodeAndDomainForStatus(int32_t status, TQString **domain);
