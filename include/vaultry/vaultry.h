/// @file
/// Everything at once. A client starts with library.h, or with storage.h if it wants every error.

#ifndef VAULTRY_VAULTRY_H
#define VAULTRY_VAULTRY_H

#include <vaultry/archive.h>
#include <vaultry/collections.h>
#include <vaultry/data.h>
#include <vaultry/error.h>
#include <vaultry/file_status.h>
#include <vaultry/filesystem.h>
#include <vaultry/library.h>
#include <vaultry/log.h>
#include <vaultry/metadata.h>
#include <vaultry/number.h>
#include <vaultry/path.h>
#include <vaultry/plist.h>
#include <vaultry/progress.h>
#include <vaultry/status.h>
#include <vaultry/storage.h>
#include <vaultry/string.h>
#include <vaultry/url.h>
#include <vaultry/value.h>
#include <vaultry/version.h>

#endif
