// Paths in fixed buffers. One that does not fit is refused, never cut.

#pragma once

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>

// A path of at most 1,023 bytes, as the store keeps them.
class PathBuffer {
public:
    static constexpr size_t kCapacity = 1024;

    // False, and the buffer is empty, if the text needs 1,024 bytes or more with its zero.
    [[gnu::format(printf, 2, 3)]] bool Format(const char *format, ...)
    {
        va_list arguments;
        va_start(arguments, format);
        const int length = vsnprintf(text_, sizeof text_, format, arguments);
        va_end(arguments);
        const bool fits = length >= 0 && static_cast<size_t>(length) < sizeof text_;
        if (!fits) text_[0] = '\0';
        return fits;
    }

    // False if only a part fits; that part is then there.
    bool Append(const char *text)
    {
        const size_t length = strlen(text_);
        const size_t room = sizeof text_ - 1 - length;
        const size_t wanted = strlen(text);
        const size_t taken = wanted < room ? wanted : room;
        memcpy(text_ + length, text, taken);
        text_[length + taken] = '\0';
        return taken == wanted;
    }

    char *data() { return text_; }
    const char *c_str() const { return text_; }

private:
    char text_[kCapacity] = "";
};

// A caller's path without slashes at its end: the URL of a directory has one, and the path of a file must not.
class TrimmedPath {
public:
    explicit TrimmedPath(const char *path)
    {
        size_t length = strlen(path);
        while (length > 1 && path[length - 1] == '/') --length;
        if (length >= sizeof text_) return;
        memcpy(text_, path, length);
        text_[length] = '\0';
    }

    // False if the kernel would not take it either.
    explicit operator bool() const { return text_[0] != '\0'; }
    const char *c_str() const { return text_; }

private:
    char text_[PATH_MAX] = "";
};

// The path of the directory that holds the item at a path, with or without slashes at its end; "." for a name alone.
class ParentPath {
public:
    explicit ParentPath(const char *item)
    {
        const TrimmedPath trimmed(item);
        const char *const slash = strrchr(trimmed.c_str(), '/');
        if (!slash) return;
        const auto length = slash - trimmed.c_str();
        (void)snprintf(text_, sizeof text_, "%.*s", static_cast<int>(length > 0 ? length : 1), trimmed.c_str());
    }

    const char *c_str() const { return text_; }

private:
    char text_[PATH_MAX] = ".";
};
