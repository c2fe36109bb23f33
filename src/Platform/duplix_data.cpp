#include "Platform/duplix_data.h"

#include <algorithm>
#include <cerrno>
#include <linux/fs.h>
#include <new>
#include <sys/ioctl.h>
#include <unistd.h>

namespace platform {

static constexpr size_t kProgressStep = 4 << 20; // a client hears at least this often
static constexpr size_t kBufferSize = 256 << 10;

// Up to this size a read and a write take less than the kernel's own copying, which is made for more.
static constexpr uint64_t kQuickerByHand = 32 << 10;

// Below this size the count of blocks tells well enough whether there are holes.
static constexpr uint64_t kSmallFile = 64 << 10;

struct DataCopier::Job {
    int from;
    int to;
    const TQFileStatus &status;
    DuplixReports &reports;
    uint64_t offset = 0;    // everything before it is copied, or a hole
    bool shortened = false; // the file ended before its size was reached

    uint64_t size() const { return status.size; }
    bool bytesOnly() const { return (status.flags & kTQFlagCompressed) != 0; }
};

// Whether the kernel has just said that it never does this between these two volumes.
static bool _IsRefusalForever(int error)
{
    return error == EOPNOTSUPP || error == EXDEV || error == ENOTTY || error == ENOSYS;
}

Copied DataCopier::Copy(int from, const TQFileStatus &status, int to, DuplixReports &reports)
{
    Job job{from, to, status, reports};
    if (job.size() == 0) return Copied::Yes;
    // A clone would share compressed extents, which are to be stored plain.
    if (!job.bytesOnly() && Clone(job)) return reports.Progress(job.size()) ? Copied::Yes : Copied::Stopped;
    return CopyExtents(job);
}

// Whatever stops a clone, copying says what is really wrong, if anything is.
bool DataCopier::Clone(const Job &job)
{
    if (noCloneFrom_ == job.status.device) return false;
    if (ioctl(job.to, FICLONE, job.from) == 0) return true;
    if (_IsRefusalForever(errno)) noCloneFrom_ = job.status.device;
    return false;
}

static bool _MayHaveHoles(const TQFileStatus &status)
{
    return status.size > kSmallFile || status.blocks * 512 < status.size;
}

// Where the data at or behind `offset` begins and ends. The size for both if only a hole follows.
static void _NextExtent(int from, uint64_t offset, uint64_t size, uint64_t *begin, uint64_t *end)
{
    const off_t data = lseek(from, static_cast<off_t>(offset), SEEK_DATA);
    if (data < 0) {
        // A file system that does not know has told nothing about holes.
        *begin = errno == ENXIO ? size : offset;
        *end = size;
        return;
    }
    const off_t hole = lseek(from, data, SEEK_HOLE);
    *begin = std::min(static_cast<uint64_t>(data), size);
    *end = hole < 0 ? size : std::min(static_cast<uint64_t>(hole), size);
}

Copied DataCopier::CopyExtents(Job &job)
{
    if (!_MayHaveHoles(job.status)) return CopyRange(job, job.size());

    uint64_t written = 0;
    while (job.offset < job.size() && !job.shortened) {
        uint64_t end = 0;
        _NextExtent(job.from, job.offset, job.size(), &job.offset, &end);
        if (job.offset == job.size()) break;
        if (const Copied result = CopyRange(job, end); result != Copied::Yes) return result;
        written = job.offset;
    }
    if (job.shortened || written == job.size()) return Copied::Yes;

    // It ends in a hole, or was cut there meanwhile.
    const off_t length = lseek(job.from, 0, SEEK_END);
    if (length < 0) return Copied::No;
    job.offset = std::min(job.size(), static_cast<uint64_t>(length));
    if (job.offset > written && ftruncate(job.to, static_cast<off_t>(job.offset)) != 0) return Copied::No;
    return job.reports.Progress(job.offset) ? Copied::Yes : Copied::Stopped;
}

Copied DataCopier::CopyRange(Job &job, uint64_t end)
{
    while (job.offset < end) {
        const size_t size = static_cast<size_t>(std::min<uint64_t>(end - job.offset, kProgressStep));
        ssize_t copied = CopyInKernel(job, size);
        // Also asked when the kernel copied nothing: only a read tells for certain that the file ends here.
        if (copied <= 0) copied = ReadAndWrite(job, size);
        if (copied < 0) return Copied::No;
        job.shortened = copied == 0;
        if (job.shortened) return Copied::Yes;
        job.offset += static_cast<uint64_t>(copied);
        if (!job.reports.Progress(job.offset)) return Copied::Stopped;
    }
    return Copied::Yes;
}

// Bytes copied, or 0 if this is to be read and written.
ssize_t DataCopier::CopyInKernel(const Job &job, size_t size)
{
    if (job.bytesOnly() || job.size() <= kQuickerByHand || noKernelCopyFrom_ == job.status.device) return 0;
    ssize_t copied = 0;
    do {
        off_t source = static_cast<off_t>(job.offset);
        off_t destination = source;
        copied = copy_file_range(job.from, &source, job.to, &destination, size, 0);
    } while (copied < 0 && errno == EINTR);
    if (copied < 0 && _IsRefusalForever(errno)) noKernelCopyFrom_ = job.status.device;
    return std::max<ssize_t>(copied, 0);
}

static bool _WriteAll(int to, const char *bytes, size_t size, uint64_t offset)
{
    while (size > 0) {
        const ssize_t written = pwrite(to, bytes, size, static_cast<off_t>(offset));
        if (written < 0 && errno != EINTR) return false;
        if (written <= 0) continue;
        bytes += written;
        size -= static_cast<size_t>(written);
        offset += static_cast<uint64_t>(written);
    }
    return true;
}

// Bytes copied, 0 at the end of the file, or -1.
ssize_t DataCopier::ReadAndWrite(const Job &job, size_t size)
{
    if (!buffer_) buffer_.reset(new (std::nothrow) char[kBufferSize]);
    if (!buffer_) {
        errno = ENOMEM;
        return -1;
    }
    size_t done = 0;
    while (done < size) {
        const uint64_t offset = job.offset + done;
        const ssize_t got =
            pread(job.from, buffer_.get(), std::min(size - done, kBufferSize), static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return -1;
        if (got == 0) break;
        if (!_WriteAll(job.to, buffer_.get(), static_cast<size_t>(got), offset)) return -1;
        done += static_cast<size_t>(got);
    }
    return static_cast<ssize_t>(done);
}

} // namespace platform
