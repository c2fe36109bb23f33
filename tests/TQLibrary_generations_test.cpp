#include "Runtime/Values.h"
#include "support/Tests.h"

#include <sys/wait.h>

namespace {

class GenerationMetadata : public InStore {
protected:
    GenerationMetadata() { EXPECT_TRUE(store.Add("g", nullptr, true, 2)); }
    bool Set(const Ref<TQString> &name, const char *key, const Value &value) const
    {
        return TQLibrarySetGenerationInfoValueForKey(library.get(), name.get(), String(key).get(), value.get());
    }
    Value Get(const Ref<TQString> &name, const char *key) const
    {
        return Own(TQLibraryCopyGenerationInfoValueForKey(library.get(), name.get(), String(key).get()));
    }
    Value All(const Ref<TQString> &name) const
    {
        return Own(TQLibraryCopyGenerationInfoDictionary(library.get(), name.get()));
    }
    std::string DisplayName(const Ref<TQString> &name) const
    {
        return Text(Ref<TQString>::Adopt(TQLibraryCopyGenerationOriginalDisplayName(library.get(), name.get())).get());
    }

    const Ref<TQLibrary> library =
        Ref<TQLibrary>::Adopt(TQLibraryCreateClientManaged(nullptr, FileURL(store.root()).get(), nullptr));
    const Ref<TQString> g = String("g");
};
INSTANTIATE_AS_EACH(GenerationMetadata);

TEST_P(GenerationMetadata, ValuesOfEveryKindComeBackAndGo)
{
    const Value kinds =
        Dictionary({{Text("numbers"), Array({Number(-1), Number(UINT64_MAX), Number(0.25), Truth(true)})},
                    {Text("text"), Text("\xE2\x82\xAC \xF0\x9D\x84\x9E")},
                    {Text("date"), Date(1234567890.5)},
                    {Text("data"), Bytes(std::string("\0\xff", 2))},
                    {Text("deep"), Nested(20)}});
    EXPECT_EQ(TQDictionaryGetCount(static_cast<const TQDictionary *>(All(g).get())), 0U);
    EXPECT_TRUE(Set(g, "k", kinds));
    EXPECT_TRUE(Set(g, "", Number(0)));
    EXPECT_TRUE(TQEqual(Get(g, "k").get(), kinds.get())) << Describe(Get(g, "k").get());
    EXPECT_TRUE(TQEqual(All(g).get(), Dictionary({{Text("k"), kinds}, {Text(""), Number(0)}}).get()));
    // What doesn't fit, or is no property list, leaves the old value.
    EXPECT_FALSE(Set(g, "k", Bytes(std::string(70000, 'x')))); // more than any attribute holds
    EXPECT_FALSE(Set(g, "k", Own(TQSetCreate(nullptr, 0))));
    EXPECT_TRUE(TQEqual(Get(g, "k").get(), kinds.get()));
    EXPECT_FALSE(Set(g, "none", {}));
    EXPECT_TRUE(Set(g, "k", {}) && Set(g, "", {}));
    EXPECT_EQ(disk::Attribute(store.Generation("g"), "com.corvane.vaultry.info"), std::nullopt);
    EXPECT_FALSE(Get(g, "k"));
    store.CheckInvariants();
}

TEST_P(GenerationMetadata, DisplayNamesAndWhatHasNoGeneration)
{
    const auto set = [&](const std::string &shown) {
        return TQLibrarySetGenerationOriginalDisplayName(library.get(), g.get(), String(shown).get());
    };
    const std::string longest = std::string(764, 'd') + "\xE2\x82\xAC";
    EXPECT_TRUE(set(longest));
    EXPECT_FALSE(set(longest + "e"));
    EXPECT_EQ(DisplayName(g), longest);
    EXPECT_TRUE(set("a/b"));
    EXPECT_EQ(DisplayName(g), "a/b");
    EXPECT_TRUE(set(""));
    EXPECT_EQ(DisplayName(g), "(null)");
    EXPECT_TRUE(set("x") && TQLibrarySetGenerationOriginalDisplayName(library.get(), g.get(), nullptr));
    EXPECT_EQ(disk::Attribute(store.Generation("g"), "com.corvane.vaultry.origdisplayname"), std::nullopt);

    for (const auto &name : {String("none"), String(std::string(255, 'n')), Ref<TQString>()}) {
        EXPECT_FALSE(Set(name, "k", Number(1)) || Get(name, "k") || All(name));
        EXPECT_FALSE(TQLibrarySetGenerationOriginalDisplayName(library.get(), name.get(), g.get()));
        EXPECT_EQ(DisplayName(name), "(null)");
    }
    // Queries give the same whatever the arguments are that nobody reads, and hand errors out.
    const Value spec = Dictionary({{Text("fields"), Dictionary({})}}),
                bad = Dictionary({{Text("fields"), Text("all")}});
    const auto with = [](const Value &value) { return static_cast<const TQDictionary *>(value.get()); };
    for (const TQValue *unread : {static_cast<const TQValue *>(nullptr), static_cast<const TQValue *>(bad.get())}) {
        const Value one =
                        Own(TQLibraryCopyGenerationInfos(library.get(), unread, unread, g.get(), with(spec), nullptr)),
                    all = Own(TQLibraryCopyAllGenerationsInfos(library.get(), unread, with(spec), nullptr));
        EXPECT_EQ(Describe(one.get()), "{\"name\": \"g\"}");
        EXPECT_EQ(Describe(all.get()), "{\"com.corvane.draftline\": [{\"name\": \"g\"}]}");
    }
    Expect({{Refused(110, "invalid type for spec.fields"),
             CALL(TQLibraryCopyGenerationInfos(library.get(), nullptr, nullptr, g.get(), with(bad), why))},
            {Refused(110, "invalid type for spec.fields"),
             CALL(TQLibraryCopyAllGenerationsInfos(library.get(), nullptr, with(bad), why))}});
    store.CheckInvariants();
}

// A write reads the dictionary, changes one key and writes it back: without the lock one of two writers would lose.
TEST_P(GenerationMetadata, ConcurrentWritersOfOneDictionaryLoseNothing)
{
    std::vector<pid_t> writers;
    for (const char *key : {"a", "b", "c"}) {
        writers.push_back(fork());
        if (writers.back() != 0) continue;
        bool good = true;
        for (int i = 1; i <= 30; ++i)
            good = good && Set(g, key, Number(i)) && TQEqual(Get(g, key).get(), Number(i).get());
        _exit(good ? 0 : 1);
    }
    for (const pid_t writer : writers) {
        int ended = 1;
        waitpid(writer, &ended, 0);
        EXPECT_EQ(ended, 0);
    }
    for (const char *key : {"a", "b", "c"}) EXPECT_EQ(Describe(Get(g, key).get()), "30");
    store.CheckInvariants();
}

} // namespace
