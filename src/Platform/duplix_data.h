// The bytes of one file, by the cheapest way that the two volumes allow.
//
// Cloned, else copied by the kernel, else read and written, as small files are at once. What a pair of volumes refused
// is remembered, so that a tree does not ask again for every file. Holes stay holes.

#pragma once

#include "Platform/Volume.h"
#include "Platform/duplix_reports.h"

#include <memory>
#include <optional>

namespace platform {

class DataCopier {
public:
    explicit DataCopier(VolumeMemory &volumes) : volumes_(volumes) {}

    // Copies the bytes of `from`, which `status` describes, into the empty file `to`, up to where its end is found. The
    // size that the status tells is where it is looked for first. The position of `from` is not kept.
    Copied Copy(int from, const TQFileStatus &status, int to, DuplixReports &reports);

private:
    struct Job;

    bool Clone(const Job &job);
    Copied CopyAtOnce(Job &job);
    Copied CopyExtents(Job &job);
    Copied CopyRange(Job &job, uint64_t end);
    ssize_t CopyInKernel(Job &job, size_t size);
    ssize_t Read(const Job &job, uint64_t offset, size_t size);
    ssize_t ReadAndWrite(Job &job, size_t size);

    VolumeMemory &volumes_;
    std::optional<uint64_t> noCloneFrom_; // devices; what is written to stays the same for a whole copy
    std::optional<uint64_t> noKernelCopyFrom_;
    std::unique_ptr<char[]> buffer_;
};

} // namespace platform
