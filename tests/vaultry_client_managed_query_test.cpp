#include "vaultry_client_managed_query.h"

#include "Runtime/Values.h"
#include "support/Tests.h"

namespace {

struct StoreQuery : InStore {};
INSTANTIATE_AS_EACH(StoreQuery);

// Only code inside the library can build records with a list of keys.
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

} // namespace
