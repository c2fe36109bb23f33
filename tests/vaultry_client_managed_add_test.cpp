#include "support/Tests.h"
#include "vaultry_client_managed.h"

namespace {

struct StoreAdd : InStore {};
INSTANTIATE_AS_EACH(StoreAdd);

TEST_P(StoreAdd, ADocumentThatChangesMeanwhileIsKeptWholeOrNotAtAll)
{
    const std::string tree = disk::MakeDirectory(store / "changing");
    for (const char *name : {"/a", "/z"}) disk::Write(tree + name, "good");
    const auto vanish = [](TQProgress *, void *where) {
        for (const char *name : {"/a", "/z"}) unlink((*static_cast<const std::string *>(where) + name).c_str());
    };
    const auto progress = Ref<TQProgress>::Adopt(TQProgressCreate(1));
    TQProgressSetObserver(progress.get(), vanish, const_cast<std::string *>(&tree));
    TQProgressBecomeCurrent(progress.get());
    OwnedError error;
    const bool added = TQClientManagedStorageAdd(handle, "g", tree.c_str(), 0, error.out(), /*copy=*/true);
    TQProgressResignCurrent(progress.get());
    EXPECT_EQ(added, disk::Exists(store.Generation("g"))) << error.description();
    EXPECT_EQ(error.status(), added ? 0 : 104) << error.description();
    EXPECT_TRUE(store.Remove({"g"}));
    store.CheckInvariants();
}

TEST_P(StoreAdd, StagingPathsAreBoundedAndStayInStaging)
{
    PathBuffer path;
    const auto unique = [&](const std::string &root) {
        return CALL(_GetUniqueStagingPath(root.c_str(), path, why))(nullptr);
    };
    const std::string root = store.root(), deep = disk::MakeDirectoryOfLength(store.path(), 993);
    disk::MakeDirectory(deep + "/.vaultry_staging");
    EXPECT_FALSE(unique("/" + std::string(998, 'd')) || unique(deep) || unique(store / "none"));
    EXPECT_THAT(disk::List(deep + "/.vaultry_staging"), testing::IsEmpty());
    for (const bool whole : {true, false}) {
        ASSERT_TRUE(unique(root));
        const std::string directory(path.c_str(), store.Staging().size() + 8), staged = directory + "/staged";
        EXPECT_EQ(path.c_str(), staged);
        EXPECT_TRUE(disk::Mode(directory) == 0700 && disk::List(directory).empty());
        disk::MakeDirectory(staged, 0500);
        EXPECT_TRUE(_RemoveStagingPath(root.c_str(), (whole ? staged : directory).c_str(), nullptr));
        EXPECT_FALSE(disk::Exists(directory));
    }
    for (const char *name : {"", "missing"}) {
        EXPECT_TRUE(_GetPathToGeneration(root.c_str(), name, /*mustExist=*/false, path, nullptr));
        EXPECT_EQ(path.c_str(), root + "/" + name);
    }
}

} // namespace
