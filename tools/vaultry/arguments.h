// What the user asked for.

#pragma once

#include "prune_plan.h"

#include <optional>
#include <string>
#include <vector>

enum class Command {
    Init,
    Add,
    List,
    Show,
    Copy,
    Restore,
    Undo,
    Moved,
    Diff,
    Set,
    Remove,
    Pin,
    Unpin,
    Prune,
    Seal,
    Check,
    Usage,
    Clone,
    Destroy,
    Completion
};

// Which of a document's generations is meant, where no name tells.
struct Choice {
    bool latest = false;
    std::optional<std::string> at, before; // times, as they were typed
    bool isMade() const { return latest || at || before; }
};

struct Arguments {
    Command command = Command::List;
    std::optional<std::string> store;
    bool verbose = false;
    std::optional<double> wait; // seconds
    bool json = false;          // print for a program
    bool noPager = false;

    std::vector<std::string> documents; // add, prune
    std::string document;               // list, usage: empty for all; restore, undo; moved: the old path
    Choice choice;                      // copy, show, restore, diff, set, remove, pin, seal
    std::vector<std::string> names;     // remove, pin, seal; with a choice, documents; clone: [STORE] TARGET
    std::string name;                   // copy, show, restore, diff, set; with a choice, a document
    std::optional<std::string> item;    // copy, show, restore, diff: only this one, by its path below the top
    std::string destination;            // copy
    std::optional<std::string> newName; // add
    bool move = false;                  // add
    bool noLinks = false;               // add
    bool noShare = false;               // add
    bool retry = false;                 // add
    bool pin = false;                   // add
    std::vector<std::string> tags;      // add
    bool seal = false;                  // add
    bool ifChanged = false;             // add
    bool yes = false;                   // destroy
    bool pinnedToo = false;             // remove
    bool all = false;                   // seal
    bool replace = false;               // restore
    bool anyway = false;                // moved

    bool longList = false;                     // list
    std::optional<size_t> limit;               // list
    bool reverse = false;                      // list
    std::optional<std::string> since, until;   // list
    bool byDocument = false;                   // list
    std::optional<std::string> client;         // list
    std::optional<std::string> withOptions;    // list
    std::optional<std::string> withoutOptions; // list

    std::optional<std::string> backup; // restore
    bool noBackup = false;             // restore

    PruneRules keep;                       // prune, except for
    std::optional<std::string> keepWithin; // prune: a span of time, as it was typed
    bool foreign = false;                  // prune
    bool isDryRun = false;                 // prune

    std::string other;      // diff: a document or a generation; moved: the new path
    bool times = false;     // diff
    bool summary = false;   // diff
    bool namesOnly = false; // diff

    std::vector<std::string> assignments;   // set
    std::vector<std::string> unset;         // set
    std::optional<std::string> displayName; // set
    std::optional<std::string> options;     // set

    std::optional<std::string> checked; // check: the store
    bool repair = false;                // check
    bool readAll = false;               // check

    std::string shell; // completion
};

// Fills `arguments`; or shows help, or what is wrong with them, and returns the exit code.
std::optional<int> ParseArguments(int argc, char **argv, Arguments &arguments);
