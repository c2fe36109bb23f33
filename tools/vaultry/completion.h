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

// The scripts call the command with this word, followed by the words of the line up to the cursor, the last one perhaps
// empty.
inline constexpr char kCompleteWord[] = "__complete";

// Prints the candidates for the last word. The first line says what else fits: "words" (nothing), "files" or
// "directories". Then each candidate has a line, followed by a tab and its meaning if that is known.
void PrintCandidates(const CLI::App &app, const std::vector<std::string> &words);
