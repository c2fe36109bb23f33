#include "Runtime/Values.h"

#include <vaultry/url.h>

#include <thread>

namespace {

// Clients may do this before main.
const bool constantsWorkEarly = TQEqual(kTQLibraryErrorDomain, TQRetain(kTQLibraryErrorDomain)) &&
                                TQStringGetLength(kTQPOSIXErrorDomain) > 0 && TQNumberGetTruth(kTQBooleanTrue);

} // namespace

TEST(Value, EqualsItsOtherFormsAloneAndDescribesItself)
{
    const Value a = Text("a"), b = Text("b");
    const auto set = [](const Value &one, const Value &other) {
        TQValue *members[] = {one.get(), other.get()};
        return Own(TQSetCreate(members, 2));
    };
    const auto file = [](const char *path) { return Own(TQURLCreateWithFileSystemPath(path, false)); };
    const auto url = [](const char *text, const char *base) {
        const Value under = Own(TQURLCreateWithString(Cast{Text(base)}, nullptr));
        return Own(TQURLCreateWithString(Cast{Text(text)}, Cast{under}));
    };
    const auto error = [](int code) { return Own(TQErrorCreate(kTQPOSIXErrorDomain, code, nullptr)); };
    // The description of a value, and its forms.
    const std::pair<const char *, std::vector<Value>> rows[] = {
        {"1", {Text("1"), Text(std::string("1"))}},
        {"1", {Number(1), Number(1.0)}},
        {"true", {Truth(true)}},
        {"<2 bytes: 00ff>", {Bytes({"\0\xff", 2}), Bytes(std::string("\0\xff", 2))}},
        {"2001-09-09 01:46:40 UTC", {Date(1e9 + 0.5), Date(1e9 + 0.5)}},
        {"2001-09-09 01:46:40 UTC", {Date(1e9)}},
        {"1e+300 seconds since 1970", {Date(1e300)}},
        {"[]", {Array({}), Own(TQArrayCreateMutable())}},
        {"[-7, 0.1, true]", {Array({Number(-7), Number(0.1), Truth(true)})}},
        {"[1]", {Array({Number(1)}), Array({Number(1.0)})}},
        {"[true]", {Array({Truth(true)})}},
        {"[[[1]]]", {Array({Array({Array({Number(1)})})}), Array({Array({Array({Number(1.0)})})})}},
        {"[[[2]]]", {Array({Array({Array({Number(2)})})})}},
        {"[{\"a\": [\"b\"]}]", {Array({Dictionary({{a, Array({b})}})})}},
        {"[{\"a\": [\"a\"]}]", {Array({Dictionary({{a, Array({a})}})})}},
        {"[\"a\", \"b\"]", {Array({a, b}), Array({Text("a"), Text("b")})}},
        {"[\"b\", \"a\"]", {Array({b, a})}},
        {"[\"a\"]", {Array({a})}},
        {"{}", {Dictionary({}), Own(TQDictionaryCreateMutable())}},
        {"{\"a\": \"b\"}", {Dictionary({{a, b}}), Dictionary({{a, a}, {a, b}})}}, // the last one counts
        {"{\"a\": \"a\"}", {Dictionary({{a, a}})}},
        {"{\"b\": \"b\"}", {Dictionary({{b, b}})}},
        {"{[\"a\"]: {}, 1: 2}", {Dictionary({{Array({a}), Dictionary({})}, {Number(1), Number(2)}})}},
        {"file:///a%20b", {file("/a b"), url("file:///a%20b", "x")}},
        {"http://b/x", {url("x", "http://b/"), url("x", "http://b/")}},
        {"http://c/x", {url("x", "http://c/")}},
        {"TQPOSIXErrorDomain error 2", {error(2), error(2)}},
        {"TQPOSIXErrorDomain error 3", {error(3)}},
    };
    for (const auto &row : rows)
        for (const Value &form : row.second) {
            EXPECT_EQ(Describe(form.get()), row.first);
            for (const auto &other : rows) {
                const TQValue *const another = other.second[0].get();
                EXPECT_EQ(TQEqual(form.get(), another), &row == &other) << row.first << other.first;
                EXPECT_EQ(TQHash(form.get()) == TQHash(another), &row == &other) << row.first << other.first;
            }
        }
    EXPECT_TRUE(TQEqual(set(a, b).get(), set(b, a).get()));
    EXPECT_FALSE(TQEqual(set(a, b).get(), Array({a, b}).get()));
    EXPECT_TRUE(TQEqual(Dictionary({{a, b}, {b, a}}).get(), Dictionary({{b, a}, {a, b}}).get()));
    EXPECT_FALSE(TQEqual(file("x").get(), url("x", "").get()));
}

TEST(Value, NullIsNothingEverywhere)
{
    TQRelease(TQRetain(TQDefer(nullptr)));
    EXPECT_EQ(TQGetTypeID(nullptr) + TQHash(nullptr) + TQDictionaryGetCount(nullptr) + TQDataGetLength(nullptr), 0u);
    EXPECT_TRUE(TQEqual(nullptr, nullptr));
    EXPECT_FALSE(TQEqual(nullptr, kTQBooleanTrue) || TQEqual(kTQBooleanTrue, nullptr) || TQIsNumber(nullptr));
    EXPECT_FALSE(TQCopyDescription(nullptr) || TQErrorCopyDescription(nullptr) || TQURLGetPath(nullptr));
}

TEST(Value, ConstantsServeBeforeMainAndOutliveEveryRelease)
{
    EXPECT_TRUE(constantsWorkEarly);
    for (TQValue *constant :
         std::initializer_list<TQValue *>{kTQBooleanTrue, kTQErrorUnderlyingKey, kTQAllocatorNull}) {
        for (int i = 0; i < 3; ++i) TQRelease(constant);
        EXPECT_NE(TQGetTypeID(constant), 0u);
    }
}

TEST(Value, AnyThreadMayRetainAndRelease)
{
    released.clear();
    std::vector<std::thread> threads;
    for (const Value shared = Own(Noted("once")); threads.size() < 4;)
        threads.emplace_back([value = shared] {
            for (int round = 0; round < 10000; ++round) Value copy = value;
        });
    for (std::thread &thread : threads) thread.join();
    threads.clear();
    EXPECT_EQ(released, "once");
}

TEST(Value, DeepValuesNeedNoStack)
{
    (void)Nested(1000000); // far deeper than any stack reaches: only released
    // Everything works as deep as a property list goes.
    const Value one = Nested(512), other = Nested(512);
    EXPECT_TRUE(TQEqual(one.get(), other.get()));
    EXPECT_EQ(TQHash(one.get()), TQHash(other.get()));
    EXPECT_NE(TQHash(one.get()), TQHash(Nested(511).get()));
    EXPECT_EQ(Describe(one.get()), std::string(512, '[') + std::string(512, ']'));
    // Deeper, comparison gives up before the stack runs out.
    EXPECT_FALSE(TQEqual(Nested(5000).get(), Nested(5000).get()));
}

TEST(Value, ContainersThatHoldThemselvesCanBeComparedAndDescribed)
{
    const Value a = Text("a"), b = Text("b"), truth = Text("truth");
    Ref<TQDictionary> loops[2];
    for (Ref<TQDictionary> &loop : loops) {
        loop = Ref<TQDictionary>::Adopt(TQDictionaryCreateMutable());
        for (const Value &key : {a, b}) TQDictionarySetValue(loop.get(), key.get(), loop.get());
    }
    EXPECT_TRUE(TQEqual(loops[0].get(), loops[1].get()));
    EXPECT_EQ(TQHash(loops[0].get()), TQHash(loops[1].get()));
    EXPECT_EQ(Describe(loops[0].get()), "{\"a\": …, \"b\": …}");
    for (const bool value : {false, true}) TQDictionarySetValue(loops[value].get(), truth.get(), TQBooleanGet(value));
    EXPECT_FALSE(TQEqual(loops[0].get(), loops[1].get()));
    for (const Ref<TQDictionary> &loop : loops)
        for (const Value &key : {a, b}) TQDictionaryRemoveValue(loop.get(), key.get()); // a loop's maker undoes it

    // Two members are equal only if the keys that hold them are. Those differ where their hash does not look.
    const Value one = Own(TQDictionaryCreateMutable()), other = Own(TQDictionaryCreateMutable());
    const Value inOne = Array({one}), inOther = Array({other});
    for (const auto &[key, member] : {std::pair{one, inOne}, {other, inOther}})
        TQDictionarySetValue(Cast{key}, a.get(), member.get());
    TQDictionarySetValue(Cast{one}, b.get(), Bytes(std::string(20001, 'x')).get());
    TQDictionarySetValue(Cast{other}, b.get(), Bytes(std::string(10000, 'x') + 'y' + std::string(10000, 'x')).get());
    EXPECT_FALSE(TQEqual(Dictionary({{one, a}, {other, a}, {Array({inOne}), a}}).get(),
                         Dictionary({{other, a}, {one, a}, {Array({inOther}), a}}).get()));
    for (const Value &key : {one, other}) TQDictionaryRemoveValue(Cast{key}, a.get());
}

TEST(Allocator, GetsBackWhatItGave)
{
    static int blocks, contexts; // not yet given back
    static bool empty;
    TQAllocatorContext context{};
    context.retain = [](const void *info) { return ++contexts, info; };
    context.release = [](const void *) { --contexts; };
    context.allocate = [](size_t size, void *) { return empty ? nullptr : (++blocks, malloc(size)); };
    context.deallocate = [](void *pointer, void *) { --blocks, free(pointer); };
    const auto make = [&] { return Ref<TQAllocator>::Adopt(TQAllocatorCreate(nullptr, &context)); };
    Ref<TQAllocator> objects = make(), bytes = make();
    Value data = Own(TQDataCreateNoCopy(objects.get(), TQAllocatorAllocate(bytes.get(), 3), 3, bytes.get()));
    EXPECT_EQ(blocks, 2);

    // Without memory for the object the bytes stay the caller's.
    empty = true;
    char content[] = "abc";
    for (TQAllocator *none : {objects.get(), kTQAllocatorNull})
        EXPECT_EQ(TQDataCreateNoCopy(none, content, 3, bytes.get()), nullptr);
    EXPECT_EQ(blocks, 2);
    EXPECT_EQ(TQDataGetBytes(Cast{Own(TQDataCreateNoCopy(nullptr, content, 3, kTQAllocatorNull))}), content);

    objects = bytes = nullptr; // the object keeps what it still needs
    EXPECT_EQ(contexts, 2);
    data = nullptr;
    EXPECT_EQ(blocks, 0);
    EXPECT_EQ(contexts, 0);
}

#if !defined(NDEBUG) && !defined(VAULTRY_SANITIZED)
TEST(ValueDeathTest, AWrongOrFreedValueStopsADebugBuild)
{
    EXPECT_DEATH(TQStringGetLength(reinterpret_cast<TQString *>(kTQBooleanTrue)), "");
    uint64_t noValue[8] = {};
    EXPECT_DEATH(TQRetain(noValue), "");
    TQData *freed = TQDataCreateNoCopy(kTQAllocatorDefault, nullptr, 0, nullptr);
    EXPECT_DEATH((TQRetain(freed), TQRelease(freed), TQRelease(freed), TQRelease(freed)), "");
    TQRelease(freed);
}
#endif
