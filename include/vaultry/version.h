/// @file
/// The version of these headers, and that of the library that a program runs with.
///
/// Versions are semantic: a program that was built with one runs with each later one of the same major number, which is
/// also that of `libvaultry.so.1`. Any thread may call.

#ifndef VAULTRY_VERSION_H
#define VAULTRY_VERSION_H

#include <vaultry/base.h>

#define VAULTRY_VERSION_MAJOR 1
#define VAULTRY_VERSION_MINOR 0
#define VAULTRY_VERSION_PATCH 0

/// The same as text, and as one number that grows from version to version.
#define VAULTRY_VERSION "1.0.0"
#define VAULTRY_VERSION_NUMBER (VAULTRY_VERSION_MAJOR * 1000000 + VAULTRY_VERSION_MINOR * 1000 + VAULTRY_VERSION_PATCH)

/// Whether these headers are of that version or a later one; also for `#if`.
#define VAULTRY_CHECK_VERSION(major, minor, patch) (VAULTRY_VERSION_NUMBER >= (major)*1000000 + (minor)*1000 + (patch))

TQ_BEGIN_DECLS

/// The version of the library that the program runs with, as VAULTRY_VERSION_NUMBER counts; and as text, which the
/// library keeps. They never fail.
TQ_EXPORT int TQVaultryVersion(void);
TQ_EXPORT const char *TQVaultryVersionText(void);

TQ_END_DECLS

#endif
