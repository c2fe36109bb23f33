#include "Runtime/Values.h"

#include <vaultry/url.h>

#include <atomic>
#include <thread>

namespace {

// What clients do before main.
const bool constantsWorkEarly = TQEqual(kTQLibraryErrorDomain, TQRetain(kTQLibraryErrorDomain)) &&
                                TQStringGetLength(kTQPOSIXErrorDomain) > 0 && TQNumberGetTruth(kTQBooleanTrue);

// Counts what it gave and took back.
struct CountingAllocator {
    std::atomic<int> blocks{0}, retained{0};
    bool empty = false;
    Ref<TQAllocator> allocator;

    CountingAllocator()
    {
        TQAllocatorContext context{};
        context.info = this;
        context.retain = [](const void *info) { return ++Of(info)->retained, info; };
        context.release = [](const void *info) { --Of(info)->retained; };
        context.allocate = [](size_t size, void *info) {
            return Of(info)->empty ? nullptr : (++Of(info)->blocks, malloc(size));
        };
        context.deallocate = [](void *pointer, void *info) { --Of(info)->blocks, free(pointer); };
        allocator = Ref<TQAllocator>::Adopt(TQAllocatorCreate(nullptr, &context));
    }
    static CountingAllocator *Of(const void *info)
    {
        return static_cast<CountingAllocator *>(const_cast<void *>(info));
    }
};

} // namespace

TEST(Value, ConstantsServeBeforeMainAndOutliveEveryRelease)
{
    EXPECT_TRUE(constantsWorkEarly);
    for (TQValue *constant :
         std::initializer_list<TQValue *>{kTQBooleanTrue, kTQErrorUnderlyingKey, kTQAllocatorNull}) {
        for (int i = 0; i < 3; ++i) TQRelease(constant);
        EXPECT_NE(TQGetTypeID(constant), 0u);
    }
}

TEST(Value, NullIsNothingEverywhere)
{
    TQRelease(TQRetain(TQDefer(nullptr)));
    EXPECT_EQ(TQGetTypeID(nullptr) + TQHash(nullptr) + TQDictionaryGetCount(nullptr) + TQDataGetLength(nullptr), 0u);
    EXPECT_TRUE(TQEqual(nullptr, nullptr));
    EXPECT_FALSE(TQEqual(nullptr, kTQBooleanTrue) || TQEqual(kTQBooleanTrue, nullptr) || TQIsNumber(nullptr));
    EXPECT_FALSE(TQCopyDescription(nullptr) || TQErrorCopyDescription(nullptr) || TQURLGetPath(nullptr));
}

TEST(Value, AnyThreadMayRetainAndRelease)
{
    CountingAllocator counting;
    TQData *data = TQDataCreateNoCopy(counting.allocator.get(), nullptr, 0, nullptr);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([value = Value::Retain(data)] {
            for (int round = 0; round < 10000; ++round) Value copy = value;
        });
    TQRelease(data);
    for (std::thread &thread : threads) thread.join();
    threads.clear();
    EXPECT_EQ(counting.blocks, 0);
}

TEST(Value, DeepValuesNeedNoStack)
{
    (void)Nested(1000000); // far deeper than any stack reaches: only released
    // As deep as a property list goes: everything works.
    const Value one = Nested(512), other = Nested(512);
    EXPECT_TRUE(TQEqual(one.get(), other.get()));
    EXPECT_EQ(TQHash(one.get()), TQHash(other.get()));
    EXPECT_EQ(Describe(one.get()), std::string(512, '[') + std::string(512, ']'));
    EXPECT_FALSE(TQEqual(one.get(), Nested(511).get()));
    // Beyond, comparison gives up instead of the stack.
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
        for (const Value &key : {a, b}) TQDictionaryRemoveValue(loop.get(), key.get()); // who ties a loop undoes it
}

TEST(Value, EveryKindDescribesItself)
{
    TQValue *member[] = {kTQBooleanTrue};
    const std::tuple<Value, const char *> rows[] = {
        {Text("as it is"), "as it is"},
        {Array({Text("a"), Number(-7), Number(0.1), Truth(true)}), "[\"a\", -7, 0.1, true]"},
        {Dictionary({{Text("key"), Number(UINT64_MAX)}, {Number(1), Dictionary({})}}),
         "{\"key\": 18446744073709551615, 1: {}}"},
        {Own(TQSetCreate(member, 1)), "(true)"},
        {Bytes(std::string("\x00\xff", 2)), "<2 bytes: 00ff>"},
        {Date(1e9 + 0.5), "2001-09-09 01:46:40 UTC"},
        {Date(1e300), "1e+300 seconds since 1970"},
        {Own(TQURLCreateWithFileSystemPath("/a b", false)), "file:///a%20b"},
    };
    for (const auto &[value, text] : rows) EXPECT_EQ(Describe(value.get()), text);
}

TEST(Allocator, TakesBackTheObjectAndTheBytes)
{
    CountingAllocator objects, bytes;
    TQValue *data = TQDataCreateNoCopy(objects.allocator.get(), TQAllocatorAllocate(bytes.allocator.get(), 3), 3,
                                       bytes.allocator.get());
    objects.allocator = bytes.allocator = nullptr; // the object keeps what it still needs
    EXPECT_EQ(objects.blocks + bytes.blocks, 2);
    EXPECT_EQ(objects.retained + bytes.retained, 2);
    TQRelease(data);
    EXPECT_EQ(objects.blocks + bytes.blocks + objects.retained + bytes.retained, 0);
}

TEST(Allocator, WithoutMemoryLeavesTheBytesToTheCaller)
{
    CountingAllocator objects, bytes;
    objects.empty = true;
    char content[] = "abc";
    for (TQAllocator *none : {objects.allocator.get(), kTQAllocatorNull})
        EXPECT_EQ(TQDataCreateNoCopy(none, content, 3, bytes.allocator.get()), nullptr);
    EXPECT_EQ(bytes.blocks, 0);
    EXPECT_EQ(TQDataGetBytes(Cast{Own(TQDataCreateNoCopy(nullptr, content, 3, kTQAllocatorNull))}), content);
}

#if !defined(NDEBUG) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
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
