// The text of URLs: their parts, percent escapes, and how a relative one is resolved (RFC 3986).

#pragma once

#include <optional>
#include <string>
#include <string_view>

struct URLParts {
    std::optional<std::string> scheme;
    std::optional<std::string> authority; // what stands between "//" and the path
    std::string path;
    std::optional<std::string> query;
    std::optional<std::string> fragment;

    bool IsFile() const;       // by its scheme, whatever its case
    bool IsOnThisHost() const; // no authority, an empty one, or "localhost"
};

// Whether every character may stand in a URL and every "%" begins an escape.
bool IsURLText(std::string_view text);

// As URLParts::IsFile, but takes no memory.
bool HasFileScheme(std::string_view text);

URLParts SplitURL(std::string_view text);
std::string JoinURL(const URLParts &parts);
URLParts ResolveURL(const URLParts &base, const URLParts &relative);

// A path's bytes as a URL's path. In a relative path a colon is escaped too, since it would end a scheme.
std::string EscapePath(std::string_view path);
std::string UnescapePath(std::string_view text);
