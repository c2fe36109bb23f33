#include "Runtime/Values.h"

#include <algorithm>
#include <random>

TEST(Dictionary, KeepsEveryPairInOrderThroughManyChanges)
{
    std::mt19937 random(7);
    std::vector<std::pair<int64_t, int64_t>> model; // what it should hold, kept the slow way
    const auto dictionary = Ref<TQDictionary>::Adopt(TQDictionaryCreateMutable());
    for (int64_t step = 0; step < 20000; ++step) {
        const auto key = static_cast<int64_t>(random() % 300);
        const auto at = std::ranges::find(model, key, [](const auto &pair) { return pair.first; });
        const bool isNew = at == model.end();
        // Keys of another form of the same value are the same key.
        const Value given = step % 2 ? Number(key) : Number(static_cast<double>(key));
        if (random() % 3 == 0) {
            EXPECT_EQ(TQDictionaryRemoveValue(dictionary.get(), given.get()), !isNew);
            if (!isNew) model.erase(at);
        } else {
            EXPECT_TRUE(TQDictionarySetValue(dictionary.get(), given.get(), Number(step).get()));
            (isNew ? model.emplace_back(key, 0) : *at).second = step;
        }
        if (step % 500 != 499) continue;
        std::string text;
        for (const auto &[one, value] : model) {
            text += (text.empty() ? "" : ", ") + std::to_string(one) + ": " + std::to_string(value);
            EXPECT_EQ(TQNumberGetInt64(TQDictionaryGetValue(dictionary.get(), Number(one).get())), value);
        }
        ASSERT_EQ(Describe(Own(TQDictionaryCreateCopy(dictionary.get())).get()), "{" + text + "}");
    }
    EXPECT_EQ(TQDictionaryGetValue(dictionary.get(), Number(1000).get()), nullptr);
}

TEST(Set, HoldsEachValueOnce)
{
    const auto set = Ref<TQSet>::Adopt(TQSetCreateMutable());
    for (const int i : {3, 1, 3, 2, 1}) EXPECT_TRUE(TQSetAddValue(set.get(), Number(i).get()));
    EXPECT_TRUE(TQSetRemoveValue(set.get(), Number(1.0).get()));
    EXPECT_FALSE(TQSetRemoveValue(set.get(), Number(1).get()));
    EXPECT_EQ(Describe(set.get()), "(3, 2)");
    TQValue *values[2];
    TQSetGetValues(set.get(), values);
    std::swap(values[0], values[1]);
    EXPECT_TRUE(TQEqual(set.get(), Own(TQSetCreate(values, TQSetGetCount(set.get()))).get())); // in any order
    const auto takeNext = [](TQValue *value, void *next) { EXPECT_EQ(value, *--*static_cast<TQValue ***>(next)); };
    TQValue **next = std::end(values);
    TQSetApply(set.get(), takeNext, &next);
    EXPECT_EQ(next, values);
}

TEST(Collections, CompareByTheirMembers)
{
    const Value a = Text("a"), b = Text("b");
    const std::tuple<Value, Value, bool> rows[] = {
        {Array({a, Number(1)}), Array({Text("a"), Number(1.0)}), true},
        {Dictionary({{a, b}, {b, a}}), Dictionary({{b, a}, {a, b}}), true},
        {Dictionary({{a, a}, {a, b}}), Dictionary({{a, b}}), true}, // the last value of a key stands
        {Dictionary({{Array({a}), Dictionary({})}}), Dictionary({{Array({Text("a")}), Dictionary({})}}), true},
        {Array({a, b}), Array({b, a}), false},
        {Array({a}), Array({a, a}), false},
        {Dictionary({{a, a}}), Dictionary({{b, a}}), false},
        {Dictionary({{a, a}}), Dictionary({{a, b}}), false},
        {Array({}), Dictionary({}), false},
        {Array({Truth(true)}), Array({Number(1)}), false},
    };
    for (const auto &[one, other, equal] : rows) {
        EXPECT_EQ(TQEqual(one.get(), other.get()), equal) << Describe(one.get());
        EXPECT_TRUE(!equal || TQHash(one.get()) == TQHash(other.get())) << Describe(one.get());
    }
}

TEST(Collections, OnlyMutableOnesChange)
{
    const Value a = Text("a"), fixed = Array({a}), pairs = Dictionary({{a, a}});
    EXPECT_FALSE(TQArrayAppendValue(Cast{fixed}, a.get()));
    EXPECT_FALSE(TQDictionarySetValue(Cast{pairs}, a.get(), a.get()) || TQDictionaryRemoveValue(Cast{pairs}, a.get()));

    const Value list = Own(TQArrayCreateMutable());
    EXPECT_FALSE(TQArrayAppendValue(Cast{list}, nullptr));
    EXPECT_TRUE(TQArrayAppendValue(Cast{list}, a.get()));
    const Value frozen = Own(TQArrayCreateCopy(Cast{list}));
    EXPECT_TRUE(TQArrayAppendValue(Cast{list}, a.get()));
    EXPECT_FALSE(TQArrayAppendValue(Cast{frozen}, a.get()));
    EXPECT_EQ(Describe(frozen.get()), "[\"a\"]");
    EXPECT_EQ(TQArrayGetValueAtIndex(Cast{list}, 2), nullptr);
    EXPECT_TRUE(TQArrayContainsValue(Cast{list}, Text("a").get()));

    const Value thawed = Own(TQDictionaryCreateMutableCopy(Cast{pairs}));
    EXPECT_TRUE(TQDictionaryRemoveValue(Cast{thawed}, a.get()));
    EXPECT_FALSE(TQDictionarySetValue(Cast{thawed}, nullptr, a.get()) ||
                 TQDictionarySetValue(Cast{thawed}, a.get(), nullptr));
    EXPECT_EQ(TQDictionaryGetCount(Cast{pairs}), 1u);

    TQValue *withNull[] = {a.get(), nullptr};
    EXPECT_FALSE(TQArrayCreate(withNull, 2) || TQSetCreate(withNull, 2) || TQDictionaryCreate(withNull, withNull, 2));
}
