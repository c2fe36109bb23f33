// A volume whose power fails: what had not reached its disk is gone.
//
// By the file system's own shutdown call, then mounted again. The disk itself loses nothing that it was given, so this
// tells whether everything was handed to it, not whether its cache was emptied. Btrfs has no such call, tmpfs no disk.

#pragma once

#include "Platform/UniqueFd.h"

#include <string>

class PoweredVolume {
public:
    explicit PoweredVolume(const std::string &type); // ext4 or xfs, a VolumeOfType that is there

    enum class Journal { Lost, Written }; // with what it holds of the last seconds

    void CutPower(Journal journal); // nobody has anything open there
    void FlushAll() const;

private:
    std::string type_, path_, device_;
    UniqueFd keepsDevice_; // which would go with its last mount
};
