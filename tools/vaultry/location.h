// Where the store is, and what is there.

#pragma once

#include <optional>
#include <set>
#include <string>
#include <sys/stat.h>
#include <vector>

// The absolute path of the store: from --store, else $VAULTRY_STORE, else the user's data directory. If it exists, its
// links are resolved, since the library does not accept a link as a store.
std::string LocateStore(const std::optional<std::string> &given);

// Whether the user has said where it is.
bool IsStoreNamed(const std::optional<std::string> &given);

enum class PlaceKind {
    Missing,
    Free,    // an empty directory, or one in which making a store was cut short
    Store,   // has the store's lock file and its staging area
    Damaged, // has one of the two, and generations
    Other,   // anything else: never to be touched
};

// Whether there is an item, or a link, and its status. Throws if that can't be told: an item that can't be looked at
// does not count as absent.
bool IsThere(const std::string &path, struct stat *status);

// Whether the volume of a path answers at all. One whose server is gone does not.
bool DoesAnswer(const std::string &path);

PlaceKind LookAtPlace(const std::string &path);

bool IsEmpty(const std::string &path);

// True for a store, or the rest of one: the file goes last when a store is destroyed.
bool HasLockFile(const std::string &path);

// Whether a path is that of a store's staging area, or leads into it.
bool IsInStaging(const std::string &store, const std::string &path);

// Makes the directory of a store and its missing parents, all for their owner alone whatever the umask is. Returns
// those that it made, parents first; leaves none if it throws.
std::vector<std::string> MakePlace(const std::string &path);

// Removes them again if they are empty.
void RemoveMade(const std::vector<std::string> &made);

// The names of the generations in a store's directory as they are at the moment, without the store's lock.
std::set<std::string> PeekAtNames(const std::string &path);

// Those of them that are links, and so no generations.
std::set<std::string> PeekAtLinks(const std::string &path);

// The absolute path, without touching the last component.
std::string AbsolutePath(const std::string &path);
