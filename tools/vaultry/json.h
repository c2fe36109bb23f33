// JSON, for programs that read what the command prints, and for values that users type.
//
// What JSON lacks is written as an object with one key: {"$date": "2026-03-01T10:15:30.25Z"} and {"$data": "base64"}.
// Bytes that are not UTF-8 are shown with replacement characters, and whole in a second entry, "…_base64".

#pragma once

#include "owned.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <string_view>

using Json = nlohmann::ordered_json;

Json ToJson(const TQValue *value);

// Throws CommandFailure for what can be no property-list value (null, or a "$date" or "$data" that is none).
Owned<TQValue> FromJson(const Json &json);

void PutBytes(Json &object, const char *key, std::string_view bytes);

// One object a line.
void PrintLine(const Json &json);

// UTC, with as many digits of the second as it needs.
std::string IsoTime(double secondsSince1970);

// "2026-03-01", "2026-03-01 10:15", "2026-03-01T10:15:30.25Z": local time unless it ends in "Z". A date alone is
// its last moment with `endOfDay`, else its first. None if it can't be read.
std::optional<double> ParseTime(const std::string &text, bool endOfDay);
