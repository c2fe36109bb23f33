// Reads a whole generation, and sums up what it holds: for each item its path, kind, permissions, attributes and access
// lists, the names in a folder, the bytes of a file, the target of a link. Owners and times are no part of it, so that
// a copy on another machine has the same sums.

#pragma once

#include "seal_sums.h"

#include <functional>
#include <map>
#include <string>
#include <sys/types.h>
#include <tuple>
#include <vector>

// The name of the hash, as it stands beside a seal.
inline constexpr char kDigestKind[] = "xxh3-128";

struct UnreadItem {
    std::string path; // below the top, "" for the top itself
    int reason;       // an errno
};

struct TreeContents {
    Seal seal;
    std::vector<SealedItem> items;
    std::vector<UnreadItem> unread; // if there are any, the seal is worth nothing
};

// The hash by which a seal knows the item at a path below the top.
uint64_t HashOfPath(std::string_view below);

class TreeReader {
public:
    enum class From { Memory, Disk }; // whether what the kernel still holds of a file will do

    // `advance` is told how many bytes more have been read.
    explicit TreeReader(From from, std::function<void(uint64_t bytes)> advance = {});
    ~TreeReader();
    TreeReader(const TreeReader &) = delete;
    TreeReader &operator=(const TreeReader &) = delete;

    // Of a file that several generations share by links, the bytes are read once. Throws if a signal is caught.
    TreeContents Read(const std::string &path);

private:
    struct Hash {
        uint64_t low, high;
    };
    class Tree;
    using File = std::tuple<dev_t, ino_t, time_t, long, off_t>; // with what changes when its bytes do

    Hash HashOfBytes(int fd, uint64_t size);
    uint64_t SumOfAttributes(int fd);

    const From from_;
    const std::function<void(uint64_t)> advance_;
    std::vector<char> buffer_;
    struct XXH3_state_s *state_;
    std::map<File, Hash> shared_;
};
