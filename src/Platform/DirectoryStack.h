// The directories on the way from a root down to the one that is worked in.
//
// Only the deepest kOpenLimit of them are open. A shallower one is closed, and is opened again through ".." of its
// child when the work climbs back. By device and inode it must still be the directory that was left, since either of
// the two may have been moved meanwhile.

#pragma once

#include "Platform/QuietOpener.h"
#include "Platform/UniqueFd.h"

#include <vaultry/file_status.h>

#include <vector>

namespace platform {

class DirectoryStack {
public:
    static constexpr size_t kOpenLimit = 4;

    // Goes down into `directory`, which `status` describes. False with ENOMEM.
    bool Push(UniqueFd directory, const TQFileStatus &status);

    // Makes sure that the directory above the top is open. False with errno: ESTALE if ".." is another directory.
    bool OpenParent();

    // Leaves the top, and closes it.
    void Pop();

    size_t size() const { return levels_.size(); }
    int Top() const { return levels_.back().fd.get(); }
    // As it was when the work went down into it.
    const TQFileStatus &StatusOfTop() const { return levels_.back().status; }
    // The directory above the top; -1 unless OpenParent succeeded since the last Push or Pop.
    int Parent() const { return levels_[levels_.size() - 2].fd.get(); }

private:
    struct Level {
        UniqueFd fd;
        TQFileStatus status;
    };
    std::vector<Level> levels_;
    QuietOpener opener_;
};

} // namespace platform
