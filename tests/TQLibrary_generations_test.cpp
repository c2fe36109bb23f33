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
    Value DisplayName(const Ref<TQString> &name) const
    {
        return Own(TQLibraryCopyGenerationOriginalDisplayName(library.get(), name.get()));
    }

    const Ref<TQLibrary> library =
        Ref<TQLibrary>::Adopt(TQLibraryCreateClientManaged(nullptr, FileURL(store.root()).get(), nullptr));
    TQLibrary *const l = library.get();
    const Ref<TQString> g = String("g"), shown = String("shown");
};
INSTANTIATE_AS_EACH(GenerationMetadata);

TEST_P(GenerationMetadata, IsSetReadAndRemoved)
{
    const Value kinds = Array({Number(UINT64_MAX), Number(0.25), Truth(true), Text("\xE2\x82\xAC"), Date(1.5),
                               Bytes(std::string("\0\xff", 2)), Nested(20), Dictionary({{Text("in"), Number(-1)}})});
    EXPECT_TRUE(Set(g, "k", kinds));
    EXPECT_FALSE(Set(g, "k", Bytes(std::string(70000, 'x')))) << "more than any attribute holds";
    EXPECT_FALSE(Set(g, "k", Own(TQSetCreate(nullptr, 0))));
    EXPECT_TRUE(TQEqual(Get(g, "k").get(), kinds.get())) << Describe(Get(g, "k").get());
    const Value all = Own(TQLibraryCopyGenerationInfoDictionary(l, g.get()));
    EXPECT_TRUE(TQEqual(all.get(), Dictionary({{Text("k"), kinds}}).get()));
    EXPECT_TRUE(!Set(g, "none", {}) && Set(g, "k", {}) && !Get(g, "k"));

    EXPECT_TRUE(TQLibrarySetGenerationOriginalDisplayName(l, g.get(), shown.get()));
    EXPECT_FALSE(TQLibrarySetGenerationOriginalDisplayName(l, g.get(), String(std::string(768, 'd')).get()));
    EXPECT_TRUE(TQEqual(DisplayName(g).get(), shown.get()));
    EXPECT_TRUE(TQLibrarySetGenerationOriginalDisplayName(l, g.get(), nullptr));
    EXPECT_FALSE(DisplayName(g));
    for (const auto &name : {String("none"), String(std::string(255, 'n')), Ref<TQString>()}) {
        EXPECT_FALSE(Set(name, "k", Number(1)) || Get(name, "k") || DisplayName(name));
        EXPECT_FALSE(TQLibrarySetGenerationOriginalDisplayName(l, name.get(), shown.get()));
        EXPECT_EQ(TQLibraryCopyGenerationInfoDictionary(l, name.get()), nullptr);
    }
    store.CheckInvariants();
}

TEST_P(GenerationMetadata, QueriesHandErrorsOutAndIgnoreWhatNobodyReads)
{
    const Value bare = Dictionary({{Text("fields"), Dictionary({})}}),
                bad = Dictionary({{Text("fields"), Text("all")}});
    const auto *spec = static_cast<const TQDictionary *>(bare.get()),
               *wrong = static_cast<const TQDictionary *>(bad.get());
    for (const TQValue *unread : {static_cast<const TQValue *>(nullptr), static_cast<const TQValue *>(bad.get())}) {
        EXPECT_EQ(Describe(Own(TQLibraryCopyGenerationInfos(l, unread, unread, g.get(), spec, nullptr)).get()),
                  "{\"name\": \"g\"}");
        EXPECT_EQ(Describe(Own(TQLibraryCopyAllGenerationsInfos(l, unread, spec, nullptr)).get()),
                  "{\"com.corvane.draftline\": [{\"name\": \"g\"}]}");
    }
    const Says refused = Refused(110, "invalid type for spec.fields");
    Expect({{refused, CALL(TQLibraryCopyGenerationInfos(l, nullptr, nullptr, g.get(), wrong, why))},
            {refused, CALL(TQLibraryCopyAllGenerationsInfos(l, nullptr, wrong, why))}});
}

// A write reads the dictionary, changes one key and writes it back: without the lock one of the writers would lose.
TEST_P(GenerationMetadata, ConcurrentWritersOfOneDictionaryLoseNothing)
{
    std::vector<pid_t> writers;
    for (const char *key : {"a", "b", "c"}) {
        writers.push_back(fork());
        for (int i = 1; writers.back() == 0; ++i)
            if (!Set(g, key, Number(i)) || !TQEqual(Get(g, key).get(), Number(i).get()) || i == 30) _exit(i - 30);
    }
    for (const pid_t writer : writers) {
        int ended = 1;
        waitpid(writer, &ended, 0);
        EXPECT_EQ(ended, 0);
    }
    for (const char *key : {"a", "b", "c"}) EXPECT_EQ(TQNumberGetInt64(Get(g, key).get()), 30);
}

} // namespace
