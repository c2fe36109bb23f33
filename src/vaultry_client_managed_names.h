// The names of a store's generations, in the order of its directory. If reading fails, they end as at the end of the
// directory.

#pragma once

#include "Platform/ErrnoKeeper.h"

#include <dirent.h>

class GenerationNames {
public:
    explicit GenerationNames(const char *rootPath) : directory_(opendir(rootPath)) {}
    ~GenerationNames()
    {
        const ErrnoKeeper keeper;
        if (directory_) (void)closedir(directory_);
    }
    GenerationNames(const GenerationNames &) = delete;
    GenerationNames &operator=(const GenerationNames &) = delete;

    explicit operator bool() const { return directory_ != nullptr; } // if not, errno says why

    // Null at the end. Valid until the next call.
    const char *Next() const
    {
        while (const dirent *entry = readdir(directory_))
            if (entry->d_name[0] != '.') return entry->d_name; // such names are the store's own
        return nullptr;
    }

private:
    DIR *directory_;
};
