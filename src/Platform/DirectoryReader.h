// The names in an open directory, read through one bounded buffer.
//
// After the directory was closed and opened again, reading resumes at the position that the kernel gave, which is
// checked against the name that was read there. On a file system that numbers its entries, positions shift when earlier
// entries are removed; the name is then looked for from the start.

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <sys/types.h>

namespace platform {

class DirectoryReader {
public:
    // The next name other than "." and "..", or null: at the end with 0 in *error, on failure with an errno there. The
    // name stays valid until the next call. Keeps errno.
    const char *Next(int directory, int *error);

    // The kind of the item that had the name when it was read: DT_REG and so on; DT_UNKNOWN if the volume tells none.
    unsigned char kind() const { return kind_; }

    // Frees the buffer. Resume has to be called before the next call of Next.
    void Suspend() { buffer_.reset(); }

    // Continues in a freshly opened `directory` after `name`, the last name that Next returned. 0 or an errno: ENOENT
    // if the directory itself was removed meanwhile.
    int Resume(int directory, const char *name);
    bool suspended() const { return !buffer_ && started_; }

private:
    int Fill(int directory);
    int Seek(int directory, off_t position);

    std::unique_ptr<char[]> buffer_;
    size_t next_ = 0;
    size_t end_ = 0;
    off_t reached_ = 0; // after the name that Next returned last
    off_t before_ = 0;  // before it
    unsigned char kind_ = 0;
    bool started_ = false;
};

} // namespace platform
