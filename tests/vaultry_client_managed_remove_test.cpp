#include "support/Tests.h"

namespace {

using testing::ElementsAre;

struct StoreRemove : InStore {
    Operation Remove(const std::vector<std::string> &names) const
    {
        return [this, names](TQError **error) { return store.Remove(names, error); };
    }
};
INSTANTIATE_AS_EACH(StoreRemove);

TEST_P(StoreRemove, TakesWhatIsThereInOrderUpToTheFirstFailure)
{
    for (const char *name : {"a", "b", "c", "d"}) ASSERT_TRUE(store.Add(name));
    const Snapshot before = Snapshot::Of(store.root());
    EXPECT_TRUE(store.Remove({}) && store.Remove({"none", "neither"}));
    EXPECT_TRUE(Same(before, Snapshot::Of(store.root())));
    EXPECT_EQ(disk::SetFlags(store.Generation("a"), FS_IMMUTABLE_FL), canFlag);
    EXPECT_TRUE(store.Remove({"none", "a"}));
    const Says invalid = Refused(105, "The supplied generation name was invalid");
    Expect({{invalid, Remove({"b", ".vaultry_staging", "c"})},
            {Refused(105, "The supplied generation name is too long"), Remove({std::string(255, 'n')})}});
    EXPECT_EQ(InChild(CALL(TQClientManagedStorageRemoveGenerations(handle, nullptr, why))).status, 105);
    EXPECT_THAT(store.List(), ElementsAre("c", "d")) << "those before the failure";
    store.CheckInvariants();
}

TEST_P(StoreRemove, ListsWhateverStandsInTheRoot)
{
    ASSERT_TRUE(store.Add("g"));
    chmod(store.root().c_str(), 0755);
    for (const char *name : {"stray", ".hidden"}) disk::Write(store.Generation(name), "");
    EXPECT_THAT(store.List(), ElementsAre("g", "stray"));
    const Operation list = CALL(TQClientManagedStorageCopyGenerationNames(handle, why));
    const std::string odd = disk::Write(store.Generation("\xff"), "");
    Expect({{Failed(101, "Failed to create string from file system name \"?\""), list}});
    EXPECT_TRUE(unlink(odd.c_str()) == 0 && store.Remove({"stray"}));
    EXPECT_EQ(disk::Mode(store.root()), 0555U);
}

} // namespace
