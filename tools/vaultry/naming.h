// The name that a generation gets where the user gives none, and what its name means to a restore.

#pragma once

#include <ctime>
#include <string>

inline constexpr size_t kMaximumNameLength = 254;

// Made of the document's own name and the time: "Report-2026-03-01T10-15-30Z.txt". `attempt` counts from 0;
// later attempts put "-2", "-3" behind the time. Always a generation name: never longer than the limit, never
// beginning with ".". Bytes that are not UTF-8, control characters and what else could not be typed become "%ff".
// Always restored to the document's own path: it ends in exactly the document's extension, or has no "." at all.
std::string DefaultGenerationName(const std::string &documentPath, time_t now, unsigned attempt);

// Where a restore from the generation `name` leaves a document that is there: its extension is then that of the name,
// if both have one.
std::string RestoredPath(const std::string &document, const std::string &name);

// The last component of a path; and a path without the slashes at its end, which would make it the link's target.
std::string BaseName(const std::string &path);
std::string WithoutTrailingSlashes(std::string path);

// Throws with the usage exit code unless `name`, which the user gave with `option`, may name a generation.
void CheckGenerationName(const std::string &option, const std::string &name);
