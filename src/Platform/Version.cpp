// The version that this library was built as.

#include <vaultry/version.h>

#include <string_view>

#define TEXT(number) #number
#define TEXT_OF(major, minor, patch) TEXT(major) "." TEXT(minor) "." TEXT(patch)
static_assert(std::string_view(VAULTRY_VERSION) ==
              TEXT_OF(VAULTRY_VERSION_MAJOR, VAULTRY_VERSION_MINOR, VAULTRY_VERSION_PATCH));

int TQVaultryVersion()
{
    return VAULTRY_VERSION_NUMBER;
}

const char *TQVaultryVersionText()
{
    return VAULTRY_VERSION;
}
