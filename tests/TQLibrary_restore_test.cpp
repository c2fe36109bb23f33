#include "support/Tests.h"
#include "support/Volumes.h"

#include <regex>
#include <sys/mount.h>

namespace {

TEST(Restore, PassesOverAVolumeWithoutFlags)
{
    TestStore store(TestStore::Document::File);
    EXPECT_TRUE(store.Add("g"));
    const auto library =
        Ref<TQLibrary>::Adopt(TQLibraryCreateClientManaged(nullptr, FileURL(store.root()).get(), nullptr));
    for (int nth = 1;; ++nth) {
        disk::SetFlags(store.document(), FS_NODUMP_FL);
        const Outcome outcome =
            InChild(FailCall(nth, ENOTSUP, kFlags),
                    CALL(TQLibraryRestoreGeneration(library.get(), String("g").get(), FileURL(store.document()).get(),
                                                    nullptr, why)));
        EXPECT_TRUE(outcome.succeeded) << outcome.message;
        if (!outcome.faultFired) break;
    }
}

class RestoreAcrossVolumes : public OnEachVolume {};
INSTANTIATE_ON_EACH_VOLUME(RestoreAcrossVolumes);

TEST_P(RestoreAcrossVolumes, APackageIsCopiedWithAllItHas)
{
    const TempDirectory home;
    const std::string here = directory().path(), bound = disk::MakeDirectory(directory() / "bound"),
                      part = directory() / "part";
    // What a rename won't cross although it is the same file system.
    const auto bind = [&] {
        return mount(bound.c_str(), disk::MakeDirectory(part).c_str(), nullptr, MS_BIND, nullptr);
    };
    ASSERT_EQ(Is("btrfs") ? system(("btrfs -q subvolume create " + part).c_str()) : bind(), 0);
    for (const auto &[storeVolume, documentVolume] :
         {std::pair(here, home.path()), {home.path(), here}, {here, part}}) {
        TestStore store(TestStore::Document::Package, storeVolume);
        const TempDirectory documents(documentVolume);
        EXPECT_TRUE(store.Add("p.new"));
        const std::string document = disk::MakeDirectory(documents / "p.old", disk::Mode(store.document()));
        disk::Write(document + "/in", "old");
        const auto library =
            Ref<TQLibrary>::Adopt(TQLibraryCreateClientManaged(nullptr, FileURL(store.root()).get(), nullptr));
        const Outcome outcome = InChild(CALL(TQLibraryRestoreGeneration(
            library.get(), String("p.new").get(), FileURL(document).get(), String("backup").get(), why)));
        EXPECT_TRUE(outcome.succeeded) << outcome.message;
        EXPECT_TRUE(Same(Snapshot::Of(store.document()), Snapshot::Of(documents / "p.new")));
        EXPECT_THAT(disk::List(documents.path()), testing::ElementsAre("p.new"));
        EXPECT_EQ(disk::Read(store.Generation("backup/in")), "old");
        EXPECT_TRUE(store.Remove({"backup"}));
        store.CheckInvariants();
        // The birth time goes to the document's path, where nothing is any more.
        EXPECT_TRUE(std::any_of(outcome.log.begin(), outcome.log.end(), [](const LogLine &line) {
            return line.level == 7 &&
                   std::regex_search(line.text, std::regex("setmetavec failed \\(errno \\d+\\) for .*/p.old "));
        }));
    }
    if (!Is("btrfs")) umount(part.c_str());
}

} // namespace
