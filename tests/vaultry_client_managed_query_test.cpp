#include "vaultry_client_managed_query.h"

#include "Runtime/Values.h"
#include "support/Tests.h"

#include <atomic>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>

namespace {

// Whether the description tells of the first and of the second.
std::string NamesIn(const Value &result)
{
    std::string all;
    for (const char *name : {"first", "second"})
        if (Describe(result.get()).find(std::string("\"name\": \"") + name) != std::string::npos)
            all += (all.empty() ? "" : " ") + std::string(name);
    return all;
}

struct StoreQuery : InStore {};
INSTANTIATE_AS_EACH(StoreQuery);

// A list of keys reaches the building of records from inside alone.
TEST_P(StoreQuery, OfAListOfKeysARecordHoldsThoseThatAreThere)
{
    ASSERT_TRUE(store.Add("g"));
    for (const char *key : {"a", "b"})
        ASSERT_TRUE(TQSetInfoValue(store.Generation("g").c_str(), String(key).get(), String("x").get(), nullptr));
    const Value keys = Array({Text("b"), Text("absent"), Number(4)});
    const Value record =
        Own(_genInfosCreate({false, false, false, true}, Cast{keys}, "g", 0, store.Generation("g").c_str(), nullptr));
    EXPECT_EQ(Describe(record.get()), "{\"name\": \"g\", \"info\": {\"b\": \"x\"}}");
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
        EXPECT_TRUE(names.empty() || names == "first" || names == "first second") << names;
        seen += names.empty() ? 0 : 1;
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
