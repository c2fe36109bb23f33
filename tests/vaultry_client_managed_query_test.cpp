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
    Any(int value) : Value(Number(value)) {}
    Any(int64_t value) : Value(Number(value)) {}
    Any(double value) : Value(Number(value)) {}
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

const TQValue *Entry(const TQValue *dictionary, const char *key)
{
    return TQDictionaryGetValue(static_cast<const TQDictionary *>(dictionary), Text(key).get());
}

// The names of all records: "draft line | nimbus sync".
std::string NamesIn(const Value &result)
{
    std::string groups[2];
    for (const bool second : {false, true}) {
        const char *key = second ? "com.corvane.nimbusync" : "com.corvane.draftline";
        const auto *records = static_cast<const TQArray *>(Entry(result.get(), key));
        const auto names = Ref<TQArray>::Adopt(TQArrayCreateMutable());
        for (size_t i = 0; i < TQArrayGetCount(records); ++i)
            TQArrayAppendValue(names.get(), const_cast<TQValue *>(Entry(TQArrayGetValueAtIndex(records, i), "name")));
        for (const auto &name : Texts(names.get())) groups[second] += name + " ";
        EXPECT_EQ(records == nullptr, groups[second].empty()) << "a group without records is left out";
    }
    return groups[0] + "| " + groups[1];
}

class StoreQuery : public AsEach {
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
        chmod(store.Generation(name).c_str(), 0644);
        disk::SetAttribute(store.Generation(name), std::string("com.corvane.vaultry.") + attribute, bytes);
        chmod(store.Generation(name).c_str(), 0444);
    }
    // Of one generation, or without a name of all.
    Value Ask(const std::optional<std::string> &name, const Value &spec = {}, TQError **error = nullptr) const
    {
        const auto *dictionary = static_cast<const TQDictionary *>(spec.get());
        return Own(name ? TQClientManagedStorageCopyGenerationInfos(handle, String(*name).get(), dictionary, error)
                        : TQClientManagedStorageCopyAllGenerationsInfos(handle, dictionary, error));
    }
    Operation Asking(const std::optional<std::string> &name, const Value &spec = {}) const
    {
        return [this, name, spec](TQError **error) { return static_cast<bool>(Ask(name, spec, error)); };
    }

    TestStore store{TestStore::Document::File};
    const TQClientManagedStorage *const handle = store.handle();
    const Value list = Array({Text("b"), Text("absent"), Number(4)});
};
INSTANTIATE_AS_EACH(StoreQuery);

TEST_P(StoreQuery, MasksAndClientsChooseTheGenerations)
{
    const Value draftline = Text("com.corvane.draftline"), nimbusync = Text("com.corvane.nimbusync");
    const std::pair<Value, const char *> rows[] = {
        {Value(), "one two | four six "}, // 31 leaves out a word of 0, and one with high bits alone
        {Spec({{"unknown", "?"}}), "one two | four six "},
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
    for (const auto &[spec, names] : rows) {
        OwnedError error;
        EXPECT_EQ(NamesIn(Ask({}, spec, error.out())), names) << Describe(spec.get()) << error.description();
    }
    store.CheckInvariants();
}

TEST_P(StoreQuery, FieldsChooseWhatIsInARecord)
{
    const std::pair<const char *, Value> whole[] = {
        {"name", Text("six")},
        {"options", Number(static_cast<int64_t>(0x8000000000000006))},
        {"URL", Own(TQURLCreateWithFileSystemPath(store.Generation("six").c_str(), false))},
        {"DisplayName", Text("S\xC3\xA9x")},
        {"info", Spec({{"a", 1}, {"b", "x"}})},
    };
    const std::pair<Value, std::string> rows[] = {
        {Spec({}), "noUDi"},
        {Spec({{"fields", Spec({})}}), "n"},
        {Spec({{"fields", Spec({{"info", true}})}}), "n"}, // nobody asks for it
        {Spec({{"fields", Spec({{"info", "?"}})}}), "n"},
        {Spec({{"fields", Spec({{"ODN", true}})}}), "nDi"}, // both at once
        {Spec({{"fields", Spec({{"ODN", 0.5}, {"info", false}})}}), "nDi"},
        {Spec({{"fields", Spec({{"ODN", 0}, {"info", true}})}}), "n"},
        {Spec({{"fields", Spec({{"URL", 1}, {"options", false}})}}), "nU"},
        {Spec({{"fields", Spec({{"URL", false}, {"options", -1}})}}), "no"},
        {Spec({{"fields", Spec({{"URL", true}, {"options", true}, {"ODN", true}})}}), "noUDi"},
    };
    for (const auto &[spec, keys] : rows) {
        std::vector<std::pair<Value, Value>> record;
        for (const auto &[key, value] : whole)
            if (keys.find(key[0]) != std::string::npos) record.emplace_back(Text(key[0] == 'D' ? "ODN" : key), value);
        const Value one = Ask("six", spec), all = Ask({}, spec);
        EXPECT_TRUE(TQEqual(one.get(), Dictionary(record).get())) << Describe(spec.get()) << Describe(one.get());
        const auto *group = static_cast<const TQArray *>(Entry(all.get(), "com.corvane.nimbusync"));
        EXPECT_TRUE(TQArrayContainsValue(group, one.get())) << Describe(group);
    }
    EXPECT_TRUE(Ask("six", Spec({{"withOptions", "?"}, {"clients", "?"}}))) << "they are for all only";

    // A list of keys reaches the building of records from inside alone.
    const Value chosen = Own(_genInfosCreate({false, false, false, true}, static_cast<TQArray *>(list.get()), "six", 0,
                                             store.Generation("six").c_str(), nullptr));
    EXPECT_TRUE(TQEqual(chosen.get(), Spec({{"name", "six"}, {"info", Spec({{"b", "x"}})}}).get()));
}

TEST_P(StoreQuery, WrongTypesAreRefusedBeforeTheLockIsAskedFor)
{
    // Whoever holds the lock would be waited for, for ever.
    const int lock = open((store.root() + "/.vaultry_lockfile").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    const std::pair<Value, const char *> fields[] = {
        {Spec({{"ODN", "1"}, {"URL", "1"}}), "UserInfos"},
        {Spec({{"ODN", list}, {"URL", "1"}}), "Path"},
        {Spec({{"ODN", list}, {"options", list}}), "Options"},
        {Spec({{"ODN", list}}), "ODN"},
    };
    std::vector<Row> rows;
    for (const auto &[value, what] : fields)
        for (const auto &name : {std::optional<std::string>(), std::optional<std::string>("six")})
            rows.push_back({what, Refused(110, std::string("invalid type for ") + what),
                            Asking(name, Spec({{"fields", value}, {"withOptions", "1"}}))});
    const Value bad[] = {Spec({{"clients", "a"}, {"withoutOptions", "1"}, {"withOptions", list}}),
                         Spec({{"clients", "a"}, {"withoutOptions", "1"}}), Spec({{"clients", "a"}})};
    rows.push_back({"with", Refused(110, "invalid type for spec.withOptions"), Asking({}, bad[0])});
    rows.push_back({"without", Refused(110, "invalid type for spec.withoutOptions"), Asking({}, bad[1])});
    rows.push_back({"clients", Refused(110, "invalid type for spec.clients"), Asking({}, bad[2])});
    ExpectRows(rows, store.path());
    close(lock);
}

TEST_P(StoreQuery, ANameIsNeitherValidatedNorLookedFor)
{
    const Value bare = Spec({{"fields", Spec({})}});
    for (const char *name : {"missing", ".hidden", "six/in", ""})
        EXPECT_TRUE(TQEqual(Ask(name, bare).get(), Spec({{"name", name}}).get())) << name;
    const Value word = Ask("missing", Spec({{"fields", Spec({{"options", true}})}}));
    EXPECT_TRUE(TQEqual(word.get(), Spec({{"name", "missing"}, {"options", 0}}).get()));
    const std::string longest(1023 - store.root().size() - 1, 'n');
    EXPECT_TRUE(Ask(longest, bare));
    ExpectRows({{"its metadata", System(ENOENT, "Failed to get original display name xattr"), Asking("missing")},
                {"too long", Refused(104, "Path to generation is too long"), Asking(longest + "n", bare)}},
               store.path());
}

TEST_P(StoreQuery, AnythingUnreadableFailsTheWholeQuery)
{
    const Value plain = Spec({{"fields", Spec({{"URL", true}})}}),
                array = Own(TQPropertyListCreateData(list.get(), nullptr));
    const auto *data = static_cast<const TQData *>(array.get());
    const struct {
        const char *attribute;
        std::string bytes;
        int32_t status;
    } rows[] = {
        {"info", "bplist00", 101},
        {"info", "not a property list", 101},
        {"info", {static_cast<const char *>(TQDataGetBytes(data)), TQDataGetLength(data)}, 101},
        {"origdisplayname", std::string(768, 'd'), 101},
        {"origdisplayname", std::string(769, 'd'), 109},
        {"origdisplayname", "\xff", 101},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.attribute + row.bytes.substr(0, 20));
        ASSERT_TRUE(store.Add("bad"));
        Plant("bad", row.attribute, row.bytes);
        for (const auto &name : {std::optional<std::string>(), std::optional<std::string>("bad")}) {
            OwnedError error;
            EXPECT_FALSE(Ask(name, {}, error.out()));
            EXPECT_EQ(error.status(), row.status) << error.description();
        }
        EXPECT_EQ(NamesIn(Ask({}, plain)), "bad one two | four six ") << "what nobody asks for is not read";
        EXPECT_TRUE(store.Remove({"bad"}));
    }
    OwnedError none;
    EXPECT_EQ(Entry(Ask("two", {}, none.out()).get(), "ODN"), nullptr);
    EXPECT_EQ(none.get(), nullptr) << "that there is no display name is no failure";

    const Calls opens{{SYS_openat}}; // the lock file, then the root
    const Operation listing = [&](TQError **error) {
        return bool(Own(TQClientManagedStorageCopyGenerationNames(handle, error)));
    };
    ExpectRows({{"quietly", System(EIO, "unable to opendir($/store)", 7), Asking({}), FailCall(2, EIO, opens)},
                {"loudly", System(EIO, "unable to opendir($/store)", 3), listing, FailCall(2, EIO, opens)}},
               store.path());
    store.CheckInvariants();
    ASSERT_TRUE(store.Add("\xff"));
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
    int ended = 1;
    while (waitpid(writer, &ended, WNOHANG) == 0) {
        const auto read = [&] {
            const Value all = Own(TQClientManagedStorageCopyAllGenerationsInfos(store.handle(), nullptr, nullptr));
            const std::string names = all ? NamesIn(all) : "failed";
            EXPECT_TRUE(names == "| " || names == "first | " || names == "first | second ") << names;
            seen += names == "| " ? 0 : 1;
        };
        std::thread other(read);
        read();
        other.join();
    }
    EXPECT_EQ(ended, 0);
    EXPECT_GT(seen, 0);
    store.CheckInvariants();
}

} // namespace
