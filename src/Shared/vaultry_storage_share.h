// Shares what has not changed: a file of a document that an earlier generation has just like this becomes one more hard
// link to the file of that generation, and takes no room of its own.
//
// Always: nothing is taken on trust from times or sizes. Every byte is compared, and so is everything else that the
// copy would have: the record of its permissions, mode, owner, group, flags, time of modification, attributes and
// access list. From then on the file belongs to several generations. So no mode, flag, time or attribute of a stored
// file with several links is ever changed: see TreeRemoval::keepsShared, and the check.

#pragma once

#include "Platform/Comparison.h"
#include "Platform/UniqueFd.h"
#include "Platform/duplix.h"

class BaseFiles {
public:
    // `generation` is the path of the earlier generation. If it is not a folder that can be read, nothing is shared.
    void Open(const char *generation);

    enum class Outcome { Shared, NotShared, Stopped };

    // Makes `file.destination` a link to the same file of the base, if there is one. `record` is what archiving would
    // record of the file. Whatever stands in the way, the file can still be copied.
    Outcome Share(const DuplixOpened &file, uint8_t record, const platform::Comparison::GoOn &goOn);

private:
    bool IsSame(const DuplixOpened &file, uint8_t record, int base, const TQFileStatus &status,
                const platform::Comparison::GoOn &goOn);

    UniqueFd top_;
    platform::Comparison comparison_;
};
