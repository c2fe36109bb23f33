// The name that a generation gets if the user gives none, and the meaning of its name for a restore.

#pragma once

#include <ctime>
#include <string>

inline constexpr size_t kMaximumNameLength = 254;

// Made from the document's own name and the time: "Report-2026-03-01T10-15-30Z.txt". `attempt` counts from 0; later
// attempts put "-2", "-3" after the time. Always a generation name: never longer than the limit, never beginning with
// ".". Bytes that are not UTF-8, control characters and others that can't be typed become "%ff". A restore from it
// always goes to the document's own path: the name ends in exactly the document's extension, or has no "." at all.
std::string DefaultGenerationName(const std::string &documentPath, time_t now, unsigned attempt);

// The path that an existing document has after a restore from the generation `name`: it gets the extension of that
// name, if both have one.
std::string RestoredPath(const std::string &document, const std::string &name);

// The last component of a path; and a path without the slashes at its end, which would make it the link's target.
std::string BaseName(const std::string &path);
std::string WithoutTrailingSlashes(std::string path);

// Throws with the usage exit code unless `name`, which the user gave with `option`, may name a generation.
void CheckGenerationName(const std::string &option, const std::string &name);
