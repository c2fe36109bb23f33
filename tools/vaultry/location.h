// Where the store is, and what is there.

#pragma once

#include <optional>
#include <set>
#include <string>
#include <sys/stat.h>
#include <vector>

// The absolute path of the store: what --store said, else $VAULTRY_STORE, else the user's data directory. With links
// resolved where it exists, since the library takes no link for a store.
std::string LocateStore(const std::optional<std::string> &given);

enum class PlaceKind {
    Missing,
    Free,    // an empty directory, or one in which making a store was cut short
    Store,   // has the store's lock file and its staging area
    Damaged, // has one of the two, and generations
    Other,   // anything else: never to be touched
};

// Whether there is an item, a link included, and what it is. Throws for anything but "there is none": what can't be
// looked at is not taken for absent.
bool IsThere(const std::string &path, struct stat *status);

PlaceKind LookAtPlace(const std::string &path);

bool IsEmpty(const std::string &path);

// Of a store, or what is left of one: the file goes last when a store is destroyed.
bool HasLockFile(const std::string &path);

// Whether a path is that of a store's staging area, or leads into it.
bool IsInStaging(const std::string &store, const std::string &path);

// Makes the directory of a store, and those parents that are missing, all for their owner alone whatever the umask is.
// Says which, parents first; none if it throws.
std::vector<std::string> MakePlace(const std::string &path);

// Removes them again, as far as they are empty.
void RemoveMade(const std::vector<std::string> &made);

// The names of the generations in a store's directory as they are at the moment, without the store's lock.
std::set<std::string> PeekAtNames(const std::string &path);

// The absolute path, without touching the last component.
std::string AbsolutePath(const std::string &path);
