// Owns one reference of a counted value of the library.

#pragma once

#include <vaultry/data.h>
#include <vaultry/string.h>

#include <string>
#include <string_view>
#include <utility>

template <class T> class Owned {
public:
    Owned() = default;
    explicit Owned(T *value) : value_(value) {}
    Owned(Owned &&other) noexcept : value_(std::exchange(other.value_, nullptr)) {}
    Owned &operator=(Owned &&other) noexcept
    {
        std::swap(value_, other.value_);
        return *this;
    }
    ~Owned() { TQRelease(value_); }

    T *get() const { return value_; }
    explicit operator bool() const { return value_ != nullptr; }

    // For an out-parameter; a value that was held before is released.
    T **out()
    {
        TQRelease(std::exchange(value_, nullptr));
        return &value_;
    }

private:
    T *value_ = nullptr;
};

inline Owned<TQString> MakeString(const std::string &utf8)
{
    return Owned<TQString>(TQStringCreateWithBytes(utf8.data(), utf8.size()));
}

inline std::string ToText(const TQString *string)
{
    return string ? std::string(TQStringGetUTF8(string), TQStringGetUTF8Length(string)) : std::string();
}
