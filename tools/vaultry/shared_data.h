// Which data of files other files share, as clones do: the kernel tells it of each extent.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

// Takes 16 bytes for each extent that is shared, however many files share it.
class SharedData {
public:
    // Adds what an open file shares. How many of its bytes that is; none if its volume does not tell.
    std::optional<uint64_t> Add(int fd);

    // All of it, each byte on the volume once. Compressed data counts as if it were not.
    uint64_t Bytes();

private:
    struct Extent {
        uint64_t begin, end; // on the volume
    };
    void Join();

    std::vector<Extent> extents_;
    size_t joinAt_ = 4096;
};
