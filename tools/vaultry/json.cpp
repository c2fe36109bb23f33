// See json.h.

#include "json.h"

#include "failure.h"
#include "text.h"
#include "times.h"
#include "typed_time.h"

#include <vaultry/collections.h>
#include <vaultry/number.h>

#include <cstdio>

static constexpr char kBase64Digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

static std::string _ToBase64(std::string_view bytes)
{
    std::string text;
    for (size_t i = 0; i < bytes.size(); i += 3) {
        uint32_t group = 0;
        for (size_t j = 0; j < 3; ++j)
            group = group << 8 | (i + j < bytes.size() ? static_cast<unsigned char>(bytes[i + j]) : 0U);
        for (size_t j = 0; j < 4; ++j) text += i + j > bytes.size() ? '=' : kBase64Digits[group >> (18 - 6 * j) & 63];
    }
    return text;
}

std::optional<std::string> FromBase64(std::string_view text)
{
    std::string bytes;
    uint32_t group = 0;
    unsigned bits = 0;
    const size_t end = text.find_last_not_of('=') + 1;
    if (text.size() % 4 != 0 || text.size() - end > 2) return std::nullopt;
    for (const char character : text.substr(0, end)) {
        const size_t digit = std::string_view(kBase64Digits).find(character);
        if (digit == std::string_view::npos) return std::nullopt;
        group = group << 6 | static_cast<uint32_t>(digit);
        bits += 6;
        if (bits < 8) continue;
        bits -= 8;
        bytes += static_cast<char>(group >> bits & 255);
    }
    return bytes;
}

static Json _NumberToJson(const TQNumber *number)
{
    switch (TQNumberGetKind(number)) {
    case kTQNumberInt64:
        return TQNumberGetInt64(number);
    case kTQNumberUInt64:
        return TQNumberGetUInt64(number);
    case kTQNumberDouble:
        return TQNumberGetDouble(number);
    }
    return nullptr;
}

static Json _DictionaryToJson(const TQDictionary *dictionary)
{
    const size_t count = TQDictionaryGetCount(dictionary);
    std::vector<TQValue *> keys(count), values(count);
    TQDictionaryGetKeysAndValues(dictionary, keys.data(), values.data());
    Json object = Json::object();
    for (size_t i = 0; i < count; ++i) {
        const Owned<TQString> key(TQCopyDescription(keys[i]));
        object[ToText(key.get())] = ToJson(values[i]);
    }
    return object;
}

static std::string_view _Bytes(const TQData *data)
{
    return {static_cast<const char *>(TQDataGetBytes(data)), TQDataGetLength(data)};
}

Json ToJson(const TQValue *value)
{
    const TQTypeID type = TQGetTypeID(value);
    if (type == TQStringGetTypeID()) return ToText(static_cast<const TQString *>(value));
    if (type == TQBooleanGetTypeID()) return TQNumberGetTruth(value);
    if (type == TQNumberGetTypeID()) return _NumberToJson(static_cast<const TQNumber *>(value));
    if (type == TQDateGetTypeID()) return {{"$date", IsoTime(TQDateGetSeconds(static_cast<const TQDate *>(value)))}};
    if (type == TQDataGetTypeID()) return {{"$data", _ToBase64(_Bytes(static_cast<const TQData *>(value)))}};
    if (type == TQDictionaryGetTypeID()) return _DictionaryToJson(static_cast<const TQDictionary *>(value));
    if (type != TQArrayGetTypeID()) return nullptr;
    Json array = Json::array();
    const auto *members = static_cast<const TQArray *>(value);
    for (size_t i = 0; i < TQArrayGetCount(members); ++i) array.push_back(ToJson(TQArrayGetValueAtIndex(members, i)));
    return array;
}

// The value of {"$date": …} or {"$data": …}; none for any other object.
static Owned<TQValue> _Tagged(const Json &object)
{
    if (object.size() != 1 || !object.begin().value().is_string()) return Owned<TQValue>();
    const std::string text = object.begin().value();
    if (object.contains("$date")) {
        const auto time = ParseDate(text);
        if (!time) throw CommandFailure(kExitUsage, Quoted(text) + " is no date");
        return Owned<TQValue>(TQDateCreate(time->first));
    }
    if (!object.contains("$data")) return Owned<TQValue>();
    const auto bytes = FromBase64(text);
    if (!bytes) throw CommandFailure(kExitUsage, Quoted(text) + " is not base64");
    return Owned<TQValue>(TQDataCreate(bytes->data(), bytes->size()));
}

static Owned<TQValue> _FromJson(const Json &json);

static Owned<TQValue> _FromObject(const Json &object)
{
    if (Owned<TQValue> tagged = _Tagged(object)) return tagged;
    TQDictionary *dictionary = TQDictionaryCreateMutable();
    Owned<TQValue> result(dictionary);
    for (const auto &[key, member] : object.items())
        (void)TQDictionarySetValue(dictionary, MakeString(key).get(), _FromJson(member).get());
    return result;
}

static Owned<TQValue> _FromJson(const Json &json)
{
    if (json.is_boolean()) return Owned<TQValue>(TQRetain(TQBooleanGet(json.get<bool>())));
    if (json.is_number_unsigned()) return Owned<TQValue>(TQNumberCreateUInt64(json.get<uint64_t>()));
    if (json.is_number_integer()) return Owned<TQValue>(TQNumberCreateInt64(json.get<int64_t>()));
    if (json.is_number()) return Owned<TQValue>(TQNumberCreateDouble(json.get<double>()));
    if (json.is_object()) return _FromObject(json);
    if (json.is_string()) {
        const std::string text = json;
        return Owned<TQValue>(TQStringCreateWithBytes(text.data(), text.size()));
    }
    if (!json.is_array()) throw CommandFailure(kExitUsage, "a value can't be null");
    TQArray *array = TQArrayCreateMutable();
    Owned<TQValue> result(array);
    for (const Json &member : json) (void)TQArrayAppendValue(array, _FromJson(member).get());
    return result;
}

Owned<TQValue> ParseValue(const std::string &text)
{
    // Every level takes a piece of the stack here and in the library, whose own limit is higher.
    static constexpr int kMaximumDepth = 256;
    const auto limit = [](int depth, Json::parse_event_t, const Json &) {
        if (depth <= kMaximumDepth) return true;
        throw CommandFailure(kExitUsage,
                             "a value can't be nested more than " + std::to_string(kMaximumDepth) + " deep");
    };
    const Json json = Json::parse(text, limit, /*allow_exceptions=*/false);
    if (json.is_discarded()) throw CommandFailure(kExitUsage, Quoted(text) + " is not JSON");
    return _FromJson(json);
}

void PutBytes(Json &object, const char *key, std::string_view bytes)
{
    object[key] = bytes;
    const bool valid = MakeString(std::string(bytes)).get() != nullptr;
    if (!valid) object[std::string(key) + "_base64"] = _ToBase64(bytes);
}

std::string ToLine(const Json &json)
{
    return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

void PrintLine(const Json &json)
{
    fputs(ToLine(json).c_str(), stdout);
}
