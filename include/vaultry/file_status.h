/// @file
/// Status records of files and volumes.
///
/// The system's own `struct stat` has neither file flags nor a birth time, so the library has
/// records of its own, each filled by a single system call.

#ifndef VAULTRY_FILE_STATUS_H
#define VAULTRY_FILE_STATUS_H

#include <vaultry/base.h>

#include <time.h>

TQ_BEGIN_DECLS

/// The bits of a flags word. A flag that the file system cannot hold reads as 0.
enum {
    kTQFlagNoDump = 0x1,      ///< left out of backups
    kTQFlagImmutable = 0x2,   ///< can't be changed, removed or renamed; needs CAP_LINUX_IMMUTABLE to set
    kTQFlagAppend = 0x4,      ///< may only grow; needs CAP_LINUX_IMMUTABLE to set
    kTQFlagCompressed = 0x20, ///< stored compressed by the file system
    kTQFlagTracked = 0x40,    ///< copy-on-write mark; no Linux file system holds it
};

/// What the system knows of one item.
typedef struct TQFileStatus {
    uint64_t device;
    uint64_t inode;
    uint32_t mode; ///< type and permission bits, as in `st_mode`
    uint32_t linkCount;
    uint32_t owner;
    uint32_t group;
    uint64_t size;   ///< bytes
    uint64_t blocks; ///< of 512 bytes, as allocated
    uint32_t blockSize;
    uint32_t flags; ///< kTQFlag… bits
    struct timespec accessTime;
    struct timespec modificationTime;
    struct timespec changeTime;
    struct timespec birthTime; ///< zero unless hasBirthTime
    bool hasBirthTime;
    bool isMountRoot; ///< something is mounted here, of another volume or of the same one
} TQFileStatus;

/// What the system knows of the volume that holds an item.
typedef struct TQVolumeStatus {
    char typeName[16];   ///< "ext4", "xfs", "btrfs", "tmpfs", …; "unknown" for a type not in the table
    uint32_t blockSize;  ///< bytes
    uint64_t blockCount; ///< in all
} TQVolumeStatus;

TQ_END_DECLS

#endif
