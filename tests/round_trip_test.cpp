// A document package into a store and out again, on every type of volume and as everybody: nothing is lost on the way.

#include "support/Identity.h"
#include "support/Store.h"
#include "support/Volumes.h"

#include <gmock/gmock.h>

namespace {

using testing::Combine;
using testing::Values;

class RoundTrip : public testing::TestWithParam<std::tuple<const char *, As>> {};
INSTANTIATE_TEST_SUITE_P(On, RoundTrip,
                         Combine(Values("ext4", "xfs", "btrfs", "tmpfs"), Values(As::Root, As::User, As::Capable)),
                         [](const auto &each) { return std::get<0>(each.param) + NameOf(std::get<1>(each.param)); });

TEST_P(RoundTrip, OfADocumentPackageByCopyingAndByMoving)
{
    const auto &[type, who] = GetParam();
    const TestVolume &volume = VolumeOfType(type);
    if (volume.path.empty()) GTEST_SKIP() << "no " << type << " volume: " << volume.whyNot;
    if (!CanBe(who)) GTEST_SKIP() << "this process can't be " << NameOf(who);
    const Impersonate identity(who);
    TestStore store(TestStore::Document::Package, volume.path);
    constexpr unsigned everything = Snapshot::kWhole | Snapshot::kHoles;
    const Snapshot document = Snapshot::Of(store.document(), everything);
    OwnedError error;
    ASSERT_TRUE(store.Add("copied", error.out())) << error.description();
    EXPECT_TRUE(Same(document, Snapshot::Of(store.document(), everything)));
    ASSERT_TRUE(store.Add("moved", error.out(), /*copy=*/false)) << error.description();
    for (const char *name : {"copied", "moved"}) {
        SCOPED_TRACE(name);
        const std::string out = store / name;
        EXPECT_TRUE(store.CopyOut(name, out, error.out())) << error.description();
        Snapshot wanted = document;
        // Breaking a hard link in place makes and removes a file beside it.
        if (name[0] == 'm') wanted.items["/Data"] = Snapshot::Of(out, everything).items["/Data"];
        EXPECT_TRUE(Same(wanted, Snapshot::Of(out, everything)));
    }
    store.CheckInvariants();
}

} // namespace
