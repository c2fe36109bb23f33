// Standard output: what was asked for has to arrive there.

#pragma once

#include <string>

// Takes the number of each standard stream that is closed, for something that can't be read or written. Otherwise a
// file that is opened later would have that number, and whatever is printed would be written into it.
void HoldStandardStreams();

// Throws if anything of what was printed did not arrive. `done` tells what must not be forgotten then.
void RequireOutput(const std::string &done = "");
