// The bytes of one file, by the cheapest way that the two volumes allow.
//
// They are cloned, else copied by the kernel, else read and written; small files that can't be cloned are read and
// written at once. What a pair of volumes refused is remembered, so that a tree does not ask again for every file.
// Holes stay holes.

#pragma once

#include "Platform/Volume.h"
#include "Platform/duplix_reports.h"

#include <memory>
#include <optional>

namespace platform {

class DataCopier {
public:
    explicit DataCopier(VolumeMemory &volumes) : volumes_(volumes) {}

    // Copies the bytes of `from`, which `status` describes, into the empty file `to`, until its end is found. The size
    // in `status` is where the end is expected. The position of `from` is not kept.
    Copied Copy(int from, const TQFileStatus &status, int to, DuplixReports &reports);

    // Whether files of the volume of `status` can be cloned, as far as is known.
    std::optional<bool> Clones(const TQFileStatus &status) const;

    // Finds that out with an empty file at the destination, which may have the bytes of `from` afterwards.
    bool TryToClone(int from, const TQFileStatus &status, int to);

private:
    struct Job;

    Copied CopyAtOnce(Job &job);
    Copied CopyExtents(Job &job);
    Copied CopyRange(Job &job, uint64_t end);
    ssize_t CopyInKernel(Job &job, size_t size);
    ssize_t Read(const Job &job, uint64_t offset, size_t size);
    ssize_t ReadAndWrite(Job &job, size_t size);

    VolumeMemory &volumes_;
    std::optional<uint64_t> clonedFrom_; // source devices; the destination stays the same for a whole copy
    std::optional<uint64_t> noCloneFrom_;
    std::optional<uint64_t> noKernelCopyFrom_;
    std::unique_ptr<char[]> buffer_;
};

} // namespace platform
