// JSON, for programs that read what the command prints, and for values that users type.
//
// What JSON lacks is written as an object with one key: {"$date": "2026-03-01T10:15:30.25Z"} and {"$data": "base64"}.
// Bytes that are not UTF-8 are shown with replacement characters, and whole in a second entry, "…_base64".

#pragma once

#include "owned.h"

#include <nlohmann/json.hpp>

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
