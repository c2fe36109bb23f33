#include "Platform/duplix_data.h"

#include "Platform/FileStatus.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/fs.h>
#include <new>
#include <sys/ioctl.h>
#include <unistd.h>

namespace platform {

static constexpr size_t kProgressStep = 4 << 20; // a client hears at least this often
static constexpr size_t kDataSize = 256 << 10;

// Up to this size, one read and one write take less time than asking for holes and letting the kernel copy.
static constexpr uint64_t kSmallFile = 64 << 10;
static_assert(kSmallFile < kDataSize); // a read that asks for more than the file has shows where it ends

// No file system has smaller blocks, and a hole consists of whole ones.
static constexpr size_t kSmallestBlock = 512;

struct DataCopier::Job {
    int from;
    int to;
    const TQFileStatus &status;
    DuplixReports &reports;
    uint64_t size = status.size; // as far as is known
    uint64_t offset = 0;         // everything before it is copied, or a hole
    bool ended = false;          // a read has found the end

    bool bytesOnly() const { return (status.flags & kTQFlagCompressed) != 0; }
    // Whether a call that asked for more got nothing, or stopped just where the file was said to end.
    bool IsEnd(uint64_t reached, size_t got, size_t asked) const
    {
        return got == 0 || (got < asked && reached == size);
    }
};

// Whether the kernel has just said that it never does this between these two volumes.
static bool _IsRefusalForever(int error)
{
    return error == EOPNOTSUPP || error == EXDEV || error == ENOTTY || error == ENOSYS;
}

Copied DataCopier::Copy(int from, const TQFileStatus &status, int to, DuplixReports &reports)
{
    Job job{from, to, status, reports};
    // Only some volumes report this size for a file that is not empty.
    if (job.size == 0 && volumes_.HonoursFlush(from, status.device)) return Copied::Yes;
    // A clone would share compressed extents, which are to be stored plain.
    if (job.size > 0 && !job.bytesOnly() && Clones(status) != false && TryToClone(from, status, to))
        return reports.Progress(job.size) ? Copied::Yes : Copied::Stopped;
    if (!buffer_) buffer_.reset(new (std::nothrow) char[kDataSize]);
    if (!buffer_) {
        errno = ENOMEM;
        return Copied::No;
    }
    if (job.size > kSmallFile || HasHoles(status)) return CopyExtents(job);
    return CopyAtOnce(job);
}

std::optional<bool> DataCopier::Clones(const TQFileStatus &status) const
{
    if (noCloneFrom_ == status.device) return false;
    return clonedFrom_ == status.device ? std::optional(true) : std::nullopt;
}

// A clone may fail for any reason. If something is really wrong, copying reports it.
bool DataCopier::TryToClone(int from, const TQFileStatus &status, int to)
{
    const bool isCloned = ioctl(to, FICLONE, from) == 0;
    if (isCloned) clonedFrom_ = status.device;
    if (!isCloned && _IsRefusalForever(errno)) noCloneFrom_ = status.device;
    return isCloned;
}

// Whether a part of it could have been read from a hole.
static bool _HasBlockOfZeros(const char *bytes, size_t size)
{
    static constexpr char kZeros[kSmallestBlock] = {};
    for (size_t at = 0; at < size; at += kSmallestBlock)
        if (memcmp(bytes + at, kZeros, std::min(size - at, kSmallestBlock)) == 0) return true;
    return false;
}

static bool _WriteAll(int to, const char *bytes, size_t size, uint64_t offset)
{
    while (size > 0) {
        const ssize_t written = pwrite(to, bytes, size, static_cast<off_t>(offset));
        if (written < 0 && errno == EINTR) continue;
        if (written == 0) errno = EIO; // there is no error, but trying again would never end
        if (written <= 0) return false;
        bytes += written;
        size -= static_cast<size_t>(written);
        offset += static_cast<uint64_t>(written);
    }
    return true;
}

Copied DataCopier::CopyAtOnce(Job &job)
{
    const ssize_t got = Read(job, 0, kDataSize);
    if (got < 0) return Copied::No;
    if (got == 0) return Copied::Yes;
    const auto size = static_cast<size_t>(got);
    if (_HasBlockOfZeros(buffer_.get(), size)) return CopyExtents(job);
    if (!_WriteAll(job.to, buffer_.get(), size, 0)) return Copied::No;
    job.offset = size;
    if (!job.reports.Progress(job.offset)) return Copied::Stopped;
    return job.IsEnd(size, size, kDataSize) ? Copied::Yes : CopyRange(job, UINT64_MAX);
}

// Finds where the data at or after `offset` begins and ends. Both are the size if only a hole follows. If the file
// system's answer makes no sense, all up to the size counts as data.
static void _NextExtent(int from, uint64_t offset, uint64_t size, uint64_t *begin, uint64_t *end)
{
    const off_t data = lseek(from, static_cast<off_t>(offset), SEEK_DATA);
    if (data < 0) {
        // An error other than ENXIO tells nothing about holes.
        *begin = errno == ENXIO ? size : offset;
        *end = size;
        return;
    }
    const off_t hole = lseek(from, data, SEEK_HOLE);
    *begin = std::min(std::max(static_cast<uint64_t>(data), offset), size);
    *end = hole < 0 || static_cast<uint64_t>(hole) <= *begin ? size : std::min(static_cast<uint64_t>(hole), size);
}

Copied DataCopier::CopyExtents(Job &job)
{
    uint64_t written = 0;
    while (job.offset < job.size && !job.ended) {
        uint64_t end = 0;
        _NextExtent(job.from, job.offset, job.size, &job.offset, &end);
        if (job.offset == job.size) break;
        if (const Copied result = CopyRange(job, end); result != Copied::Yes) return result;
        written = job.offset;
    }
    if (job.ended) return Copied::Yes;
    if (written < job.offset) {
        // The file ends in a hole, or was cut there meanwhile.
        const off_t length = lseek(job.from, 0, SEEK_END);
        if (length < 0) return Copied::No;
        job.offset = std::min(job.offset, static_cast<uint64_t>(length));
        if (job.offset > written && ftruncate(job.to, static_cast<off_t>(job.offset)) != 0) return Copied::No;
        if (!job.reports.Progress(job.offset)) return Copied::Stopped;
    }
    return CopyRange(job, UINT64_MAX);
}

// Copies to `end`, or to the end of the file if `end` is not before the reported size.
Copied DataCopier::CopyRange(Job &job, uint64_t end)
{
    if (end >= job.size) end = UINT64_MAX;
    while (job.offset < end && !job.ended) {
        const size_t size = static_cast<size_t>(std::min<uint64_t>(end - job.offset, kProgressStep));
        ssize_t copied = CopyInKernel(job, size);
        // Also done when the kernel copied nothing: only a read tells for certain that the file ends here.
        if (copied <= 0) copied = ReadAndWrite(job, size);
        if (copied < 0) return Copied::No;
        if (copied == 0) return Copied::Yes;
        job.offset += static_cast<uint64_t>(copied);
        if (!job.reports.Progress(job.offset)) return Copied::Stopped;
    }
    return Copied::Yes;
}

// Bytes copied, or 0 if they have to be read and written instead.
ssize_t DataCopier::CopyInKernel(Job &job, size_t size)
{
    if (job.bytesOnly() || job.size <= kSmallFile || job.offset >= job.size || noKernelCopyFrom_ == job.status.device)
        return 0;
    ssize_t copied = 0;
    do {
        off_t source = static_cast<off_t>(job.offset);
        off_t destination = source;
        copied = copy_file_range(job.from, &source, job.to, &destination, size, 0);
    } while (copied < 0 && errno == EINTR);
    if (copied < 0 && _IsRefusalForever(errno)) noKernelCopyFrom_ = job.status.device;
    if (copied <= 0) return 0;
    // The kernel copies no further than the size that it knows.
    const auto got = static_cast<size_t>(copied);
    job.ended = job.IsEnd(job.offset + got, got, size) && volumes_.HonoursFlush(job.from, job.status.device);
    return copied;
}

// Bytes read, fewer than asked for only at the end or where the volume hands out no more at once; 0 at the end; or -1.
ssize_t DataCopier::Read(const Job &job, uint64_t offset, size_t size)
{
    ssize_t got = 0;
    do {
        got = pread(job.from, buffer_.get(), size, static_cast<off_t>(offset));
    } while (got < 0 && errno == EINTR);
    return got;
}

// Bytes copied, 0 at the end of the file, or -1.
ssize_t DataCopier::ReadAndWrite(Job &job, size_t size)
{
    size_t done = 0;
    while (done < size && !job.ended) {
        const uint64_t offset = job.offset + done;
        const size_t asked = std::min(size - done, kDataSize);
        const ssize_t read = Read(job, offset, asked);
        if (read < 0) return -1;
        const auto got = static_cast<size_t>(read);
        if (!_WriteAll(job.to, buffer_.get(), got, offset)) return -1;
        done += got;
        job.ended = job.IsEnd(offset + got, got, asked);
    }
    return static_cast<ssize_t>(done);
}

} // namespace platform
