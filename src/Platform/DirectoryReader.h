// The names in an open directory, read through one bounded buffer.
//
// The place reached can be found again after the directory was closed and opened anew: by the position that the kernel
// gave for it, checked against the name that was read there. A file system that counts its
// entries moves them up when earlier ones are removed; then the name is looked for from the start.

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <sys/types.h>

namespace platform {

class DirectoryReader {
public:
    // The next name but "." and "..", or null: at the end with 0 in *error, else with an errno there. The
    // name stays valid until the next call. Keeps errno.
    const char *Next(int directory, int *error);

    // Lets go of the buffer. Before the next call of Next comes Resume.
    void Suspend() { buffer_.reset(); }

    // Goes on in a freshly opened `directory` behind `name`, the last that Next gave. 0 or an errno: ENOENT if the
    // directory itself was removed meanwhile.
    int Resume(int directory, const char *name);
    bool suspended() const { return !buffer_ && started_; }

private:
    int Fill(int directory);
    int Seek(int directory, off_t position);

    std::unique_ptr<char[]> buffer_;
    size_t next_ = 0;
    size_t end_ = 0;
    off_t reached_ = 0; // behind the name that Next gave last
    off_t before_ = 0;  // before it
    bool started_ = false;
};

} // namespace platform
