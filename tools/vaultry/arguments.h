// What the user asked for.

#pragma once

#include <optional>
#include <string>
#include <vector>

enum class Command { Init, Add, List, Copy, Remove, Destroy };

struct Arguments {
    Command command = Command::List;
    std::optional<std::string> store;
    bool verbose = false;

    std::vector<std::string> documents; // add
    std::string document;               // list; empty for all
    std::vector<std::string> names;     // remove
    std::string name;                   // copy
    std::string destination;            // copy
    std::optional<std::string> newName; // add
    bool move = false;                  // add
    bool yes = false;                   // destroy
};

// Fills `arguments`. Or shows help or what is wrong with them, and returns the exit code.
std::optional<int> ParseArguments(int argc, char **argv, Arguments &arguments);
