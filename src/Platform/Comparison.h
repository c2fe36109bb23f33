// Compares two open regular files by all that a copy of one would have in common with it, except what a status tells.

#pragma once

#include "Platform/Volume.h"

#include <functional>
#include <memory>

namespace platform {

struct ComparedFile {
    int fd; // for reading
    const TQFileStatus &status;
};

// Buffers are made when they are first needed, and kept for the next two files. What can't be read counts as different.
class Comparison {
public:
    // Is told how many bytes were found equal, at least every 4 MiB, and answers whether to go on.
    using GoOn = std::function<bool(uint64_t bytes)>;

    // Every byte is compared, up to the end that reading finds. A hole is compared by what the kernel says of both.
    bool HaveSameBytes(const ComparedFile &one, const ComparedFile &other, const GoOn &goOn);

    // Whether `copy` has the attributes of `original`, as a copy of it that has lost its write bits would: the `user.`
    // ones except `except`, the access list, and the capability.
    bool HaveSameAttributes(const ComparedFile &original, const ComparedFile &copy, const char *except);

private:
    struct Side {
        std::unique_ptr<unsigned char[]> bytes;
        std::unique_ptr<char[]> names;
        size_t namesLength = 0;
        VolumeMemory volume{};

        bool MakeRoom();
        bool ReadNames(const ComparedFile &file);
        bool Has(const char *name) const;
        ssize_t ReadBlock(const ComparedFile &file, uint64_t offset);
        bool ReadValue(const ComparedFile &file, const char *name, size_t *size);
    };

    bool HaveSameValue(const ComparedFile &original, const ComparedFile &copy, const char *name, bool isList);
    bool HaveSameList(const ComparedFile &original, const ComparedFile &copy);

    Side one_, other_;
};

} // namespace platform
