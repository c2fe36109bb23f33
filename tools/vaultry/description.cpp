// See description.h.

#include "description.h"

#include "pager.h"
#include "store.h"
#include "text.h"
#include "times.h"
#include "typed_time.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <grp.h>
#include <map>
#include <pwd.h>

static std::string _Time(const Json &value)
{
    return HumanTime(ParseDate(value).value_or(TypedTime()).first);
}

// As ls shows them, and as chmod takes them.
static std::string _Rights(const std::string &octal)
{
    const unsigned long mode = strtoul(octal.c_str(), nullptr, 8);
    std::string rights = "rwxrwxrwx";
    for (size_t i = 0; i < rights.size(); ++i)
        if (!(mode & 0400UL >> i)) rights[i] = '-';
    static constexpr struct {
        unsigned long bit;
        size_t place;
        char letter;
    } special[] = {{04000, 2, 's'}, {02000, 5, 's'}, {01000, 8, 't'}};
    for (const auto &[bit, place, letter] : special)
        if (mode & bit) rights[place] = static_cast<char>(rights[place] == 'x' ? letter : letter - 'a' + 'A');
    return rights + " (" + octal + ")";
}

template <class Entry>
static std::string _NameOf(const Json &number, Entry *(*find)(unsigned), char *(*nameOf)(const Entry *))
{
    const Entry *entry = find(number.get<unsigned>());
    return entry ? Printable(nameOf(entry)) + " (" + number.dump() + ")" : number.dump();
}

static std::string _Listed(const Json &words)
{
    std::string text;
    for (const Json &word : words) text += (text.empty() ? "" : ", ") + word.get<std::string>();
    return text.empty() ? "none" : text;
}

// Bytes that are text are shown as such.
static std::string _Data(const std::string &base64)
{
    static constexpr size_t kShown = 16;
    const std::string bytes = FromBase64(base64).value_or("");
    const bool isText = MakeString(bytes).get() && Printable(bytes) == bytes;
    if (isText || bytes.rfind('/', 0) == 0) return Quoted(bytes); // most likely a path, whose names may be of any bytes
    std::string text = std::to_string(bytes.size()) + (bytes.size() == 1 ? " byte:" : " bytes:");
    char digits[8];
    for (size_t i = 0; i < bytes.size() && i < kShown; ++i) {
        snprintf(digits, sizeof digits, " %02x", static_cast<unsigned char>(bytes[i]));
        text += digits;
    }
    return text + (bytes.size() > kShown ? " ..." : "");
}

// A value of the info dictionary.
static std::string _Value(const Json &value)
{
    if (value.is_string()) return Quoted(value.get<std::string>());
    if (!value.is_structured()) return value.dump();
    if (value.size() == 1 && value.contains("$date") && value["$date"].is_string()) return _Time(value["$date"]);
    if (value.size() == 1 && value.contains("$data") && value["$data"].is_string()) return _Data(value["$data"]);
    std::string text;
    for (const auto &[key, member] : value.items())
        text += (text.empty() ? "" : ", ") + (value.is_object() ? Printable(key) + " = " : "") + _Value(member);
    return value.is_object() ? "{" + text + "}" : "[" + text + "]";
}

static std::string _Words(const std::string &key, const Json &value)
{
    const std::string text = value.is_string() ? value.get<std::string>() : "";
    if (key == "kept" || key == "modified") return _Time(value);
    if (key == "size") return HumanSize(value.get<uint64_t>());
    if (key == "mode") return _Rights(text);
    if (key == "owner") return _NameOf<passwd>(value, getpwuid, [](const passwd *user) { return user->pw_name; });
    if (key == "group") return _NameOf<group>(value, getgrgid, [](const group *members) { return members->gr_name; });
    if (key == "flags") return _Listed(value);
    if (key == "options") return OptionsText(value.get<uint64_t>());
    if (key == "backup_of") return "by a restore" + (text.empty() ? "" : " from " + Quoted(text));
    if (value.is_boolean()) return value ? "yes" : "no";
    return value.is_string() ? Printable(text) : _Value(value);
}

static constexpr size_t kLabelWidth = 13;

static std::string _Label(const std::string &key)
{
    static const std::map<std::string, std::string> labels = {
        {"modified", "last changed"}, {"mode", "rights"}, {"display_name", "shown as"}, {"backup_of", "put aside"}};
    const auto found = labels.find(key);
    std::string label = (found == labels.end() ? key : found->second) + ":";
    label.resize(std::max(label.size(), kLabelWidth), ' ');
    return label + " ";
}

void PrintDescription(const Json &object, const std::vector<std::string> &moreLines)
{
    std::vector<std::string> lines;
    for (const auto &[key, value] : object.items())
        if (key != "info" && key != "problems" && !key.ends_with("_base64"))
            lines.push_back(_Label(key) + _Words(key, value));
    if (object.contains("info"))
        for (const auto &[key, value] : object["info"].items())
            if (key != kDigestKey || !value.is_object()) // a seal is for programs; its kind tells that there is one
                lines.push_back("  " + Printable(key) + " = " + _Value(value));
    lines.insert(lines.end(), moreLines.begin(), moreLines.end());
    PrintLines(lines);
}
