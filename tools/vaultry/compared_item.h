// One item of a tree, open, with all that would come back with it.
//
// Of a generation's item that is what its document had: the rights and flags that were recorded when it was kept, and
// none of the attributes that the library keeps beside it.

#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

// Whether an attribute in the "user." space is the document's own, and none that the library keeps beside it.
bool IsUsersAttribute(std::string_view name);

// One of two trees that are compared.
struct ComparedTree {
    std::string path;
    std::string label;   // what it is called
    bool isKept;         // whether it lies in a store
    bool isItem = false; // whether it is one item of a document or a generation
};

class ComparedItem {
public:
    // Looks at the item of that name, which is the one at `below` in the tree, "" for its top. A link is not followed.
    // Throws if it can't be looked at, or is not of that kind any more.
    ComparedItem(const ComparedTree &tree, const std::string &below, int directory, const char *name,
                 unsigned char kind);
    // The top itself.
    explicit ComparedItem(const ComparedTree &tree);
    ComparedItem(ComparedItem &&other) noexcept;
    ComparedItem &operator=(ComparedItem &&) = delete;
    ~ComparedItem();

    // Opens a file or a folder for what follows, as long as the directory is open. Throws if that can't be done.
    void Open();
    bool IsOpen() const { return fd_ >= 0; }

    bool IsSameInode(const ComparedItem &other) const;
    bool IsFolder() const;
    bool IsFile() const;
    bool IsLink() const;

    // Each throws if it can't be read.
    std::map<std::string, unsigned char> Entries() const; // of a folder: names with their kinds, without sidecars
    std::map<std::string, std::string> Attributes(bool withCapability) const;
    std::vector<uint64_t> AccessList() const; // what it says beside the rights, in a form of its own
    std::string DefaultList() const;          // of a folder; "" if there is none
    // Fewer bytes than there is room for only at the end.
    size_t Read(char *buffer, size_t size, uint64_t offset) const;
    // Where data begins, at `offset` or behind it; the file's size if only a hole follows.
    uint64_t NextData(uint64_t offset) const;

    const std::string &path() const { return path_; }
    int fd() const { return fd_; } // -1 unless it is open
    unsigned char kind = 0;        // as of an entry in a directory: DT_REG, DT_DIR, ...
    uint32_t mode = 0;             // its rights, with the bits above them
    uint32_t flags = 0;            // kTQFlag… bits that come back
    uid_t owner = 0;
    gid_t group = 0;
    uint64_t size = 0;
    bool hasHoles = false;
    struct timespec modified {};
    std::string target; // of a link

private:
    const char *name() const; // in the directory
    bool ReadAttribute(const std::string &name, std::string &value) const;

    std::string path_;
    int directory_;
    int fd_ = -1;
    uint64_t device_ = 0, inode_ = 0;
};
