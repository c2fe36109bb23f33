// Info queries, seen from inside.

#pragma once

#include <vaultry/collections.h>
#include <vaultry/error.h>

// Which facts a record carries.
struct FieldSelection {
    bool url;
    bool options;
    bool displayName;
    bool info;
};

// Reads a spec's "fields", which may be null. `keys` gets the list of wanted info keys, lent, or null for all.
bool _genInfosFieldsGet(const TQValue *fields, FieldSelection *selection, const TQArray **keys, TQError **error);

// The record of one generation, named in file-system form.
TQDictionary *_genInfosCreate(const FieldSelection &selection, const TQArray *keys, const char *name, uint64_t options,
                              const char *path, TQError **error);
