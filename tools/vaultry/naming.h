// The name that a generation gets where the user gives none.

#pragma once

#include <ctime>
#include <string>

inline constexpr size_t kMaximumNameLength = 254;

// Made of the document's own name and the time: "Report 2026-03-01T10.15.30Z.txt". `attempt` counts from 0;
// later attempts put "-2", "-3" behind the time. Always a generation name: never longer than the limit, never
// beginning with ".". Bytes that are not UTF-8, control characters and what else could not be typed become "%ff".
std::string DefaultGenerationName(const std::string &documentPath, time_t now, unsigned attempt);

// The last component of a path; and a path without the slashes at its end, which would make it the link's target.
std::string BaseName(const std::string &path);
std::string WithoutTrailingSlashes(std::string path);

// Throws with the usage exit code unless `name` may name a generation.
void CheckGenerationName(const std::string &name);
