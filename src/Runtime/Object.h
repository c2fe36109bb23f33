// What every counted value begins with.
//
// A value is a struct that derives from Object and has no virtual functions, so that the pointer clients hold is a
// pointer to its header, and so that constants can be initialised by the compiler, before any code runs. What differs
// between kinds of values is in their Kind, one constant table for each.
//
// Always: a count of kImmortal never changes; a value whose count reached 0 is being destroyed and has no other
// owner; destruction uses no stack for members, however deep they nest, and asks for no memory.

#pragma once

#include <vaultry/value.h>

#include <atomic>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <new>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

struct Object;
struct Comparison;
class Description;

enum Type : TQTypeID {
    kTypeAllocator = 1,
    kTypeString,
    kTypeURL,
    kTypeNumber,
    kTypeBoolean,
    kTypeData,
    kTypeDate,
    kTypeArray,
    kTypeDictionary,
    kTypeSet,
    kTypeError,
    kTypeProgress,
};

struct Kind {
    Type type;
    const char *name; // for messages
    bool container;   // compared with a guard against endless recursion
    // Runs the destructor; the memory is given back by the caller. Null where there is nothing to do.
    void (*destroy)(Object *);
    // Both are of this kind and different objects. Null: only the same object is equal.
    bool (*equal)(const Object *, const Object *, const Comparison *);
    // Looks at as much as the budget allows, see below. Null: the address is the hash.
    uintptr_t (*hash)(const Object *, size_t budget);
    void (*describe)(const Object *, Description &);
};

struct Object {
    static constexpr uint32_t kMagic = 0x56615175;
    static constexpr uint32_t kFreedMagic = 0xdeadf1ee;
    static constexpr uintptr_t kImmortal = UINTPTR_MAX;

    explicit constexpr Object(const Kind *ofKind, uintptr_t count = 1) noexcept : kind(ofKind), references(count) {}
    Object(const Object &) = delete;
    Object &operator=(const Object &) = delete;

    uint32_t magic = kMagic;
    bool isMutable = false;
    const Kind *kind;
    std::atomic<uintptr_t> references; // the next value to destroy, once the count has reached 0
    TQAllocator *allocator = nullptr;  // where the memory came from; retained. Null is the C heap.
};

// A value that a client gave. A pointer to anything else, or to a freed value, stops a debug build.
inline const Object *AsObject(const TQValue *value)
{
    const auto *object = static_cast<const Object *>(value);
    assert(!object || object->magic == Object::kMagic);
    return object;
}

inline bool IsKind(const TQValue *value, Type type)
{
    return value && AsObject(value)->kind->type == type;
}

// The value as a T, or null. A value of another kind stops a debug build.
template <class T> T *As(T *value)
{
    const bool right = IsKind(value, std::remove_const_t<T>::kType);
    assert(right || !value);
    return right ? value : nullptr;
}

template <class T> void Destroy(Object *object)
{
    static_cast<T *>(object)->~T();
}

// Memory for a value from `allocator` (null: the C heap); null if there is none.
void *AllocateObject(TQAllocator *allocator, size_t size);

// A value with `extra` bytes behind it, and one reference; null if there is no memory. T's constructor must not throw.
template <class T, class... Arguments> T *MakeObject(TQAllocator *allocator, size_t extra, Arguments &&...arguments)
{
    static_assert(std::is_nothrow_constructible_v<T, Arguments...>);
    if (extra > SIZE_MAX - sizeof(T)) return nullptr;
    void *memory = AllocateObject(allocator, sizeof(T) + extra);
    if (!memory) return nullptr;
    T *value = new (memory) T(std::forward<Arguments>(arguments)...);
    value->allocator = static_cast<TQAllocator *>(TQRetain(allocator));
    return value;
}

// --- comparing

// How deep comparison and description follow containers. Property lists stay below it.
inline constexpr size_t kMaximumNesting = 1024;

// Pairs of shared containers that were found equal. Where every level holds the next one twice, comparing each pair
// every time would never end.
class KnownEqual {
public:
    bool Holds(const Object *a, const Object *b) const { return pairs_.contains({a, b}); }
    void Add(const Object *a, const Object *b);
    // Notes no more pairs: from here on, a result is certain only if all pairs around it are equal.
    void Stop() { isStopped_ = true; }

private:
    std::set<std::pair<const Object *, const Object *>> pairs_;
    bool isStopped_ = false;
};

// A pair of containers whose members are being compared, and the pairs around it.
struct Comparison {
    const Object *a;
    const Object *b;
    const Comparison *outer;
    size_t depth;
    KnownEqual *known; // of the outermost
};

bool EqualMembers(const TQValue *a, const TQValue *b, const Comparison *outer);

// --- hashing
//
// A value hashes all its members. The containers and data among them share a budget: how many members may be looked at
// in them and below, in all. A container that has more members than its share hashes their count, and an array also the
// first of them. So a hash costs no more than the container's own size justifies, however often one is shared below it,
// and it ends even if a container holds itself. Yet a chain of containers with one member each is followed to its leaf.
// A budget depends only on the counts on the way down, which are the same in equal containers.

inline constexpr size_t kWholeValue = SIZE_MAX;

// What each of the `sharers`, the containers and data among `count` members, may spend.
constexpr size_t ShareOfBudget(size_t budget, size_t count, size_t sharers)
{
    if (sharers == 0) return 0;
    if (budget == kWholeValue) return 1024 / sharers + 8;
    return budget > count ? (budget - count) / sharers : 0;
}

inline bool TakesShare(const TQValue *value)
{
    return value && (AsObject(value)->kind->container || AsObject(value)->kind->type == kTypeData);
}

uintptr_t HashMember(const TQValue *value, size_t budget);

// --- describing

class Description {
public:
    void Append(const char *text, size_t length) { text_.append(text, length); }
    void Append(std::string_view text) { text_.append(text); }
    void AppendFormat(const char *format, ...) __attribute__((format(printf, 2, 3)));

    // A member of a container: strings are quoted, and a container inside itself is not followed.
    void AppendMember(const TQValue *value);
    void AppendValue(const Object *object);

    // After this many bytes, containers are not followed: where they share others, a description could grow without
    // end.
    static constexpr size_t kMaximumLength = size_t{1} << 20;

    const std::string &text() const { return text_; }

private:
    struct Frame {
        const Object *object;
        const Frame *outer;
        size_t depth;
    };
    const Frame *innermost_ = nullptr;
    std::string text_;
};
