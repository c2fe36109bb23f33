#include "Runtime/URLText.h"

#include <algorithm>

#include <strings.h>

namespace {

constexpr std::string_view kPathPunctuation = "-._~!$&'()*+,;=@/";

constexpr bool _IsLetter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

constexpr bool _IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

constexpr int _HexDigit(char c)
{
    if (_IsDigit(c)) return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

bool _EqualsWord(std::string_view text, std::string_view word)
{
    return text.size() == word.size() && strncasecmp(text.data(), word.data(), word.size()) == 0;
}

// Takes what stands before the first of `ends`, or everything, from the front of `text`.
std::string_view _Take(std::string_view &text, const char *ends)
{
    const std::string_view taken = text.substr(0, text.find_first_of(ends));
    text.remove_prefix(taken.size());
    return taken;
}

bool _IsScheme(std::string_view text)
{
    const auto isPart = [](char c) { return _IsLetter(c) || _IsDigit(c) || c == '+' || c == '-' || c == '.'; };
    return !text.empty() && _IsLetter(text[0]) && std::all_of(text.begin(), text.end(), isPart);
}

// Resolves "." and ".." in a path; ".." above the top is dropped.
std::string _RemoveDots(std::string_view path)
{
    std::string result;
    while (!path.empty()) {
        // One segment with the slash before it; only the first may have none.
        const std::string_view segment = path.substr(0, path.find('/', 1));
        path.remove_prefix(segment.size());
        const std::string_view name = segment[0] == '/' ? segment.substr(1) : segment;
        if (name != "." && name != "..") {
            result.append(segment);
            continue;
        }
        if (name == "..") result.erase(result.rfind('/') == std::string::npos ? 0 : result.rfind('/'));
        // At the end of a path it stands for a directory, so the slash stays.
        if (path.empty() && (segment[0] == '/' || !result.empty())) result.push_back('/');
    }
    return result;
}

std::string _MergePaths(const URLParts &base, const std::string &relative)
{
    if (base.authority && base.path.empty()) return "/" + relative;
    const size_t slash = base.path.rfind('/');
    return slash == std::string::npos ? relative : base.path.substr(0, slash + 1) + relative;
}

} // namespace

bool URLParts::IsFile() const
{
    return scheme && _EqualsWord(*scheme, "file");
}

bool HasFileScheme(std::string_view text)
{
    return _EqualsWord(text.substr(0, 5), "file:");
}

bool URLParts::IsOnThisHost() const
{
    return !authority || authority->empty() || _EqualsWord(*authority, "localhost");
}

bool IsURLText(std::string_view text)
{
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '%') {
            if (i + 2 >= text.size() || _HexDigit(text[i + 1]) < 0 || _HexDigit(text[i + 2]) < 0) return false;
            i += 2;
        } else if (!_IsLetter(c) && !_IsDigit(c) && kPathPunctuation.find(c) == std::string_view::npos &&
                   std::string_view(":?#[]").find(c) == std::string_view::npos) {
            return false;
        }
    }
    return true;
}

URLParts SplitURL(std::string_view text)
{
    URLParts parts;
    const std::string_view scheme = text.substr(0, text.find_first_of(":/?#"));
    if (scheme.size() < text.size() && text[scheme.size()] == ':' && _IsScheme(scheme)) {
        parts.scheme = scheme;
        text.remove_prefix(scheme.size() + 1);
    }
    if (text.starts_with("//")) {
        text.remove_prefix(2);
        parts.authority = _Take(text, "/?#");
    }
    parts.path = _Take(text, "?#");
    if (text.starts_with('?')) parts.query = _Take(text, "#").substr(1);
    if (text.starts_with('#')) parts.fragment = text.substr(1);
    return parts;
}

std::string JoinURL(const URLParts &parts)
{
    std::string text;
    if (parts.scheme) text += *parts.scheme + ":";
    if (parts.authority) text += "//" + *parts.authority;
    // Two slashes at the start of a path would be read as an authority.
    if (!parts.authority && parts.path.starts_with("//")) text += "/.";
    text += parts.path;
    if (parts.query) text += "?" + *parts.query;
    if (parts.fragment) text += "#" + *parts.fragment;
    return text;
}

URLParts ResolveURL(const URLParts &base, const URLParts &relative)
{
    if (relative.scheme) return relative;
    URLParts target = relative;
    target.scheme = base.scheme;
    if (relative.authority) {
        target.path = _RemoveDots(relative.path);
        return target;
    }
    target.authority = base.authority;
    if (relative.path.empty()) {
        target.path = base.path;
        if (!relative.query) target.query = base.query;
    } else if (relative.path.starts_with('/')) {
        target.path = _RemoveDots(relative.path);
    } else {
        target.path = _RemoveDots(_MergePaths(base, relative.path));
    }
    return target;
}

std::string EscapePath(std::string_view path)
{
    constexpr char kDigits[] = "0123456789ABCDEF";
    const bool isAbsolute = path.starts_with('/');
    std::string text;
    text.reserve(path.size());
    for (const char c : path) {
        const bool plain = _IsLetter(c) || _IsDigit(c) || kPathPunctuation.find(c) != std::string_view::npos ||
                           (c == ':' && isAbsolute);
        if (plain) {
            text.push_back(c);
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        text.push_back('%');
        text.push_back(kDigits[byte >> 4]);
        text.push_back(kDigits[byte & 15]);
    }
    return text;
}

std::string UnescapePath(std::string_view text)
{
    std::string path;
    path.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            path.push_back(text[i]);
            continue;
        }
        path.push_back(static_cast<char>(_HexDigit(text[i + 1]) << 4 | _HexDigit(text[i + 2])));
        i += 2;
    }
    return path;
}
