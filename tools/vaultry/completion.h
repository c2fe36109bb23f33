// Completions for shells.
//
// The scripts know nothing of the command line: at each TAB they ask the command itself, which answers from its own
// definition. So they can't fall behind it, and the three shells complete the same.

#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

// The script that a shell reads.
void PrintCompletion(const std::string &shell);

// What the scripts call the command with; behind it come the words of the line up to the cursor, the last one perhaps
// empty.
inline constexpr char kCompleteWord[] = "__complete";

// What may stand in the place of the last word: first a line that says what else may, "words" (nothing), "files" or
// "directories"; then a line each, with a tab and what it means behind it where that is known.
void PrintCandidates(const CLI::App &app, const std::vector<std::string> &words);
