// A volume whose power fails: what had not reached its disk is gone.
//
// By the file system's own shutdown call, then mounted again. The disk itself loses nothing that it was given, so this
// tells whether everything was handed to it, not whether its cache was emptied. Btrfs has no such call, tmpfs no disk.

#pragma once

#include "Platform/UniqueFd.h"
#include "support/Volumes.h"

class PoweredVolume {
public:
    // Of VolumeOfType("ext4") or "xfs", which must be there.
    explicit PoweredVolume(const std::string &type);

    enum class Journal { Lost, Written }; // with what it held of the last seconds

    // Nobody has anything open there.
    void CutPower(Journal journal);
    void FlushAll() const;
    const std::string &path() const { return path_; }

private:
    std::string type_, path_, device_;
    UniqueFd keepsDevice_; // which would go with its last mount
};
