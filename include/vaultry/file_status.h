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

/// A moment since 1970-01-01 00:00 UTC: a `struct timespec`, or the same by parts for a compiler of strict C99, which
/// has none.
#if defined __STDC_VERSION__ && __STDC_VERSION__ < 201112L && !defined _POSIX_C_SOURCE
typedef struct TQTimeSpec {
    time_t tv_sec;
    long tv_nsec;
} TQTimeSpec;
#else
typedef struct timespec TQTimeSpec;
#endif

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
    TQTimeSpec accessTime;
    TQTimeSpec modificationTime;
    TQTimeSpec changeTime;
    TQTimeSpec birthTime; ///< zero unless hasBirthTime
    bool hasBirthTime;
    bool isMountRoot; ///< something is mounted here, of another volume or of the same one
    uint8_t unused[6];
    uint64_t reserved[8]; ///< 0; later versions may put more here
} TQFileStatus;

/// What the system knows of the volume that holds an item.
typedef struct TQVolumeStatus {
    char typeName[16];    ///< "ext4", "xfs", "btrfs", "tmpfs", …; "unknown" for a type not in the table
    uint32_t blockSize;   ///< bytes
    uint64_t blockCount;  ///< in all
    uint64_t reserved[8]; ///< 0; later versions may put more here
} TQVolumeStatus;

TQ_END_DECLS

#endif
