#include "Runtime/Values.h"

#include <algorithm>
#include <random>

TEST(Dictionary, KeepsEveryPairInOrderThroughManyChanges)
{
    std::mt19937 random(7);
    std::vector<std::pair<int64_t, int64_t>> model; // the expected content, kept the slow way
    const auto dictionary = Ref<TQDictionary>::Adopt(TQDictionaryCreateMutable());
    for (int64_t step = 0; step < 20000; ++step) {
        const auto key = static_cast<int64_t>(random() % 300);
        const auto at = std::ranges::find(model, key, [](const auto &pair) { return pair.first; });
        const bool isNew = at == model.end();
        // Two forms of the same number are the same key.
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
}

TEST(Set, HoldsEachValueOnceInOrder)
{
    const Value set = Own(TQSetCreateMutable());
    for (const int i : {3, 1, 3, 2, 1}) EXPECT_TRUE(TQSetAddValue(Cast{set}, Number(i).get()));
    EXPECT_TRUE(TQSetRemoveValue(Cast{set}, Number(1.0).get()));
    EXPECT_FALSE(TQSetRemoveValue(Cast{set}, Number(1).get()));
    EXPECT_EQ(Describe(set.get()), "(3, 2)");
}

TEST(Collections, OnlyMutableOnesChange)
{
    const Value a = Text("a"), fixed = Array({a}), pairs = Dictionary({{a, a}});
    const Value list = Own(TQArrayCreateMutable()), thawed = Own(TQDictionaryCreateMutableCopy(Cast{pairs}));
    EXPECT_TRUE(TQArrayAppendValue(Cast{list}, a.get()));
    const Value frozen = Own(TQArrayCreateCopy(Cast{list}));
    EXPECT_TRUE(TQArrayAppendValue(Cast{list}, a.get()) && TQDictionaryRemoveValue(Cast{thawed}, a.get()));
    for (const Value &array : {fixed, frozen}) {
        EXPECT_FALSE(TQArrayAppendValue(Cast{array}, a.get()));
        EXPECT_EQ(Describe(array.get()), "[\"a\"]");
    }
    EXPECT_FALSE(TQDictionarySetValue(Cast{pairs}, a.get(), a.get()) || TQDictionaryRemoveValue(Cast{pairs}, a.get()));
    EXPECT_EQ(Describe(pairs.get()), "{\"a\": \"a\"}");
    EXPECT_TRUE(TQArrayContainsValue(Cast{list}, Text("a").get()) && !TQArrayGetValueAtIndex(Cast{list}, 2));

    // No container holds null.
    TQValue *values[] = {a.get(), nullptr};
    EXPECT_FALSE(TQArrayAppendValue(Cast{list}, nullptr) || TQDictionarySetValue(Cast{thawed}, nullptr, a.get()) ||
                 TQDictionarySetValue(Cast{thawed}, a.get(), nullptr));
    EXPECT_FALSE(TQArrayCreate(values, 2) || TQSetCreate(values, 2) || TQDictionaryCreate(values, values, 2));
}
