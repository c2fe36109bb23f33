// JSON, for programs that read what the command prints, and for values that users type.
//
// A type that JSON lacks is written as an object with one key: {"$date": "2026-03-01T10:15:30.25Z"} and {"$data":
// "base64"}. Bytes that are not UTF-8 are shown with replacement characters, and whole in a second entry, "…_base64".

#pragma once

#include "owned.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <string_view>

using Json = nlohmann::ordered_json;

Json ToJson(const TQValue *value);

// Throws CommandFailure if the text is not JSON, or can't be a property-list value (null, a malformed "$date" or
// "$data", containers nested too deep).
Owned<TQValue> ParseValue(const std::string &text);

std::optional<std::string> FromBase64(std::string_view text);

void PutBytes(Json &object, const char *key, std::string_view bytes);

// One object a line.
std::string ToLine(const Json &json);
void PrintLine(const Json &json);
