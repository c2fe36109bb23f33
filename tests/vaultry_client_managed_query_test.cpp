#include "vaultry_client_managed_query.h"

#include "Runtime/Values.h"
#include "support/Tests.h"

#include <atomic>
#include <sys/file.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>

namespace {

// A value of a spec, as it is written down in a row.
struct Any : Value {
    template <class T> Any(T value) : Value(Number(value)) {}
    Any(bool value) : Value(Truth(value)) {}
    Any(const char *value) : Value(Text(value)) {}
    Any(const Value &value) : Value(value) {}
};

Value Spec(std::initializer_list<std::pair<const char *, Any>> entries)
{
    std::vector<std::pair<Value, Value>> pairs;
    for (const auto &[key, value] : entries) pairs.emplace_back(Text(key), value);
    return Dictionary(pairs);
}

const TQArray *Group(const Value &result, const char *name)
{
    const auto *groups = static_cast<const TQDictionary *>(result.get());
    return static_cast<const TQArray *>(TQDictionaryGetValue(groups, String(name).get()));
}

// The names of all records: "draft line | nimbus sync".
std::string NamesIn(const Value &result)
{
    std::string all;
    for (const char *group : {"com.corvane.draftline", "com.corvane.nimbusync"}) {
        const auto *records = Group(result, group);
        const auto names = Ref<TQArray>::Adopt(TQArrayCreateMutable());
        for (size_t i = 0; i < TQArrayGetCount(records); ++i) {
            const auto *record = static_cast<const TQDictionary *>(TQArrayGetValueAtIndex(records, i));
            TQArrayAppendValue(names.get(), TQDictionaryGetValue(record, String("name").get()));
        }
        for (const auto &name : Texts(names.get())) all += name + " ";
        EXPECT_TRUE(records == nullptr || TQArrayGetCount(records) > 0) << "a group without records is left out";
        if (group[12] == 'd') all += "| ";
    }
    return all;
}

using Name = std::optional<std::string>; // none: all generations

class StoreQuery : public InStore {
protected:
    StoreQuery()
    {
        const std::pair<const char *, uint64_t> words[] = {
            {"one", 0}, {"two", 2}, {"four", 4}, {"six", 0x8000000000000006}, {"none", 0}, {"high", 0}};
        for (const auto &[name, options] : words) EXPECT_TRUE(store.Add(name, nullptr, true, options));
        // Words that no setter stores.
        Plant("none", "gen_options", std::string(8, '\0'));
        Plant("high", "gen_options", "\x20" + std::string(7, '\0'));
        TQClientManagedStorageSetGenerationInfoValueForKey(handle, "six", String("a").get(), Number(1).get(), nullptr);
        TQClientManagedStorageSetGenerationInfoValueForKey(handle, "six", String("b").get(), Text("x").get(), nullptr);
        TQClientManagedStorageSetGenerationOriginalDisplayName(handle, "six", String("S\xC3\xA9x").get(), nullptr);
    }
    void Plant(const char *name, const char *attribute, std::string_view bytes) const
    {
        chmod(store.Generation(name).c_str(), 0755);
        disk::SetAttribute(store.Generation(name), std::string("com.corvane.vaultry.") + attribute, bytes);
        chmod(store.Generation(name).c_str(), 0555);
    }
    Value Ask(const Name &name, const Value &spec = {}, TQError **error = nullptr) const
    {
        const auto *dictionary = static_cast<const TQDictionary *>(spec.get());
        return Own(name ? TQClientManagedStorageCopyGenerationInfos(handle, String(*name).get(), dictionary, error)
                        : TQClientManagedStorageCopyAllGenerationsInfos(handle, dictionary, error));
    }
    Operation Asking(const Name &name, const Value &spec = {}) const
    {
        return [=, this](TQError **error) { return static_cast<bool>(Ask(name, spec, error)); };
    }
    const Value list = Array({Text("b"), Text("absent"), Number(4)});
};
INSTANTIATE_AS_EACH(StoreQuery);

TEST_P(StoreQuery, MasksAndClientsChooseTheGenerations)
{
    const Value draftline = Text("com.corvane.draftline"), nimbusync = Text("com.corvane.nimbusync");
    const std::pair<Value, const char *> rows[] = {
        {Value(), "one two | four six "}, // 31 leaves out a word of 0, and one with high bits alone
        {Spec({{"withOptions", 0}}), "high none one two | four six "},
        {Spec({{"withOptions", false}}), "high none one two | four six "},
        {Spec({{"withOptions", true}}), "one | "},
        {Spec({{"withOptions", -1}}), "high one two | four six "},
        {Spec({{"withOptions", 2.0}}), "two | six "},
        {Spec({{"withOptions", INT64_MIN}}), "| six "},
        {Spec({{"withoutOptions", 2}}), "one | four "},
        {Spec({{"withoutOptions", true}}), "two | four six "},
        {Spec({{"withoutOptions", 4}, {"withOptions", 6}}), "two | "},
        {Spec({{"withoutOptions", -1}, {"withOptions", 0}}), "none | "},
        {Spec({{"clients", Array({draftline})}}), "one two | "},
        {Spec({{"clients", Array({Text("another"), Number(7), nimbusync})}}), "| four six "},
        {Spec({{"clients", Array({nimbusync, draftline})}}), "one two | four six "},
        {Spec({{"clients", Array({})}}), "| "},
    };
    for (const auto &[spec, names] : rows) EXPECT_EQ(NamesIn(Ask({}, spec)), names) << Describe(spec.get());
    store.CheckInvariants();
}

TEST_P(StoreQuery, FieldsChooseWhatIsInARecord)
{
    const std::string n = "{\"name\": \"six\"", o = ", \"options\": -9223372036854775802",
                      u = ", \"URL\": file://" + store.Generation("six"), d = ", \"ODN\": \"S\xC3\xA9x\"",
                      i = ", \"info\": {\"a\": 1, \"b\": \"x\"}";
    const std::pair<Value, std::string> rows[] = {
        {Spec({}), n + o + u + d + i},
        {Spec({{"fields", Spec({})}}), n},
        {Spec({{"fields", Spec({{"info", true}})}}), n}, // nobody asks for it
        {Spec({{"fields", Spec({{"info", "?"}})}}), n},
        {Spec({{"fields", Spec({{"ODN", true}})}}), n + d + i}, // both at once
        {Spec({{"fields", Spec({{"ODN", 0.5}, {"info", false}})}}), n + d + i},
        {Spec({{"fields", Spec({{"ODN", 0}, {"info", true}})}}), n},
        {Spec({{"fields", Spec({{"URL", 1}, {"options", false}})}}), n + u},
        {Spec({{"fields", Spec({{"URL", false}, {"options", -1}})}}), n + o},
        {Spec({{"fields", Spec({{"URL", true}, {"options", true}, {"ODN", true}})}}), n + o + u + d + i},
    };
    for (const auto &[spec, record] : rows) {
        const Value one = Ask("six", spec), all = Ask({}, spec);
        EXPECT_EQ(Describe(one.get()), record + "}");
        EXPECT_TRUE(TQArrayContainsValue(Group(all, "com.corvane.nimbusync"), one.get())) << Describe(all.get());
    }
    EXPECT_TRUE(Ask("six", Spec({{"withOptions", "?"}, {"clients", "?"}}))) << "they are for all only";
    // A list of keys reaches the building of records from inside alone.
    const Value chosen = Own(_genInfosCreate({false, false, false, true}, static_cast<TQArray *>(list.get()), "six", 0,
                                             store.Generation("six").c_str(), nullptr));
    EXPECT_EQ(Describe(chosen.get()), n + ", \"info\": {\"b\": \"x\"}}");
}

TEST_P(StoreQuery, WrongTypesAreRefusedBeforeTheLockIsAskedFor)
{
    // Whoever holds the lock would be waited for, for ever.
    const int lock = open((store.root() + "/.vaultry_lockfile").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    const std::tuple<Value, const char *, Name> bad[] = {
        {Spec({{"fields", Spec({{"ODN", "1"}, {"URL", "1"}})}}), "UserInfos", "six"},
        {Spec({{"fields", Spec({{"ODN", list}, {"URL", "1"}})}}), "Path", "six"},
        {Spec({{"fields", Spec({{"ODN", list}, {"options", list}})}}), "Options", "six"},
        {Spec({{"fields", Spec({{"ODN", list}})}, {"withOptions", "1"}}), "ODN", "six"},
        {Spec({{"clients", "a"}, {"withoutOptions", "1"}, {"withOptions", list}}), "spec.withOptions", {}},
        {Spec({{"clients", "a"}, {"withoutOptions", "1"}}), "spec.withoutOptions", {}},
        {Spec({{"clients", "a"}}), "spec.clients", {}},
    };
    for (const auto &[spec, what, name] : bad)
        for (const Name &asked : {Name(), name})
            Expect({{Refused(110, std::string("invalid type for ") + what), Asking(asked, spec)}});
    close(lock);
}

TEST_P(StoreQuery, ANameIsNeitherValidatedNorLookedFor)
{
    const Value bare = Spec({{"fields", Spec({})}}), word = Spec({{"fields", Spec({{"options", true}})}});
    for (const char *name : {"missing", ".hidden", "six/in", ""})
        EXPECT_TRUE(TQEqual(Ask(name, bare).get(), Spec({{"name", name}}).get())) << name;
    EXPECT_EQ(Describe(Ask("missing", word).get()), "{\"name\": \"missing\", \"options\": 0}");
    const std::string longest(1023 - store.root().size() - 1, 'n');
    EXPECT_TRUE(Ask(longest, bare));
    Expect({{System(ENOENT, "Failed to get original display name xattr"), Asking("missing")},
            {Refused(104, "Path to generation is too long"), Asking(longest + "n", bare)}});
}

TEST_P(StoreQuery, AnythingUnreadableFailsTheWholeQuery)
{
    const Value plain = Spec({{"fields", Spec({{"URL", true}})}});
    const std::tuple<const char *, std::string, int32_t> rows[] = {
        {"info", "bplist00", 101},
        {"info", std::string("bplist00\xA0\x08\0\0\0\0\0\0\1\1\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x09", 42),
         101}, // []
        {"origdisplayname", std::string(768, 'd'), 101},
        {"origdisplayname", std::string(769, 'd'), 109},
        {"origdisplayname", "\xff", 101},
    };
    for (const auto &[attribute, bytes, status] : rows) {
        SCOPED_TRACE(attribute + bytes.substr(0, 20));
        ASSERT_TRUE(store.Add("bad"));
        Plant("bad", attribute, bytes);
        for (const Name &name : {Name(), Name("bad")}) {
            OwnedError error;
            EXPECT_FALSE(Ask(name, {}, error.out()));
            EXPECT_EQ(error.status(), status) << error.description();
        }
        EXPECT_EQ(NamesIn(Ask({}, plain)), "bad one two | four six ") << "what nobody asks for is not read";
        EXPECT_TRUE(store.Remove({"bad"}));
    }
    OwnedError none;
    EXPECT_THAT(Describe(Ask("two", {}, none.out()).get()), testing::Not(testing::HasSubstr("ODN")));
    EXPECT_EQ(none.get(), nullptr) << "that there is no display name is no failure";

    const Fault second = FailCall(2, EIO, {{SYS_openat}}); // the first is the lock file
    Expect({{System(EIO, "unable to opendir($/store)", 7), Asking({}), second},
            {System(EIO, "unable to opendir($/store)", 3), CALL(TQClientManagedStorageCopyGenerationNames(handle, why)),
             second}});
    store.CheckInvariants();
    chmod(store.root().c_str(), 0755);
    disk::Write(store.Generation("\xff"), "planted");
    EXPECT_FALSE(Ask({}, plain)) << "no string can hold its name";
}

// Two generations go in one removal: whoever sees the second without the first saw half of it.
TEST(StoreQueryConcurrency, AQueryConcurrentWithAddsAndRemovalsSeesOneMoment)
{
    TestStore store(TestStore::Document::File);
    const pid_t writer = fork();
    if (writer == 0) {
        bool good = true;
        for (int i = 0; i < 20; ++i)
            good = good && store.Add("first", nullptr, true, 2) && store.Add("second", nullptr, true, 6) &&
                   store.Remove({"first", "second"});
        _exit(good ? 0 : 1);
    }
    std::atomic<int> seen = 0;
    const auto read = [&] {
        const Value all = Own(TQClientManagedStorageCopyAllGenerationsInfos(store.handle(), nullptr, nullptr));
        const std::string names = all ? NamesIn(all) : "failed";
        EXPECT_TRUE(names == "| " || names == "first | " || names == "first | second ") << names;
        seen += names == "| " ? 0 : 1;
    };
    int ended = 1;
    while (waitpid(writer, &ended, WNOHANG) == 0) {
        std::thread other(read);
        read();
        other.join();
    }
    EXPECT_EQ(ended, 0);
    EXPECT_GT(seen, 0);
    store.CheckInvariants();
}

} // namespace
