#include "Runtime/Values.h"

#include <algorithm>
#include <random>

namespace {

using Pairs = std::vector<std::pair<int64_t, int64_t>>;

// What a dictionary should hold, in order, kept the slow way.
struct Model {
    Pairs pairs;
    auto Find(int64_t key) { return std::ranges::find(pairs, key, &Pairs::value_type::first); }
};

Pairs PairsOf(const TQDictionary *dictionary)
{
    std::vector<TQValue *> keys(TQDictionaryGetCount(dictionary)), values(keys.size());
    TQDictionaryGetKeysAndValues(dictionary, keys.data(), values.data());
    Pairs pairs;
    for (size_t i = 0; i < keys.size(); ++i) pairs.emplace_back(TQNumberGetInt64(keys[i]), TQNumberGetInt64(values[i]));
    return pairs;
}

} // namespace

TEST(Dictionary, KeepsEveryPairInOrderThroughManyChanges)
{
    std::mt19937 random(7);
    Model model;
    const auto owned = Ref<TQDictionary>::Adopt(TQDictionaryCreateMutable());
    TQDictionary *dictionary = owned.get();
    for (int step = 0; step < 20000; ++step) {
        const int64_t key = static_cast<int64_t>(random() % 300), value = step;
        const auto at = model.Find(key);
        // Keys of another form of the same value are the same key.
        const Value given = step % 2 ? Number(key) : Number(static_cast<double>(key));
        if (random() % 3 == 0) {
            EXPECT_EQ(TQDictionaryRemoveValue(dictionary, given.get()), at != model.pairs.end());
            if (at != model.pairs.end()) model.pairs.erase(at);
        } else {
            EXPECT_TRUE(TQDictionarySetValue(dictionary, given.get(), Number(value).get()));
            if (at != model.pairs.end())
                at->second = value;
            else
                model.pairs.emplace_back(key, value);
        }
        if (step % 500 == 0) {
            ASSERT_EQ(PairsOf(dictionary), model.pairs);
        }
    }
    const Value copy = Own(TQDictionaryCreateCopy(dictionary));
    EXPECT_EQ(PairsOf(static_cast<TQDictionary *>(copy.get())), model.pairs);
    for (const auto &[key, value] : model.pairs)
        EXPECT_EQ(TQNumberGetInt64(TQDictionaryGetValue(dictionary, Number(key).get())), value);
    EXPECT_EQ(TQDictionaryGetValue(dictionary, Number(1000).get()), nullptr);
}

TEST(Set, HoldsEachValueOnce)
{
    const auto set = Ref<TQSet>::Adopt(TQSetCreateMutable());
    for (const int i : {3, 1, 3, 2, 1}) EXPECT_TRUE(TQSetAddValue(set.get(), Number(i).get()));
    EXPECT_TRUE(TQSetRemoveValue(set.get(), Number(1.0).get()));
    EXPECT_FALSE(TQSetRemoveValue(set.get(), Number(1).get()));
    std::vector<TQValue *> values(TQSetGetCount(set.get()));
    TQSetGetValues(set.get(), values.data());
    std::vector<TQValue *> applied;
    TQSetApply(
        set.get(), [](TQValue *value, void *list) { static_cast<std::vector<TQValue *> *>(list)->push_back(value); },
        &applied);
    EXPECT_EQ(Describe(set.get()), "(3, 2)");
    EXPECT_EQ(applied, values);
    std::swap(values[0], values[1]);
    EXPECT_TRUE(TQEqual(set.get(), Own(TQSetCreate(values.data(), 2)).get())); // in any order
}

TEST(Collections, CompareByTheirMembers)
{
    const Value a = Text("a"), b = Text("b");
    const Value equal[][2] = {
        {Array({a, Number(1)}), Array({Text("a"), Number(1.0)})},
        {Dictionary({{a, b}, {b, a}}), Dictionary({{b, a}, {a, b}})},
        {Dictionary({{a, a}, {a, b}}), Dictionary({{a, b}})}, // the last value of a key stands
        {Dictionary({{Array({a}), Dictionary({})}}), Dictionary({{Array({Text("a")}), Dictionary({})}})},
    };
    for (const auto &pair : equal) {
        EXPECT_TRUE(TQEqual(pair[0].get(), pair[1].get())) << Describe(pair[0].get());
        EXPECT_EQ(TQHash(pair[0].get()), TQHash(pair[1].get()));
    }
    const Value different[][2] = {
        {Array({a, b}), Array({b, a})},
        {Array({a}), Array({a, a})},
        {Dictionary({{a, a}}), Dictionary({{b, a}})},
        {Dictionary({{a, a}}), Dictionary({{a, b}})},
        {Array({}), Dictionary({})},
        {Array({Truth(true)}), Array({Number(1)})},
    };
    for (const auto &pair : different) EXPECT_FALSE(TQEqual(pair[0].get(), pair[1].get())) << Describe(pair[0].get());
}

TEST(Collections, OnlyMutableOnesChange)
{
    const Value a = Text("a");
    const Value fixed = Array({a}), fixedPairs = Dictionary({{a, a}});
    auto *array = static_cast<TQArray *>(fixed.get());
    auto *pairs = static_cast<TQDictionary *>(fixedPairs.get());
    EXPECT_FALSE(TQArrayAppendValue(array, a.get()));
    EXPECT_FALSE(TQDictionarySetValue(pairs, a.get(), a.get()) || TQDictionaryRemoveValue(pairs, a.get()));

    const auto list = Ref<TQArray>::Adopt(TQArrayCreateMutable());
    EXPECT_FALSE(TQArrayAppendValue(list.get(), nullptr));
    EXPECT_TRUE(TQArrayAppendValue(list.get(), a.get()));
    const auto frozen = Ref<TQArray>::Adopt(TQArrayCreateCopy(list.get()));
    EXPECT_TRUE(TQArrayAppendValue(list.get(), a.get()));
    EXPECT_FALSE(TQArrayAppendValue(frozen.get(), a.get()));
    EXPECT_EQ(TQArrayGetCount(frozen.get()), 1u);
    EXPECT_EQ(TQArrayGetValueAtIndex(list.get(), 2), nullptr);
    EXPECT_TRUE(TQArrayContainsValue(list.get(), Text("a").get()));

    const auto thawed = Ref<TQDictionary>::Adopt(TQDictionaryCreateMutableCopy(pairs));
    EXPECT_TRUE(TQDictionaryRemoveValue(thawed.get(), a.get()));
    EXPECT_FALSE(TQDictionarySetValue(thawed.get(), nullptr, a.get()) ||
                 TQDictionarySetValue(thawed.get(), a.get(), nullptr));
    EXPECT_EQ(TQDictionaryGetCount(pairs), 1u);

    TQValue *withNull[] = {a.get(), nullptr};
    EXPECT_EQ(TQArrayCreate(withNull, 2), nullptr);
    EXPECT_EQ(TQSetCreate(withNull, 2), nullptr);
    EXPECT_EQ(TQDictionaryCreate(withNull, withNull, 2), nullptr);
}
