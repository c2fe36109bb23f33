// Owns one reference of a counted value.

#pragma once

#include <vaultry/value.h>

#include <utility>

template <class T> class Ref {
public:
    Ref() = default;
    Ref(std::nullptr_t) {}
    Ref(Ref &&other) noexcept : value_(other.Detach()) {}
    Ref(const Ref &other) : value_(static_cast<T *>(TQRetain(other.value_))) {}
    Ref &operator=(Ref other) noexcept
    {
        std::swap(value_, other.value_);
        return *this;
    }
    ~Ref() { TQRelease(value_); }

    // Takes over a reference that a Create or Copy function gave.
    static Ref Adopt(T *value)
    {
        Ref ref;
        ref.value_ = value;
        return ref;
    }
    // Adds a reference to a value that was lent.
    static Ref Retain(T *value) { return Adopt(static_cast<T *>(TQRetain(value))); }

    T *get() const { return value_; }
    explicit operator bool() const { return value_ != nullptr; }

    // Hands the reference to the caller.
    T *Detach() { return std::exchange(value_, nullptr); }

    // For an out-parameter; what was held before is released.
    T **out()
    {
        TQRelease(std::exchange(value_, nullptr));
        return &value_;
    }

private:
    T *value_ = nullptr;
};

// Releases at its end what was deferred since it began.
class DeferredScope {
public:
    DeferredScope() : token_(TQDeferredScopePush()) {}
    ~DeferredScope() { TQDeferredScopePop(token_); }
    DeferredScope(const DeferredScope &) = delete;
    DeferredScope &operator=(const DeferredScope &) = delete;

private:
    size_t token_;
};
