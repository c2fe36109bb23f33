// The bytes of one file, by the cheapest way that the two volumes allow.
//
// Cloned, else copied by the kernel, else read and written, as small files are at once. What a pair of volumes refused is
// remembered, so that a tree does not ask again for every file. Holes stay holes.

#pragma once

#include "Platform/duplix_reports.h"

#include <memory>
#include <optional>

namespace platform {

class DataCopier {
public:
    // Copies the bytes of `from`, which `status` describes, into the empty file `to`: as many as the status says, or
    // fewer if the file has become shorter. What is appended meanwhile is left for the next copy. The
    // position of `from` is not kept.
    Copied Copy(int from, const TQFileStatus &status, int to, DuplixReports &reports);

private:
    struct Job;

    bool Clone(const Job &job);
    Copied CopyExtents(Job &job);
    Copied CopyRange(Job &job, uint64_t end);
    ssize_t CopyInKernel(const Job &job, size_t size);
    ssize_t ReadAndWrite(const Job &job, size_t size);

    std::optional<uint64_t> noCloneFrom_; // devices; what is written to stays the same for a whole copy
    std::optional<uint64_t> noKernelCopyFrom_;
    std::unique_ptr<char[]> buffer_;
};

} // namespace platform
