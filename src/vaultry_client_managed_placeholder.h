// The names under which a restore keeps items beside a document while it runs.
//
//     letter-tmp.nosync.k3Yz90.txt    of a file: stem, mark, six characters, extension
//     photos-tmp.nosync.k3Yz90        of a folder: its whole name, mark, six characters
//
// No file system takes a name of more than 255 bytes. So the stem is made shorter first, then the extension, always
// between characters.

#pragma once

#include <climits>
#include <cstddef>

struct PlaceholderName {
    static constexpr char kMark[] = "-tmp.nosync.", kUnique[] = "XXXXXX";

    char text[NAME_MAX + 1]; // with an X for each of the six characters
    size_t stemLength;
    size_t extensionLength;

    // For the document called `document`.
    PlaceholderName(const char *document, bool isFolder);

    // Whether a restore may have made `name`.
    bool Matches(const char *name) const;
};
