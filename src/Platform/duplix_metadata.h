// Everything about one item except its bytes, in an order in which no step undoes another.
//
// A change of owner clears set-id bits and capabilities, an access list changes the mode, every change of
// contents changes the times, and an immutable item takes no change at all. Hence: attributes, owner and
// group, lists, capability, mode, times, flags.

#pragma once

#include "Platform/Volume.h"
#include "Platform/duplix_reports.h"

#include <memory>
#include <sys/types.h>

namespace platform {

// One open file or directory and its copy.
struct CopiedItem {
    int from;
    const TQFileStatus &source;
    int to;
    TQFileStatus &made;    // the copy as it stands
    bool mayHaveInherited; // the directory above may have handed lists down
    bool leavesMode;       // whether somebody else sets the mode
};

struct CopiedMode {
    mode_t mode = 0;         // what the copy is to have
    bool isDue = false;      // whether it is still to be set
    bool isListLost = false; // whether it stands for an access list that the volume could not hold
};

// What copying the access lists means for the mode.
struct CopiedLists {
    bool touched = false;    // an access list was set: the mode's group bits are no longer what they were
    mode_t denied = 0;       // what the mode may not grant
    bool isListLost = false; // the volume could not hold the access list
};

// `user.` attributes, access-control lists, and as root the capability. Keeps its buffers from item to item.
class AttributeCopier {
public:
    explicit AttributeCopier(VolumeMemory &volumes) : volumes_(volumes) {}

    Copied CopyUserAttributes(const CopiedItem &item, DuplixReports &reports);
    // Both use what CopyUserAttributes found on the same item.
    Copied CopyLists(const CopiedItem &item, CopiedLists *lists, DuplixReports &reports);
    Copied CopyCapability(const CopiedItem &item, DuplixReports &reports);

private:
    bool ReadNames(int from);
    bool Has(const char *name) const;
    ssize_t ReadValue(int from, const char *name);
    bool CopyOne(const CopiedItem &item, const char *name);
    bool ReadList(const CopiedItem &item, const char *name, size_t *size);
    bool CopyAccessList(const CopiedItem &item, CopiedLists *lists);
    bool CopyDefaultList(const CopiedItem &item);

    std::unique_ptr<char[]> names_; // each ends in a zero
    size_t namesLength_ = 0;
    std::unique_ptr<unsigned char[]> value_;
    VolumeMemory &volumes_;
};

// Gives a new item the rights that its owner needs to fill it, if a strict umask took them, and notes that in `made`.
void GiveOwnerRights(int fd, TQFileStatus *made);

// The same for an item whose mode was assumed and has proved to be another: the umask belongs to the whole process, and
// another thread may have changed it. False if the mode was not assumed.
bool GiveAssumedRights(const CopiedItem &item);

// Takes away a compressed flag that the directory above has handed down, before there is data, and notes that in
// `made`.
void StorePlain(int fd, TQFileStatus *made);

// Copies all of this, and notes owner, mode and flags in `item.made`. If the mode is left to somebody else, it comes
// last, and `item.made` has what is known of it.
Copied CopyMetadata(const CopiedItem &item, AttributeCopier &attributes, DuplixReports &reports, CopiedMode *mode);

// The same for a symbolic link, which has neither attributes nor a mode or flags.
Copied CopyLinkMetadata(const TQFileStatus &source, const Item &link);

} // namespace platform
