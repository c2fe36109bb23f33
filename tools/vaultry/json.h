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

// Throws CommandFailure for what is no JSON, or can be no property-list value (null, a "$date" or "$data" that is none,
// containers in containers without end).
Owned<TQValue> ParseValue(const std::string &text);

void PutBytes(Json &object, const char *key, std::string_view bytes);

// One object a line.
void PrintLine(const Json &json);

// UTC, with as many digits of the second as it needs.
std::string IsoTime(double secondsSince1970);

// What a time stands for that was given no more exactly than to the day, the minute, the second, or a part of it.
enum class Moment { First, Last };

// "2026-03-01", "2026-03-01 10:15", "2026-03-01T10:15:30.25Z": local time unless it ends in "Z". None if it can't
// be read, or the calendar has no such day.
std::optional<double> ParseTime(const std::string &text, Moment moment);
