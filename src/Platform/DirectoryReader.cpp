#include "Platform/DirectoryReader.h"

#include "Platform/ErrnoKeeper.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <new>
#include <unistd.h>

namespace platform {

static constexpr size_t kNamesSize = size_t{32} * 1024;

static bool _IsDot(const char *name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// 0, or an errno; at the end of the directory the buffer is empty.
int DirectoryReader::Fill(int directory)
{
    started_ = true;
    if (!buffer_) buffer_.reset(new (std::nothrow) char[kNamesSize]);
    if (!buffer_) return ENOMEM;
    next_ = end_ = 0;
    const ssize_t read = getdents64(directory, buffer_.get(), kNamesSize);
    if (read < 0) return errno;
    end_ = static_cast<size_t>(read);
    return 0;
}

const char *DirectoryReader::Next(int directory, int *error)
{
    const ErrnoKeeper keeper;
    *error = 0;
    for (;;) {
        if (next_ == end_) {
            *error = Fill(directory);
            if (*error != 0 || end_ == 0) return nullptr;
        }
        // The kernel aligns its records, and the buffer comes from new.
        const auto *entry = reinterpret_cast<const dirent64 *>(buffer_.get() + next_);
        next_ += entry->d_reclen;
        before_ = reached_;
        reached_ = entry->d_off;
        kind_ = entry->d_type;
        if (!_IsDot(entry->d_name)) return entry->d_name;
    }
}

int DirectoryReader::Seek(int directory, off_t position)
{
    next_ = end_ = 0;
    reached_ = position;
    return lseek(directory, position, SEEK_SET) < 0 ? errno : 0;
}

int DirectoryReader::Resume(int directory, const char *name)
{
    const ErrnoKeeper keeper;
    const off_t behind = reached_;
    const char *found = nullptr;
    int error = Seek(directory, before_);
    if (error == 0) found = Next(directory, &error);
    if (found && strcmp(found, name) == 0) return 0;

    // A directory that somebody has removed may refuse the position, but not its beginning. Reading from there tells
    // what became of it.
    error = Seek(directory, 0);
    if (error != 0) return error;
    while ((found = Next(directory, &error)))
        if (strcmp(found, name) == 0) return 0;
    // Somebody has renamed it. The position after it is the best guess at where the rest begins.
    return error != 0 ? error : Seek(directory, behind);
}

} // namespace platform
