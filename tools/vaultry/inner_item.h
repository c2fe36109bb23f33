// One item of a folder, by its path below the top: "chapters/one.txt".
//
// No link on the way to it is followed.

#pragma once

#include <optional>
#include <string>
#include <sys/stat.h>

// The path without slashes at its end. Throws with the usage exit code if it is not relative, or leads up.
std::string CheckedInnerPath(const std::string &given);

// The status of the item; none if it, or a folder on the way, is missing. Throws if anything but a folder is on the
// way. Messages call the top `label`.
std::optional<struct stat> LookForItem(const std::string &top, const std::string &label, const std::string &inner);

// The same of an item of the generation `name`, which has to be there; else it is said which is the nearest. "" is the
// top, if that is a folder.
struct stat RequireItem(const std::string &top, const std::string &name, const std::string &inner);
