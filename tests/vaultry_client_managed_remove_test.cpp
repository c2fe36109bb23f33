#include "support/Identity.h"
#include "support/Store.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <linux/fs.h>
#include <sys/stat.h>

namespace {

using testing::ElementsAre;

class StoreRemove : public AsEach {
protected:
    Operation Remove(const std::vector<std::string> &names) const
    {
        return [this, names](TQError **error) { return store.Remove(names, error); };
    }
    TestStore store;
};
INSTANTIATE_AS_EACH(StoreRemove);

TEST_P(StoreRemove, TakesWhatIsThereInOrderUpToTheFirstFailure)
{
    EXPECT_THAT(store.List(), testing::IsEmpty());
    for (const char *name : {"a", "b", "c", "d"}) ASSERT_TRUE(store.Add(name));
    const Snapshot before = Snapshot::Of(store.root());
    EXPECT_TRUE(Remove({})(nullptr) && Remove({"none", "neither"})(nullptr));
    EXPECT_TRUE(Same(before, Snapshot::Of(store.root())));
    EXPECT_EQ(disk::SetFlags(store.Generation("a"), FS_IMMUTABLE_FL), store.directory().CanSetImmutable());
    EXPECT_TRUE(Remove({"none", "a"})(nullptr));
    EXPECT_THAT(store.List(), ElementsAre("b", "c", "d"));

    const Says invalid = Refused(105, "The supplied generation name was invalid");
    ExpectRows(
        {{"hidden, after one that goes", invalid, Remove({"b", ".vaultry_staging", "c"})},
         {"two components", invalid, Remove({"c/folder"})},
         {"255 bytes", Refused(105, "The supplied generation name is too long"), Remove({std::string(255, 'n')})}},
        store.path());
    EXPECT_THAT(store.List(), ElementsAre("c", "d"));
    const auto number = Ref<TQSet>::Adopt(TQSetCreateMutable());
    TQValue *const values[] = {number.get()};
    const auto odd = Ref<TQArray>::Adopt(TQArrayCreate(values, 1));
    for (const TQArray *names : {static_cast<const TQArray *>(odd.get()), static_cast<const TQArray *>(nullptr)})
        EXPECT_EQ(InChild([&](TQError **e) {
                      return TQClientManagedStorageRemoveGenerations(store.handle(), names, e);
                  }).status,
                  105);

    if (store.directory().CanSetImmutable()) {
        // The append-only flag is left alone, and then stops the rename.
        ASSERT_TRUE(disk::SetFlags(store.Generation("c"), FS_APPEND_FL));
        ExpectRows({{"append-only", System(EPERM, "failed to make directory writable prior to moving; path: $/store/c"),
                     Remove({"c"})}},
                   store.path());
        disk::SetFlags(store.Generation("c"), 0);
    }
    store.CheckInvariants();
}

TEST_P(StoreRemove, ListsWhateverStandsInTheRoot)
{
    ASSERT_TRUE(store.Add("g"));
    chmod(store.root().c_str(), 0755);
    disk::Write(store.Generation("stray"), "");
    disk::Write(store.Generation(".hidden"), "");
    EXPECT_THAT(store.List(), ElementsAre("g", "stray"));
    const auto list = [&](TQError **error) {
        return static_cast<bool>(Ref<TQArray>::Adopt(TQClientManagedStorageCopyGenerationNames(store.handle(), error)));
    };
    disk::Write(store.Generation("\xff"), "");
    const Outcome outcome = InChild(list);
    EXPECT_FALSE(outcome.succeeded);
    EXPECT_FALSE(outcome.hasError) << "no text can hold that name";
    unlink(store.Generation("\xff").c_str());
    EXPECT_TRUE(Remove({"stray"})(nullptr));
    EXPECT_EQ(disk::Mode(store.root()), 0555U);
    if (GetParam() == As::Root) return;
    chmod(store.root().c_str(), 0311);
    ExpectRows({{"unreadable", System(EACCES, "unable to opendir($/store)"), list}}, store.path());
}

} // namespace
