#include "vaultry_client_managed_query.h"

#include "Runtime/Values.h"
#include "support/Identity.h"
#include "support/Store.h"

#include <vaultry/plist.h>

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr char kOptionsName[] = "com.corvane.vaultry.gen_options", kInfoName[] = "com.corvane.vaultry.info",
               kDisplayName[] = "com.corvane.vaultry.origdisplayname";

TQDictionary *AsDictionary(const Value &value)
{
    return static_cast<TQDictionary *>(value.get());
}

Value Entries(const std::vector<std::pair<const char *, Value>> &entries)
{
    std::vector<std::pair<Value, Value>> pairs;
    for (const auto &[key, value] : entries) pairs.emplace_back(Text(key), value);
    return Dictionary(pairs);
}

const TQValue *Entry(const TQValue *dictionary, const char *key)
{
    return TQDictionaryGetValue(static_cast<const TQDictionary *>(dictionary), Text(key).get());
}

// The names of records, group by group: "a b | c".
std::string NamesIn(const Value &result)
{
    std::string all;
    for (const char *group : {"com.corvane.draftline", "com.corvane.nimbusync"}) {
        std::vector<std::string> names;
        const auto *records = static_cast<const TQArray *>(Entry(result.get(), group));
        for (size_t i = 0; i < TQArrayGetCount(records); ++i)
            names.push_back(Text(static_cast<const TQString *>(Entry(TQArrayGetValueAtIndex(records, i), "name"))));
        std::sort(names.begin(), names.end());
        for (const auto &name : names) all += name + " ";
        if (group[12] == 'd') all += "| ";
        EXPECT_EQ(records == nullptr, names.empty()) << "a group without records is left out";
    }
    return all.substr(0, all.find_last_not_of(' ') + 1);
}

class StoreQuery : public AsEach {
protected:
    StoreQuery()
    {
        for (const auto &[name, options] : std::initializer_list<std::pair<const char *, uint64_t>>{
                 {"one", 0}, {"two", 2}, {"four", 4}, {"six", 0x8000000000000006}})
            EXPECT_TRUE(store.Add(name, nullptr, true, options));
        // Words that no setter stores.
        for (const char *name : {"none", "high"}) {
            EXPECT_TRUE(store.Add(name));
            Plant(name, kOptionsName, std::string(name[0] == 'n' ? "\0" : "\x20", 1) + std::string(7, '\0'));
        }
        TQClientManagedStorageSetGenerationInfoValueForKey(store.handle(), "six", String("a").get(), Number(1).get(),
                                                           nullptr);
        TQClientManagedStorageSetGenerationInfoValueForKey(store.handle(), "six", String("b").get(), Text("x").get(),
                                                           nullptr);
        TQClientManagedStorageSetGenerationOriginalDisplayName(store.handle(), "six", String("S\xC3\xA9x").get(),
                                                               nullptr);
    }
    void Plant(const char *name, const char *attribute, std::string_view bytes) const
    {
        const std::string path = store.Generation(name);
        chmod(path.c_str(), 0644);
        disk::SetAttribute(path, attribute, bytes);
        chmod(path.c_str(), 0444);
    }
    Value One(const std::string &name, const Value &spec, TQError **error = nullptr) const
    {
        return Own(
            TQClientManagedStorageCopyGenerationInfos(store.handle(), String(name).get(), AsDictionary(spec), error));
    }
    Value All(const Value &spec, TQError **error = nullptr) const
    {
        return Own(TQClientManagedStorageCopyAllGenerationsInfos(store.handle(), AsDictionary(spec), error));
    }
    Operation OneOf(const std::string &name, const Value &spec) const
    {
        return [this, name, spec](TQError **error) { return static_cast<bool>(One(name, spec, error)); };
    }
    Operation AllOf(const Value &spec) const
    {
        return [this, spec](TQError **error) { return static_cast<bool>(All(spec, error)); };
    }

    TestStore store{TestStore::Document::File};
    const Value no = Text("true"); // a string is no number, whatever it says
};
INSTANTIATE_AS_EACH(StoreQuery);

TEST_P(StoreQuery, MasksAndClientsChooseTheGenerations)
{
    const Value draftline = Text("com.corvane.draftline"), nimbusync = Text("com.corvane.nimbusync");
    const struct {
        Value spec;
        const char *names;
    } rows[] = {
        {Value(), "one two | four six"}, // 31 leaves out a word of 0, and one with high bits alone
        {Entries({}), "one two | four six"},
        {Entries({{"unknown", no}}), "one two | four six"},
        {Entries({{"withOptions", Number(0)}}), "high none one two | four six"},
        {Entries({{"withOptions", Number(-1)}}), "high one two | four six"},
        {Entries({{"withOptions", Number(2)}}), "two | six"},
        {Entries({{"withOptions", Number(2.0)}}), "two | six"},
        {Entries({{"withOptions", Number(INT64_MIN)}}), "| six"},
        {Entries({{"withOptions", Truth(true)}}), "one |"},
        {Entries({{"withOptions", Truth(false)}}), "high none one two | four six"},
        {Entries({{"withoutOptions", Number(0)}}), "one two | four six"},
        {Entries({{"withoutOptions", Number(2)}}), "one | four"},
        {Entries({{"withoutOptions", Truth(true)}}), "two | four six"},
        {Entries({{"withoutOptions", Number(4)}, {"withOptions", Number(0)}}), "high none one two |"},
        {Entries({{"withoutOptions", Number(4)}, {"withOptions", Number(6)}}), "two |"},
        {Entries({{"withoutOptions", Number(-1)}, {"withOptions", Number(0)}}), "none |"},
        {Entries({{"clients", Array({draftline})}}), "one two |"},
        {Entries({{"clients", Array({Text("another"), Number(7), nimbusync})}}), "| four six"},
        {Entries({{"clients", Array({nimbusync, draftline})}}), "one two | four six"},
        {Entries({{"clients", Array({})}}), "|"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(Describe(row.spec.get()));
        OwnedError error;
        const Value result = All(row.spec, error.out());
        ASSERT_TRUE(result) << error.description();
        EXPECT_EQ(NamesIn(result), row.names);
    }
    store.CheckInvariants();
}

TEST_P(StoreQuery, FieldsChooseWhatIsInARecord)
{
    const Value name = Text("six"), options = Number(static_cast<int64_t>(0x8000000000000006)),
                url = Own(TQURLCreateWithFileSystemPath(store.Generation("six").c_str(), false)),
                displayName = Text("S\xC3\xA9x"), info = Entries({{"a", Number(1)}, {"b", Text("x")}});
    const auto record = [&](const std::string &keys) {
        std::vector<std::pair<const char *, Value>> entries = {{"name", name}};
        if (keys.find('o') != std::string::npos) entries.emplace_back("options", options);
        if (keys.find('u') != std::string::npos) entries.emplace_back("URL", url);
        if (keys.find('d') != std::string::npos) entries.emplace_back("ODN", displayName);
        if (keys.find('i') != std::string::npos) entries.emplace_back("info", info);
        return Entries(entries);
    };
    const Value t = Truth(true), f = Truth(false);
    const std::pair<Value, const char *> rows[] = {
        {Value(), "oudi"},
        {Entries({}), ""},
        {Entries({{"info", t}}), ""}, // nobody asks for it
        {Entries({{"info", no}}), ""},
        {Entries({{"ODN", t}}), "di"}, // both at once
        {Entries({{"ODN", Number(0.5)}, {"info", f}}), "di"},
        {Entries({{"ODN", Number(0)}, {"info", t}}), ""},
        {Entries({{"URL", t}, {"options", f}}), "u"},
        {Entries({{"options", Number(-1)}, {"ODN", f}}), "o"},
        {Entries({{"URL", t}, {"options", t}, {"ODN", t}}), "oudi"},
    };
    for (const auto &[fields, keys] : rows) {
        SCOPED_TRACE(Describe(fields.get()));
        const Value spec = fields ? Entries({{"fields", fields}, {"withoutOptions", Number(-1)}}) : Value();
        const Value one = One("six", spec);
        EXPECT_TRUE(TQEqual(one.get(), record(keys).get())) << Describe(one.get());
        // Among all of them it is the same record; masks are for all of them only.
        const Value top = Number(INT64_MIN);
        const Value all =
            All(fields ? Entries({{"withOptions", top}, {"fields", fields}}) : Entries({{"withOptions", top}}));
        const Value wanted = Entries({{"com.corvane.nimbusync", Array({record(keys)})}});
        EXPECT_TRUE(TQEqual(all.get(), wanted.get())) << Describe(all.get());
    }

    // A list of keys reaches the building of records from inside alone.
    const Value keys = Array({Text("b"), Text("absent"), Number(4)});
    const Value chosen = Own(_genInfosCreate({false, false, false, true}, static_cast<TQArray *>(keys.get()), "six", 0,
                                             store.Generation("six").c_str(), nullptr));
    EXPECT_EQ(Describe(Entry(chosen.get(), "info")), Describe(Entries({{"b", Text("x")}}).get()));
}

TEST_P(StoreQuery, WrongTypesAreRefusedBeforeTheLockIsAskedFor)
{
    // Whoever holds the lock would be waited for, for ever.
    const int lock = open((store.root() + "/.vaultry_lockfile").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    const Value list = Array({Text("a")});
    const struct {
        Value fields;
        const char *says;
    } rows[] = {
        {Entries({{"ODN", no}, {"URL", no}, {"options", no}}), "invalid type for UserInfos"},
        {Entries({{"ODN", Bytes("1")}}), "invalid type for UserInfos"},
        {Entries({{"ODN", list}, {"URL", no}, {"options", no}}), "invalid type for Path"},
        {Entries({{"ODN", list}, {"URL", Truth(true)}, {"options", list}}), "invalid type for Options"},
        {Entries({{"ODN", list}}), "invalid type for ODN"}, // a list passes the first test and fails the second
    };
    for (const auto &row : rows) {
        const Value spec = Entries({{"fields", row.fields}, {"withOptions", no}, {"clients", no}});
        ExpectRows({{"one", Refused(110, row.says), OneOf("six", spec)}, {"all", Refused(110, row.says), AllOf(spec)}},
                   store.path());
    }
    ExpectRows({{"with", Refused(110, "invalid type for spec.withOptions"),
                 AllOf(Entries({{"clients", no}, {"withoutOptions", no}, {"withOptions", list}}))},
                {"without", Refused(110, "invalid type for spec.withoutOptions"),
                 AllOf(Entries({{"clients", no}, {"withoutOptions", no}}))},
                {"clients", Refused(110, "invalid type for spec.clients"), AllOf(Entries({{"clients", no}}))},
                {"no name", Refused(105, "The supplied generation name was invalid"),
                 [&](TQError **error) {
                     return TQClientManagedStorageCopyGenerationInfos(store.handle(), nullptr, nullptr, error) !=
                            nullptr;
                 }}},
               store.path());
    close(lock);
    EXPECT_TRUE(One("six", Entries({{"withOptions", no}, {"clients", no}}))) << "they are not for one record";
}

TEST_P(StoreQuery, ANameIsNeitherValidatedNorLookedFor)
{
    const Value bare = Entries({{"fields", Entries({})}});
    for (const char *name : {"missing", ".hidden", "six/in", ""}) {
        OwnedError error;
        EXPECT_TRUE(TQEqual(One(name, bare, error.out()).get(), Entries({{"name", Text(name)}}).get())) << name;
        EXPECT_EQ(error.get(), nullptr);
    }
    const Value word = One("missing", Entries({{"fields", Entries({{"options", Truth(true)}})}}));
    EXPECT_EQ(TQNumberGetInt64(Entry(word.get(), "options")), 0);
    const std::string longest(1023 - store.root().size() - 1, 'n');
    EXPECT_TRUE(One(longest, bare));
    ExpectRows({{"its metadata", System(ENOENT, "Failed to get original display name xattr"), OneOf("missing", {})},
                {"too long", Refused(104, "Path to generation is too long"), OneOf(longest + "n", bare)}},
               store.path());
}

TEST_P(StoreQuery, AnythingUnreadableFailsTheWholeQuery)
{
    const Value plain = Entries({{"fields", Entries({{"URL", Truth(true)}})}});
    const Value number = Own(TQPropertyListCreateData(Array({Number(1)}).get(), nullptr));
    const auto *array = static_cast<const TQData *>(number.get());
    const std::string arrayBytes(static_cast<const char *>(TQDataGetBytes(array)), TQDataGetLength(array));
    const struct {
        const char *attribute;
        std::string bytes;
        int32_t status;
    } rows[] = {
        {kInfoName, "bplist00", 101},
        {kInfoName, "not a property list", 101},
        {kInfoName, arrayBytes, 101},
        {kDisplayName, std::string(768, 'd'), 101},
        {kDisplayName, std::string(769, 'd'), 109},
        {kDisplayName, "\xff", 101},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.attribute + row.bytes.substr(0, 20));
        ASSERT_TRUE(store.Add("bad"));
        Plant("bad", row.attribute, row.bytes);
        for (const bool all : {true, false}) {
            OwnedError error;
            EXPECT_FALSE(all ? All({}, error.out()) : One("bad", {}, error.out()));
            EXPECT_EQ(error.status(), row.status) << error.description();
        }
        EXPECT_EQ(NamesIn(All(plain)), "bad one two | four six") << "what nobody asks for is not read";
        EXPECT_TRUE(store.Remove({"bad"}));
    }
    OwnedError none;
    const Value record = One("two", {}, none.out());
    EXPECT_TRUE(record && Entry(record.get(), "ODN") == nullptr && none.get() == nullptr) << none.description();

    // What the listing reports loudly, a query says quietly.
    ExpectRows(
        {{"query", System(EIO, "unable to opendir($/store)", 7), AllOf({}), FailCall(2, EIO, kOpen)},
         {"listing", System(EIO, "unable to opendir($/store)", 3),
          [&](TQError **error) { return TQClientManagedStorageCopyGenerationNames(store.handle(), error) != nullptr; },
          FailCall(2, EIO, kOpen)}},
        store.path());
    store.CheckInvariants();
    ASSERT_TRUE(store.Add("\xff"));
    EXPECT_FALSE(All(plain)) << "no string can hold its name";
    store.Remove({"\xff"});
}

// Two generations go in one removal: whoever sees one of them without the other saw half of it.
TEST(StoreQueryConcurrency, AQueryConcurrentWithAddsAndRemovalsSeesOneMoment)
{
    TestStore store(TestStore::Document::File);
    const pid_t writer = fork();
    if (writer == 0) {
        bool good = true;
        for (int i = 0; i < 40; ++i)
            good = good && store.Add("first", nullptr, true, 2) && store.Add("second", nullptr, true, 6) &&
                   TQClientManagedStorageRemoveGenerations(
                       store.handle(), static_cast<TQArray *>(Array({Text("first"), Text("second")}).get()), nullptr);
        _exit(good ? 0 : 1);
    }
    std::atomic<bool> done = false;
    std::atomic<int> moments = 0;
    const auto read = [&] {
        while (!done) {
            OwnedError error;
            const Value all = Own(TQClientManagedStorageCopyAllGenerationsInfos(store.handle(), nullptr, error.out()));
            ASSERT_TRUE(all) << error.description();
            const std::string names = NamesIn(all);
            EXPECT_TRUE(names == "|" || names == "first |" || names == "first | second") << names;
            moments += names == "|" ? 0 : 1;
        }
    };
    std::thread readers[] = {std::thread(read), std::thread(read)};
    int ended = 1;
    waitpid(writer, &ended, 0);
    done = true;
    for (auto &reader : readers) reader.join();
    EXPECT_EQ(ended, 0);
    EXPECT_GT(moments, 0);
    store.CheckInvariants();
}

} // namespace
