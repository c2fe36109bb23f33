/// @file
/// The library for C++: owning handles, std::filesystem::path, results that carry their error. C++17 and later.
///
/// Everything here is inline and calls the C functions; storage.h and library.h tell what each operation does, what it
/// locks and which statuses it fails with. Both can be mixed: every handle gives its C pointer by get().
///
/// Failures. A function that can fail gives a Result: test it, then use `*result` or `result->`, or ask for an
/// exception by `result.value()`. Nothing else throws, except that std::bad_alloc may come from wherever text is
/// copied.
///
///     if (auto store = vaultry::Store::open("versions"); !store)
///         std::cerr << store.error().description() << '\n';
///     else if (auto kept = store->add("first draft", "letter.txt"); !kept)
///         std::cerr << kept.error().description() << '\n';
///
/// Paths may be relative; they are resolved when a function is called. Names and keys are UTF-8. In C some arguments
/// may be null for "none", such as a value to set or the name of a backup. Text that can't be converted never stands
/// for "none": it fails with kTQStatusInvalidArgument, and so does a name with a zero byte in it.
///
/// Threads. Handles are like std::shared_ptr: a copy is one more reference to the same thing, which any number of
/// threads may use, while one handle that is assigned to belongs to one thread at a time. A moved-from or
/// default-made handle is null, which every function accepts as C does.

#ifndef VAULTRY_VAULTRY_HPP
#define VAULTRY_VAULTRY_HPP

#include <vaultry/vaultry.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace vaultry {

// --- counted values

/// How a handle gets its reference. It takes over the caller's, which a `Create` or `Copy` function gave; or it adds
/// one of its own to a value that a `Get` function lent.
struct Adopt {};
struct Retain {};
inline constexpr Adopt adopt{};
inline constexpr Retain retain{};

/// One reference to a counted value, or null.
template <class C> class Handle {
public:
    using Counted = C;

    Handle() noexcept = default;
    Handle(std::nullptr_t) noexcept {}
    Handle(Counted *counted, Adopt) noexcept : counted_(counted) {}
    Handle(Counted *counted, Retain) noexcept : counted_(counted) { TQRetain(counted); }
    Handle(const Handle &other) noexcept : Handle(other.counted_, retain) {}
    Handle(Handle &&other) noexcept : counted_(other.detach()) {}
    Handle &operator=(Handle other) noexcept
    {
        std::swap(counted_, other.counted_);
        return *this;
    }
    ~Handle() { TQRelease(counted_); }

    /// Lent: valid as long as this handle, or another one, holds the value.
    Counted *get() const noexcept { return counted_; }
    explicit operator bool() const noexcept { return counted_ != nullptr; }

    /// The reference itself, for a C function that takes it over; the handle is null then.
    [[nodiscard]] Counted *detach() noexcept { return std::exchange(counted_, nullptr); }

    /// Text for people and logs, whatever the kind. A string is itself.
    std::string description() const
    {
        const Handle<TQString> text(TQCopyDescription(counted_), adopt);
        return text ? std::string(TQStringGetUTF8(text.get()), TQStringGetUTF8Length(text.get())) : std::string();
    }

private:
    Counted *counted_ = nullptr;
};

/// Equality by value, not by identity; see TQEqual.
template <class A, class B> bool operator==(const Handle<A> &a, const Handle<B> &b)
{
    return TQEqual(a.get(), b.get());
}
template <class A, class B> bool operator!=(const Handle<A> &a, const Handle<B> &b)
{
    return !(a == b);
}

template <class T> inline constexpr bool is_text = std::is_convertible_v<const T &, std::string_view>;

/// A value of any kind. Text, numbers, booleans and moments become values by themselves; for bytes say Data.
class Value : public Handle<TQValue> {
public:
    using Handle::Handle;
    template <class C> Value(Handle<C> other) noexcept : Handle(other.detach(), adopt) {}
    template <class T, std::enable_if_t<is_text<T> || std::is_arithmetic_v<T>, int> = 0> Value(const T &plain) noexcept;
    Value(const char *utf8) noexcept;
    Value(std::chrono::system_clock::time_point time) noexcept;

    /// The same value as a `Kind`; null if it is of another kind.
    template <class Kind> Kind as() const noexcept
    {
        return Kind::is(get()) ? Kind(static_cast<typename Kind::Counted *>(get()), retain) : Kind();
    }
};

/// Text. Null if it was made from bytes that are not UTF-8.
class String : public Handle<TQString> {
public:
    using Handle::Handle;
    String(const char *utf8) noexcept : Handle(TQStringCreate(utf8), adopt) {}
    template <class Text, std::enable_if_t<is_text<Text>, int> = 0> String(const Text &text) noexcept
        : String(std::string_view(text), 0)
    {
    }

    static bool is(const TQValue *value) noexcept { return value && TQGetTypeID(value) == TQStringGetTypeID(); }

    /// Valid as long as the string; empty for null.
    std::string_view view() const noexcept
    {
        return *this ? std::string_view(TQStringGetUTF8(get()), TQStringGetUTF8Length(get())) : std::string_view();
    }
    std::string str() const { return std::string(view()); }

private:
    String(std::string_view text, int) noexcept : Handle(TQStringCreateWithBytes(text.data(), text.size()), adopt) {}
};

/// A number, or a boolean, which counts as one wherever a number is asked for.
class Number : public Handle<TQNumber> {
public:
    using Handle::Handle;
    template <class T, std::enable_if_t<std::is_arithmetic_v<T>, int> = 0> explicit Number(T value) noexcept
        : Handle(make(value), adopt)
    {
    }

    static bool is(const TQValue *value) noexcept { return TQIsNumber(value); }
    bool is_boolean() const noexcept { return *this && TQGetTypeID(get()) == TQBooleanGetTypeID(); }

    /// A value that the wanted type can't hold becomes the nearest one that it can; 0 for null.
    std::int64_t to_int64() const noexcept { return TQNumberGetInt64(get()); }
    std::uint64_t to_uint64() const noexcept { return TQNumberGetUInt64(get()); }
    double to_double() const noexcept { return TQNumberGetDouble(get()); }
    bool to_bool() const noexcept { return TQNumberGetTruth(get()); }

private:
    template <class T> static TQNumber *make(T value) noexcept
    {
        if constexpr (std::is_same_v<T, bool>) // C reads either kind through a pointer to any value
            return static_cast<TQNumber *>(TQRetain(TQBooleanGet(value)));
        else if constexpr (std::is_floating_point_v<T>)
            return TQNumberCreateDouble(value);
        else if constexpr (std::is_signed_v<T>)
            return TQNumberCreateInt64(value);
        else
            return TQNumberCreateUInt64(value);
    }
};

/// Bytes that somebody else owns. It is a contiguous range, so std::span and others that take one accept it.
class ByteView {
public:
    ByteView(const void *bytes, std::size_t size) noexcept : data_(static_cast<const std::byte *>(bytes)), size_(size)
    {
    }
    const std::byte *data() const noexcept { return data_; }
    std::size_t size() const noexcept { return size_; }
    const std::byte *begin() const noexcept { return data_; }
    const std::byte *end() const noexcept { return data_ + size_; }

private:
    const std::byte *data_;
    std::size_t size_;
};

/// Bytes, copied when made; for example a path that may not be UTF-8: `Data(path.native())`.
class Data : public Handle<TQData> {
public:
    using Handle::Handle;
    Data(const void *bytes, std::size_t size) noexcept : Handle(TQDataCreate(bytes, size), adopt) {}
    explicit Data(std::string_view bytes) noexcept : Data(bytes.data(), bytes.size()) {}
    /// From std::vector<std::byte>, std::span and the like.
    template <class Bytes, class Element = std::remove_pointer_t<decltype(std::declval<const Bytes &>().data())>,
              std::enable_if_t<std::is_trivially_copyable_v<Element>, int> = 0>
    explicit Data(const Bytes &bytes) noexcept : Data(bytes.data(), bytes.size() * sizeof(Element))
    {
    }

    static bool is(const TQValue *value) noexcept { return value && TQGetTypeID(value) == TQDataGetTypeID(); }

    /// Valid as long as the data.
    ByteView bytes() const noexcept { return {TQDataGetBytes(get()), TQDataGetLength(get())}; }
    /// The bytes in a string, whatever they are.
    std::string str() const { return std::string(static_cast<const char *>(TQDataGetBytes(get())), bytes().size()); }
};

/// A moment. Kept as seconds in a double, which today is exact to a quarter of a microsecond.
class Date : public Handle<TQDate> {
public:
    using Clock = std::chrono::system_clock;
    using Handle::Handle;
    explicit Date(Clock::time_point time) noexcept
        : Handle(TQDateCreate(std::chrono::duration<double>(time.time_since_epoch()).count()), adopt)
    {
    }

    static bool is(const TQValue *value) noexcept { return value && TQGetTypeID(value) == TQDateGetTypeID(); }

    double seconds() const noexcept { return TQDateGetSeconds(get()); }
    /// The nearest moment that the clock can represent; its epoch for null and for not-a-number.
    Clock::time_point time() const noexcept
    {
        using Seconds = std::chrono::duration<double>;
        const Seconds since(seconds());
        if (!(since.count() == since.count())) return {};
        if (since >= Seconds(Clock::duration::max())) return Clock::time_point::max();
        if (since <= Seconds(Clock::duration::min())) return Clock::time_point::min();
        return Clock::time_point(std::chrono::duration_cast<Clock::duration>(since));
    }
};

template <class T, std::enable_if_t<is_text<T> || std::is_arithmetic_v<T>, int>> Value::Value(const T &plain) noexcept
    : Value(std::conditional_t<is_text<T>, String, Number>(plain))
{
}
inline Value::Value(const char *utf8) noexcept : Value(String(utf8)) {}
inline Value::Value(std::chrono::system_clock::time_point time) noexcept : Value(Date(time)) {}

/// A file URL or any other.
class URL : public Handle<TQURL> {
public:
    using Handle::Handle;
    /// Null for an empty path.
    static URL of_path(const std::filesystem::path &path, bool isDirectory = false) noexcept
    {
        return URL(TQURLCreateWithFileSystemPath(path.c_str(), isDirectory), adopt);
    }
    /// Null if `text` is not a URL.
    static URL parse(const String &text, const URL &base = {}) noexcept
    {
        return URL(TQURLCreateWithString(text.get(), base.get()), adopt);
    }

    static bool is(const TQValue *value) noexcept { return value && TQGetTypeID(value) == TQURLGetTypeID(); }
    bool is_file() const noexcept { return TQURLIsFileURL(get()); }
    std::string str() const { return String(TQURLCopyString(get()), adopt).str(); }
    /// Absolute; empty if it is not a file URL or the path needs 1,024 bytes or more.
    std::filesystem::path path() const
    {
        char buffer[1024];
        return TQURLGetFileSystemRepresentation(get(), buffer, sizeof buffer) ? buffer : "";
    }
};

/// Values in a row. `for (const vaultry::Value &value : array)`.
class Array : public Handle<TQArray> {
public:
    using Handle::Handle;
    /// Null if one of the values is null.
    static Array of(const std::vector<Value> &values)
    {
        std::vector<TQValue *> members;
        for (const Value &value : values) members.push_back(value.get());
        return Array(TQArrayCreate(members.data(), members.size()), adopt);
    }

    static bool is(const TQValue *value) noexcept { return value && TQGetTypeID(value) == TQArrayGetTypeID(); }

    std::size_t size() const noexcept { return TQArrayGetCount(get()); }
    bool empty() const noexcept { return size() == 0; }
    /// Null past the end.
    Value operator[](std::size_t index) const noexcept { return Value(TQArrayGetValueAtIndex(get(), index), retain); }
    bool contains(const Value &value) const noexcept { return TQArrayContainsValue(get(), value.get()); }

    /// Lives no longer than the array. Each step gives a handle of its own.
    class Iterator {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = Value;
        using difference_type = std::ptrdiff_t;
        using pointer = const Value *;
        using reference = Value;

        Iterator(const TQArray *array, std::size_t index) noexcept : array_(array), index_(index) {}
        Value operator*() const noexcept { return Value(TQArrayGetValueAtIndex(array_, index_), retain); }
        Iterator &operator++() noexcept
        {
            ++index_;
            return *this;
        }
        Iterator operator++(int) noexcept { return {array_, index_++}; }
        friend bool operator==(const Iterator &a, const Iterator &b) noexcept { return a.index_ == b.index_; }
        friend bool operator!=(const Iterator &a, const Iterator &b) noexcept { return !(a == b); }

    private:
        const TQArray *array_;
        std::size_t index_;
    };
    Iterator begin() const noexcept { return {get(), 0}; }
    Iterator end() const noexcept { return {get(), size()}; }
};

/// Values under keys. `for (const auto &[key, value] : dictionary.items())`.
class Dictionary : public Handle<TQDictionary> {
public:
    using Handle::Handle;
    using Item = std::pair<Value, Value>;

    /// `Dictionary::of({{"pages", 12}, {"author", "me"}, {"printed", true}})`. Among equal keys the last one's value
    /// counts. Null if a key or a value is null.
    static Dictionary of(std::initializer_list<std::pair<String, Value>> items)
    {
        std::vector<TQValue *> keys, values;
        for (const auto &[key, value] : items) {
            keys.push_back(key.get());
            values.push_back(value.get());
        }
        return Dictionary(TQDictionaryCreate(keys.data(), values.data(), items.size()), adopt);
    }

    static bool is(const TQValue *value) noexcept { return value && TQGetTypeID(value) == TQDictionaryGetTypeID(); }

    std::size_t size() const noexcept { return TQDictionaryGetCount(get()); }
    bool empty() const noexcept { return size() == 0; }
    /// Null if there is no such key.
    Value operator[](const String &key) const noexcept { return Value(TQDictionaryGetValue(get(), key.get()), retain); }
    bool contains(const String &key) const noexcept { return TQDictionaryGetValue(get(), key.get()) != nullptr; }

    /// All of them, in the order in which they were put in.
    std::vector<Item> items() const
    {
        std::vector<TQValue *> keys(size()), values(size());
        TQDictionaryGetKeysAndValues(get(), keys.data(), values.data());
        std::vector<Item> items;
        for (std::size_t i = 0; i < keys.size(); ++i)
            items.emplace_back(Value(keys[i], retain), Value(values[i], retain));
        return items;
    }
};

// --- failures

/// Why something failed; null if nothing did.
class Error : public Handle<TQError> {
public:
    using Handle::Handle;
    static Error make(std::int32_t status, const char *description) noexcept
    {
        TQError *error = nullptr;
        (void)_TQCreateErrorForStatus(&error, status, description, nullptr);
        return Error(error, adopt);
    }

    static bool is(const TQValue *value) noexcept { return value && TQGetTypeID(value) == TQErrorGetTypeID(); }

    /// One of kTQStatus…. Only for errors that an operation gave: status.h tells what happens to others.
    std::int32_t status() const noexcept { return *this ? TQErrorGetStatus(get()) : 0; }
    std::intptr_t code() const noexcept { return TQErrorGetCode(get()); }
    String domain() const noexcept { return String(TQErrorGetDomain(get()), retain); }
    std::string description() const { return String(TQErrorCopyDescription(get()), adopt).str(); }
    /// The error underneath, often the system's own; null if there is none.
    Error underlying() const noexcept { return Error(TQErrorGetUnderlying(get()), retain); }
};

/// What Result::value() throws. Its text is the error's description.
class Failure : public std::runtime_error {
public:
    explicit Failure(Error error) : runtime_error(error.description()), error_(std::move(error)) {}
    const Error &error() const noexcept { return error_; }

private:
    Error error_;
};

/// A value, or the error that explains why there is none.
template <class T> class [[nodiscard]] Result {
public:
    Result(T value) : value_(std::move(value)) {}
    Result(Error error) noexcept : error_(std::move(error)) {}

    explicit operator bool() const noexcept { return value_.has_value(); }
    /// Null on success.
    Error error() const noexcept { return error_; }

    /// Use these only after a test.
    T &operator*() & { return *value_; }
    const T &operator*() const & { return *value_; }
    T operator*() && { return *std::move(value_); }
    T *operator->() { return &*value_; }
    const T *operator->() const { return &*value_; }

    /// Throws Failure if there is none.
    T &value() & { return Demand(), *value_; }
    const T &value() const & { return Demand(), *value_; }
    T value() && { return Demand(), *std::move(value_); }
    T value_or(T other) const & { return value_ ? *value_ : std::move(other); }
    T value_or(T other) && { return value_ ? *std::move(value_) : std::move(other); }

private:
    void Demand() const
    {
        if (!value_) throw Failure(error_);
    }

    std::optional<T> value_;
    Error error_;
};

/// Success, or the error that prevented it.
template <> class [[nodiscard]] Result<void> {
public:
    Result() noexcept = default;
    Result(Error error) noexcept : failed_(true), error_(std::move(error)) {}

    explicit operator bool() const noexcept { return !failed_; }
    Error error() const noexcept { return error_; }
    void value() const
    {
        if (failed_) throw Failure(error_);
    }

private:
    bool failed_ = false;
    Error error_;
};

/// The connection between C and C++; not for clients.
namespace detail {

// A zero byte would end a name early, and so make it another name. "." is never a generation's name.
inline std::string name(std::string_view name)
{
    return std::string(name.find('\0') == name.npos ? name : ".");
}

// Absolute. Empty for anything that can't be a path; the library refuses that.
inline std::string path(const std::filesystem::path &path)
{
    std::error_code failed;
    std::string absolute = std::filesystem::absolute(path, failed).native();
    return failed || absolute.find('\0') != absolute.npos ? std::string() : absolute;
}

inline Error refused()
{
    return Error::make(kTQStatusInvalidArgument, "a name, key or value is null or not UTF-8");
}

// If C reports no error object, only the system's error number tells why, if there is one.
inline Error taken(TQError *error, int errorNumber = 0)
{
    if (error) return Error(error, adopt);
    const char *text = "the operation failed; the log tells why";
    if (errorNumber == 0) return Error::make(kTQStatusFailed, text);
    (void)_TQCreateErrorUseErrno(&error, errorNumber, text);
    return Error(error, adopt);
}

// Every C function except one takes the out-parameter last.
template <class Operation, class... Arguments> Result<void> attempt(Operation operation, Arguments... arguments)
{
    TQError *error = nullptr;
    errno = 0;
    if (operation(arguments..., &error)) return {};
    return taken(error, errno);
}

template <class Kind, class Operation, class... Arguments>
Result<Kind> fetch(Operation operation, Arguments... arguments)
{
    TQError *error = nullptr;
    if (auto *counted = operation(arguments..., &error)) return Kind(counted, adopt);
    return taken(error);
}

} // namespace detail

// --- progress

/// Watches an operation of this process, and can stop it: adding a generation by copying reports the bytes copied.
///
///     vaultry::Progress progress;
///     progress.observe([](std::int64_t done, std::int64_t total) { draw(done, total); });
///     const auto scope = progress.make_current();
///     auto kept = store.add("first draft", "letter.txt"); // reports to `progress`
///
/// cancel() may be called by any thread at any time; the rest belongs to one thread, before an operation or after it.
/// Outlives the operations that report to it.
class Progress {
public:
    /// Gets the completed and total units of the object that changed.
    using Observer = std::function<void(std::int64_t done, std::int64_t total)>;

    explicit Progress(std::int64_t total = 0) : progress_(TQProgressCreate(total), adopt) {}
    Progress(Progress &&) noexcept = default;
    Progress &operator=(Progress &&) = delete;
    ~Progress() { TQProgressSetObserver(get(), nullptr, nullptr); }

    TQProgress *get() const noexcept { return progress_.get(); }

    /// Called on the thread that works. An observer that throws cancels the operation, and its exception is dropped.
    void observe(Observer observer)
    {
        TQProgressSetObserver(get(), nullptr, nullptr);
        observer_ = observer ? std::make_unique<Observed>(Observed{std::move(observer), progress_}) : nullptr;
        if (observer_) TQProgressSetObserver(get(), &Observed::changed, observer_.get());
    }
    void cancel() const noexcept { TQProgressCancel(get()); }
    bool is_cancelled() const noexcept { return TQProgressIsCancelled(get()); }

    /// Makes the progress current on the thread that made the scope. The same thread must end it. Scopes nest.
    class [[nodiscard]] Scope {
    public:
        explicit Scope(const Progress &progress) : progress_(progress.progress_)
        {
            TQProgressBecomeCurrent(progress_.get());
        }
        Scope(const Scope &) = delete;
        Scope &operator=(const Scope &) = delete;
        ~Scope() { TQProgressResignCurrent(progress_.get()); }

    private:
        Handle<TQProgress> progress_;
    };
    Scope make_current() const { return Scope(*this); }

private:
    struct Observed {
        Observer observer;
        Handle<TQProgress> progress;

        static void changed(TQProgress *changed, void *context) noexcept
        {
            const auto *self = static_cast<const Observed *>(context);
            const Handle<TQValue> kind(TQProgressCopyUserInfo(changed, kTQProgressFileOperationKindKey), adopt);
            if (kind && TQEqual(kind.get(), kTQProgressFileOperationKindWaiting)) return; // it counts nothing
            try {
                self->observer(TQProgressGetCompletedUnits(changed), TQProgressGetTotalUnits(changed));
            } catch (...) { // C can't be unwound
                TQProgressCancel(self->progress.get());
            }
        }
    };

    Handle<TQProgress> progress_;
    std::unique_ptr<Observed> observer_;
};

// --- the store

/// Keys of the info dictionary that clients share: the document's absolute path, as data, since a path may have any
/// bytes; and the date at which it was kept. The library does not write them for you.
inline constexpr char document_key[] = "vaultry.document";
inline constexpr char time_key[] = "vaultry.time";

/// What a query tells beside the name.
struct Fields {
    bool path = true;
    bool options = true;
    bool details = true; ///< display name and info
};

/// Which generations a query is about.
struct Query {
    Fields fields{};
    std::uint64_t with_options = 31;                   ///< those that share a bit with it; 0 is all
    std::uint64_t without_options = 0;                 ///< none that shares a bit with it
    std::optional<std::vector<std::string>> clients{}; ///< only these groups; see storage.h
};

/// What a query told about one generation.
struct Record {
    std::string name;
    std::optional<std::uint64_t> options;
    std::optional<std::filesystem::path> path; ///< in the store; to be read, never changed
    std::optional<std::string> display_name;
    Dictionary info;
    std::string client; ///< the group that a query of all found it in

    /// The values of document_key and time_key. The document may also be a string.
    std::optional<std::filesystem::path> document() const
    {
        const Value value = info[document_key];
        if (const auto data = value.as<Data>()) return data.str();
        if (const auto text = value.as<String>()) return text.str();
        return std::nullopt;
    }
    std::optional<Date::Clock::time_point> time() const
    {
        if (const auto date = info[time_key].as<Date>()) return date.time();
        return std::nullopt;
    }

    static Record of(const Dictionary &record, std::string client = {})
    {
        Record made;
        made.name = record["name"].as<String>().str();
        // The word comes as a signed number with the same bits.
        if (const auto word = record["options"].as<Number>())
            made.options = static_cast<std::uint64_t>(word.to_int64());
        if (const auto url = record["URL"].as<URL>()) made.path = url.path();
        if (const auto text = record["ODN"].as<String>()) made.display_name = text.str();
        made.info = record["info"].as<Dictionary>();
        made.client = std::move(client);
        return made;
    }
};

/// Something about a store that is not as it should be.
struct Finding {
    std::filesystem::path path;
    std::string kind;    ///< for programs
    std::string meaning; ///< for people
    bool mended = false;
    std::filesystem::path home; ///< where a misplaced document belongs; else empty
    std::string host;           ///< the machine whose program left it, if that is another one; else empty
};

/// What a clone of a store has.
struct Clone {
    /// A generation that is not in it as it is in the store.
    struct Shortfall {
        std::string name;
        Error reason;      ///< the first one
        bool kept = false; ///< whether the clone has it, and it differs only in its rights, owners, times or flags
    };
    std::uint64_t generations = 0;
    std::uint64_t items = 0; ///< that were compared
    std::uint64_t bytes = 0; ///< that were found the same, those of a shared file counted once
    std::uint64_t links = 0; ///< names of files that were copied before
    std::vector<Shortfall> failures;
};

/// What goes on in a store: an operation that lives, or a process that holds the store's lock.
struct Operation {
    std::string work; ///< "copy", "move", "remove", "copy-out", "restore", "lock" or "shared-lock"
    std::int64_t process = 0;
    std::string host;                                           ///< the name of its machine
    bool here = false;                                          ///< whether the process runs on this machine
    std::filesystem::path document;                             ///< or the name of the generation; empty for a lock
    std::optional<std::chrono::system_clock::time_point> since; ///< by its machine's clock; none for a lock
};

/// A generation that was copied into the staging area, to be put somewhere by rename. The destructor removes what is
/// left of it.
class Staged {
public:
    Staged(std::shared_ptr<const TQClientManagedStorage> store, std::string path, std::uint16_t mode,
           std::uint32_t flags)
        : store_(std::move(store)), path_(std::move(path)), mode_(mode), flags_(flags)
    {
    }
    Staged(Staged &&) noexcept = default;
    Staged &operator=(Staged &&) = delete;
    ~Staged() { (void)done(); }

    const std::string &path() const noexcept { return path_; }
    /// The mode and flags that you give the top item in the end.
    std::uint16_t mode() const noexcept { return mode_; }
    std::uint32_t flags() const noexcept { return flags_; }

    /// Removes what is left now, and tells whether that succeeded.
    Result<void> done()
    {
        const auto store = std::exchange(store_, nullptr);
        if (!store) return {};
        return detail::attempt(TQClientManagedStorageCopyOutDone, store.get(), path_.c_str());
    }

private:
    std::shared_ptr<const TQClientManagedStorage> store_;
    std::string path_;
    std::uint16_t mode_;
    std::uint32_t flags_;
};

namespace detail {

/// Whether none of the values that are given is null: text that is not UTF-8 makes one so.
template <class... Given> bool are_whole(const std::optional<Given> &...given)
{
    return ((!given || *given) && ...);
}

} // namespace detail

/// What an add can be asked for; see TQAddRequest.
struct AddRequest {
    std::uint64_t options = 1;
    bool move = false;
    bool keep_links = false;
    std::optional<std::string> base = std::nullopt; ///< a generation to share unchanged files with
    std::optional<Dictionary> info = std::nullopt;  ///< values that the generation has from the beginning
    std::optional<String> size_key = std::nullopt;  ///< the key of one more: the bytes of its files
    bool info_is_optional = false;                  ///< whether it is added even if they can't be stored
};

/// What a restore can be asked for; see TQRestoreRequest.
struct RestoreRequest {
    std::optional<std::string> backup = std::nullopt; ///< keeps the document under this name first
    bool keep_links = false;                          ///< the backup's, and so are those that follow
    std::optional<std::string> base = std::nullopt;
    std::optional<Dictionary> info = std::nullopt;
    std::optional<String> size_key = std::nullopt;
    bool info_is_optional = false;
    std::optional<std::filesystem::path> item = std::nullopt; ///< replaces only this one, below both tops
};

/// The library object, for what the store alone can't do: restoring in place.
class Library : public Handle<TQLibrary> {
public:
    using Handle::Handle;
    static Result<Library> open(const std::filesystem::path &directory)
    {
        const URL url = URL::of_path(detail::path(directory), /*isDirectory=*/true);
        return detail::fetch<Library>(TQLibraryCreateClientManaged, nullptr, url.get());
    }

    /// Puts a generation in the document's place; see TQLibraryRestoreGeneration. With `backup` the document is first
    /// kept under that name.
    Result<void> restore(std::string_view name, const std::filesystem::path &document,
                         std::optional<std::string_view> backup = std::nullopt) const
    {
        const String from(name), keep(backup.value_or(""));
        if (!*this || !from || !keep) return detail::refused();
        const URL url = URL::of_path(detail::path(document));
        return detail::attempt(TQLibraryRestoreGeneration, get(), from.get(), url.get(), backup ? keep.get() : nullptr);
    }

    /// The same, with all that a request can ask for.
    Result<void> restore_with(std::string_view name, const std::filesystem::path &document,
                              const RestoreRequest &request) const
    {
        const String from(name), keep(request.backup.value_or("")), base(request.base.value_or(""));
        if (!*this || !from || !keep || !base || !detail::are_whole(request.info, request.size_key))
            return detail::refused();
        const URL url = URL::of_path(detail::path(document));
        TQRestoreRequest asked{};
        asked.size = sizeof asked;
        if (request.keep_links) asked.flags |= kTQRestoreKeepLinks;
        if (request.info_is_optional) asked.flags |= kTQRestoreInfoIsOptional;
        asked.backupName = request.backup ? keep.get() : nullptr;
        asked.backupBase = request.base ? base.get() : nullptr;
        asked.backupInfo = request.info ? request.info->get() : nullptr;
        asked.backupSizeKey = request.size_key ? request.size_key->get() : nullptr;
        asked.item = request.item ? request.item->c_str() : nullptr;
        return detail::attempt(TQLibraryRestoreGenerationWithFlags, get(), from.get(), url.get(), &asked);
    }
};

/// A store. Copies are the same store; any thread may use any of them, and the store's lock orders what they do.
class Store {
public:
    /// Whether the directory is a store; nothing is made.
    static Result<bool> is_one(const std::filesystem::path &directory)
    {
        TQError *error = nullptr;
        const bool is_store = TQClientManagedStorageIsStore(detail::path(directory).c_str(), &error);
        if (error) return detail::taken(error);
        return is_store;
    }

    /// Opens the store in an existing directory, or makes the directory one.
    static Result<Store> open(const std::filesystem::path &directory)
    {
        TQError *error = nullptr;
        const std::string root = detail::path(directory);
        if (auto *store = TQClientManagedStorageCreate(root.c_str(), &error)) return Store(store, root);
        return detail::taken(error);
    }

    /// Removes a whole store, its directory included; TQClientManagedStorageDestroy tells what to look at first.
    static Result<void> destroy(const std::filesystem::path &directory)
    {
        const std::string root = detail::path(directory);
        if (root.empty()) return Error::make(kTQStatusBadPath, "not a path");
        return detail::attempt(TQClientManagedStorageDestroy, root.c_str());
    }

    /// Verifies that a store is as it should be, and with `repair` mends what is safe to mend. Empty if all is well.
    static Result<std::vector<Finding>> findings(const std::filesystem::path &directory, bool repair = false)
    {
        const std::string root = detail::path(directory);
        const auto found = detail::fetch<Array>(TQClientManagedStorageCopyFindings, root.c_str(), repair);
        if (!found) return found.error();
        std::vector<Finding> findings;
        for (const Value &value : *found) {
            const auto one = value.as<Dictionary>();
            findings.push_back({one["path"].as<Data>().str(), one["kind"].as<String>().str(),
                                one["meaning"].as<String>().str(), one["mended"].as<Number>().to_bool(),
                                one["home"].as<Data>().str(), one["host"].as<Data>().str()});
        }
        return findings;
    }

    /// Tells what is going on in a store, without waiting for anybody.
    static Result<std::vector<Operation>> operations(const std::filesystem::path &directory)
    {
        const std::string root = detail::path(directory);
        const auto found = detail::fetch<Array>(TQClientManagedStorageCopyOperations, root.c_str());
        if (!found) return found.error();
        std::vector<Operation> operations;
        for (const Value &value : *found) {
            const auto one = value.as<Dictionary>();
            Operation operation{one["work"].as<String>().str(),   one["process"].as<Number>().to_int64(),
                                one["host"].as<Data>().str(),     one["here"].as<Number>().to_bool(),
                                one["document"].as<Data>().str(), std::nullopt};
            if (const auto date = one["since"].as<Date>()) operation.since = date.time();
            operations.push_back(std::move(operation));
        }
        return operations;
    }

    const std::filesystem::path &path() const noexcept { return root_; }
    const TQClientManagedStorage *get() const noexcept { return store_.get(); }

    /// Keeps `document`, a file or a tree, as the generation `name`.
    Result<void> add(std::string_view name, const std::filesystem::path &document, std::uint64_t options = 1) const
    {
        return add_(name, document, options, /*copy=*/true);
    }

    /// The same, moving the document into the store. On failure it is back where it was, unless the generation stays.
    Result<void> add_by_moving(std::string_view name, const std::filesystem::path &document,
                               std::uint64_t options = 1) const
    {
        return add_(name, document, options, /*copy=*/false);
    }

    /// With all that a request can ask for.
    Result<void> add_with(std::string_view name, const std::filesystem::path &document, const AddRequest &request) const
    {
        const String base(request.base.value_or(""));
        if (!base || !detail::are_whole(request.info, request.size_key)) return detail::refused();
        TQAddRequest asked{};
        asked.size = sizeof asked;
        if (request.move) asked.flags |= kTQAddByMoving;
        if (request.keep_links) asked.flags |= kTQAddKeepLinks;
        if (request.info_is_optional) asked.flags |= kTQAddInfoIsOptional;
        asked.options = request.options;
        asked.base = request.base ? base.get() : nullptr;
        asked.info = request.info ? request.info->get() : nullptr;
        asked.sizeKey = request.size_key ? request.size_key->get() : nullptr;
        return attempt_(TQClientManagedStorageAddWithFlags, name, detail::path(document).c_str(), &asked);
    }

    /// Copies a generation to `destination`, which must neither exist nor lie in a store.
    Result<void> copy(std::string_view name, const std::filesystem::path &destination) const
    {
        return attempt_(TQClientManagedStorageCopyGeneration, name, detail::path(destination).c_str());
    }

    /// Copies one item of a generation that is a folder, by its path below the top.
    Result<void> copy_item(std::string_view name, const std::filesystem::path &item,
                           const std::filesystem::path &destination) const
    {
        return attempt_(TQClientManagedStorageCopyGenerationItem, name, item.c_str(),
                        detail::path(destination).c_str());
    }

    /// Copies a generation into the staging area.
    Result<Staged> copy_out(std::string_view name) const
    {
        char path[1024];
        std::uint16_t mode = 0;
        std::uint32_t flags = 0;
        const auto copied = attempt_(TQClientManagedStorageCopyOut, name, path, &mode, &flags);
        if (!copied) return copied.error();
        return Staged(store_, path, mode, flags);
    }

    /// Puts a generation in the document's place, as Library::restore does.
    Result<void> restore(std::string_view name, const std::filesystem::path &document,
                         std::optional<std::string_view> backup = std::nullopt) const
    {
        const auto library = Library::open(root_);
        return library ? library->restore(name, document, backup) : library.error();
    }

    Result<void> restore_with(std::string_view name, const std::filesystem::path &document,
                              const RestoreRequest &request) const
    {
        const auto library = Library::open(root_);
        return library ? library->restore_with(name, document, request) : library.error();
    }

    /// `store.remove({"a", "b"})`, or of any range of names. In order, up to the first failure; a name without a
    /// generation is passed over. None is removed if one of the names is not UTF-8.
    Result<void> remove(std::initializer_list<std::string_view> names) const { return remove_(names); }
    template <class Names> Result<void> remove(const Names &names) const { return remove_(names); }

    /// The same, but passes over a generation that has a value under `key` which is neither false nor 0, and one whose
    /// info can't be read, when its turn comes.
    template <class Names> Result<void> remove_unless(const Names &names, const String &key) const
    {
        const auto array = strings_of_(names);
        if (!array) return detail::refused();
        return detail::attempt(TQClientManagedStorageRemoveGenerationsUnless, get(), array.get(), key.get());
    }

    /// Makes a store that is a copy of this one where nothing is, or in an empty directory; reads it back and compares
    /// it. It is whole if there are no failures.
    Result<Clone> clone(const std::filesystem::path &directory) const
    {
        const std::string root = detail::path(directory);
        const auto report = detail::fetch<Dictionary>(TQClientManagedStorageCopyStore, get(), root.c_str());
        if (!report) return report.error();
        const auto number = [&](const char *key) {
            return static_cast<std::uint64_t>((*report)[key].template as<Number>().to_int64());
        };
        Clone clone{number("generations"), number("items"), number("bytes"), number("links"), {}};
        for (const Value &value : (*report)["failures"].template as<Array>()) {
            const auto one = value.as<Dictionary>();
            clone.failures.push_back(
                {one["name"].as<Data>().str(), one["error"].as<Error>(), one["kept"].as<Number>().to_bool()});
        }
        return clone;
    }

    /// In no particular order.
    Result<std::vector<std::string>> names() const
    {
        const auto array = detail::fetch<Array>(TQClientManagedStorageCopyGenerationNames, get());
        if (!array) return array.error();
        std::vector<std::string> names;
        for (const Value &name : *array) names.push_back(name.as<String>().str());
        return names;
    }

    /// Where a generation lies; to be read, never changed.
    Result<std::filesystem::path> path_of(std::string_view name) const
    {
        const auto url = fetch_<URL>(TQClientManagedStorageCopyURLForGeneration, name);
        if (!url) return url.error();
        return url->path();
    }

    Result<std::uint64_t> options(std::string_view name) const
    {
        TQError *error = nullptr;
        const auto word = TQClientManagedStorageGetGenerationOptions(get(), detail::name(name).c_str(), &error);
        if (word == 0 && error) return detail::taken(error);
        return word;
    }

    /// A word without any of the bits 0x1e reads back as 1.
    Result<void> set_options(std::string_view name, std::uint64_t options) const
    {
        return attempt_(TQClientManagedStorageSetGenerationOptions, name, options);
    }

    /// Empty when nothing was set.
    Result<Dictionary> info(std::string_view name) const
    {
        return fetch_<Dictionary>(TQClientManagedStorageCopyGenerationInfoDictionary, name);
    }

    /// A missing key is a failure, with the status of a missing generation. If the difference matters, ask for the
    /// whole dictionary.
    Result<Value> info(std::string_view name, const String &key) const
    {
        return fetch_<Value>(TQClientManagedStorageCopyGenerationInfoValueForKey, name, key.get());
    }

    /// The log tells why a value can't be stored; the error has only the system's reason, if there was one.
    Result<void> set_info(std::string_view name, const String &key, const Value &value) const
    {
        if (!key || !value) return detail::refused();
        return attempt_(TQClientManagedStorageSetGenerationInfoValueForKey, name, key.get(), value.get());
    }

    /// All of them or none.
    Result<void> set_info(std::string_view name, const Dictionary &values) const
    {
        return attempt_(TQClientManagedStorageSetGenerationInfoValues, name, values.get());
    }

    /// The same for each of several generations; a name without one is passed over.
    template <class Names> Result<void> set_info_of(const Names &names, const Dictionary &values) const
    {
        const auto array = strings_of_(names);
        if (!array) return detail::refused();
        return detail::attempt(TQClientManagedStorageSetGenerationsInfoValues, get(), array.get(), values.get());
    }

    Result<void> remove_info(std::string_view name, const String &key) const
    {
        return attempt_(TQClientManagedStorageSetGenerationInfoValueForKey, name, key.get(), nullptr);
    }

    /// A missing display name is a failure, with the status of a missing generation; a record tells the difference.
    Result<std::string> display_name(std::string_view name) const
    {
        const auto text = fetch_<String>(TQClientManagedStorageCopyGenerationOriginalDisplayName, name);
        if (!text) return text.error();
        return text->str();
    }

    /// At most 767 bytes; "" removes it.
    Result<void> set_display_name(std::string_view name, const String &displayName) const
    {
        if (!displayName) return detail::refused();
        return attempt_(TQClientManagedStorageSetGenerationOriginalDisplayName, name, displayName.get());
    }

    /// A record about one generation, whether or not it exists: a field that can't be told is absent.
    Result<Record> record(std::string_view name, const Fields &fields = {}) const
    {
        const String asked(name);
        const auto spec = Dictionary::of({{"fields", spec_of_(fields)}});
        if (!asked || !spec) return detail::refused();
        const auto record =
            detail::fetch<Dictionary>(TQClientManagedStorageCopyGenerationInfos, get(), asked.get(), spec.get());
        if (!record) return record.error();
        return Record::of(*record);
    }

    /// Records about all generations that the query selects, at one moment, in no particular order.
    Result<std::vector<Record>> query(const Query &query = {}) const
    {
        const Dictionary spec = spec_of_(query);
        if (!spec) return detail::refused(); // null would ask for everything
        const auto groups = detail::fetch<Dictionary>(TQClientManagedStorageCopyAllGenerationsInfos, get(), spec.get());
        if (!groups) return groups.error();
        std::vector<Record> records;
        for (const auto &[client, group] : groups->items())
            for (const Value &record : group.as<Array>())
                records.push_back(Record::of(record.as<Dictionary>(), client.as<String>().str()));
        return records;
    }

private:
    Store(TQClientManagedStorage *store, const std::string &root)
        : store_(store, TQClientManagedStorageFree), root_(root)
    {
    }

    template <class Operation, class... Arguments>
    Result<void> attempt_(Operation operation, std::string_view name, Arguments... arguments) const
    {
        return detail::attempt(operation, get(), detail::name(name).c_str(), arguments...);
    }

    template <class Kind, class Operation, class... Arguments>
    Result<Kind> fetch_(Operation operation, std::string_view name, Arguments... arguments) const
    {
        return detail::fetch<Kind>(operation, get(), detail::name(name).c_str(), arguments...);
    }

    Result<void> add_(std::string_view name, const std::filesystem::path &document, std::uint64_t options,
                      bool copy) const
    {
        TQError *error = nullptr;
        const std::string from = detail::path(document);
        if (TQClientManagedStorageAdd(get(), detail::name(name).c_str(), from.c_str(), options, &error, copy))
            return {};
        return detail::taken(error);
    }

    template <class Names> static Array strings_of_(const Names &names)
    {
        std::vector<Value> strings;
        for (const auto &name : names) strings.push_back(String(name));
        return Array::of(strings);
    }

    template <class Names> Result<void> remove_(const Names &names) const
    {
        const Array array = strings_of_(names);
        if (!array) return detail::refused();
        return detail::attempt(TQClientManagedStorageRemoveGenerations, get(), array.get());
    }

    static Value spec_of_(const Fields &fields)
    {
        return Dictionary::of({{"URL", fields.path}, {"options", fields.options}, {"ODN", fields.details}});
    }

    // The words are passed as they come back: as signed numbers with the same bits.
    static Dictionary spec_of_(const Query &query)
    {
        const Value fields = spec_of_(query.fields);
        const auto with = static_cast<std::int64_t>(query.with_options);
        const auto without = static_cast<std::int64_t>(query.without_options);
        if (!query.clients)
            return Dictionary::of({{"fields", fields}, {"withOptions", with}, {"withoutOptions", without}});
        std::vector<Value> clients;
        for (const auto &client : *query.clients) clients.emplace_back(client);
        return Dictionary::of(
            {{"fields", fields}, {"withOptions", with}, {"withoutOptions", without}, {"clients", Array::of(clients)}});
    }

    std::shared_ptr<const TQClientManagedStorage> store_;
    std::filesystem::path root_;
};

} // namespace vaultry

#endif
