#include "support/Store.h"

#include "Shared/vaultry_storage.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vaultry/vaultry.hpp>

static Snapshot ContentsWithout(const char *part, const std::string &path)
{
    Snapshot contents = Snapshot::Of(path, Snapshot::kContents);
    std::erase_if(contents.items, [part](const auto &item) { return item.first.find(part) != std::string::npos; });
    return contents;
}

// The contents that a generation keeps: all except "._" files.
static Snapshot Contents(const std::string &path)
{
    return ContentsWithout("/._", path);
}

Snapshot ContentsOfDocument(const std::string &path)
{
    return ContentsWithout("_", path);
}

static void ExpectProtected(const std::string &path)
{
    if (std::filesystem::is_symlink(path)) return;
    SCOPED_TRACE(path);
    EXPECT_EQ(disk::Mode(path) & 0222U, 0U);
    EXPECT_EQ(disk::Attribute(path, kSavedPermissionsAttribute).value_or("").size(), 1U);
    for (const auto &name : disk::List(path))
        if (name.rfind("._", 0) != 0) ExpectProtected(path + "/" + name);
}

TestStore::TestStore(Document kind, const std::string &volume)
    : directory_(volume), root_(disk::MakeDirectory(directory_ / "store")), document_(directory_ / "document")
{
    if (kind == Document::Package) {
        disk::MakePackage(document_);
    } else if (kind == Document::File) {
        disk::Write(document_, "the document");
    } else {
        disk::MakeDirectory(document_);
        disk::MakeDirectory(document_ + "/folder", 0775);
        disk::Write(document_ + "/folder/leaf", "in the folder", 0664);
        if (link((document_ + "/folder/leaf").c_str(), (document_ + "/twin").c_str()) != 0) abort();
        disk::SetAttribute(document_, "com.example.kind", "folder");
    }
    RememberDocument();
    OwnedError error;
    handle_ = TQClientManagedStorageCreate(root_.c_str(), error.out());
    EXPECT_NE(handle_, nullptr) << error.description();
}

void TestStore::Remember(const std::string &document, const std::string &name)
{
    contents_[name] = Contents(document);
}

bool TestStore::Add(const std::string &name, TQError **error, bool copy, uint64_t options) const
{
    return TQClientManagedStorageAdd(handle_, name.c_str(), document_.c_str(), options, error, copy);
}

bool TestStore::CopyOut(const std::string &name, const std::string &destination, TQError **error) const
{
    return TQClientManagedStorageCopyGeneration(handle_, name.c_str(), destination.c_str(), error);
}

bool TestStore::Remove(const std::vector<std::string> &names, TQError **error) const
{
    return TQClientManagedStorageRemoveGenerations(handle_, Names(names).get(), error);
}

std::vector<std::string> TestStore::List() const
{
    return Texts(Ref<TQArray>::Adopt(TQClientManagedStorageCopyGenerationNames(handle_, nullptr)).get());
}

void TestStore::CheckInvariants(const std::string &lifted, bool killed, const std::string &stays)
{
    for (const auto &name : List()) {
        SCOPED_TRACE("generation " + name);
        const std::string generation = Generation(name);
        EXPECT_TRUE(Same(contents_[contents_.count(name) ? name : ""], Contents(generation)));
        if (name != lifted) ExpectProtected(generation);
    }
    if (!killed) {
        EXPECT_EQ(disk::Mode(root_) & 0222U, 0U);
        EXPECT_THAT(disk::List(Staging()), testing::IsEmpty());
    }
    const int lock = open((root_ + "/.vaultry_lockfile").c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(flock(lock, LOCK_EX | LOCK_NB), 0) << "the lock is held";
    close(lock);

    const std::string probe = disk::Write(directory_ / "probe", "next");
    OwnedError error;
    EXPECT_TRUE(TQClientManagedStorageAdd(handle_, "probe", probe.c_str(), 0, error.out(), true))
        << error.description();
    EXPECT_TRUE(CopyOut("probe", directory_ / "probe out", error.out())) << error.description();
    EXPECT_EQ(disk::Read(directory_ / "probe out"), "next");
    EXPECT_TRUE(Remove({"probe"}, error.out())) << error.description();
    EXPECT_FALSE(disk::Exists(Generation("probe")));
    EXPECT_EQ(disk::Mode(root_) & 0222U, 0U);
    unlink(probe.c_str());
    unlink((directory_ / "probe out").c_str());
    if (!killed) return;
    EXPECT_TRUE(vaultry::Store::findings(root_, /*repair=*/true));
    for (const auto &[path, kind, meaning, mended, home, host] : *vaultry::Store::findings(root_)) {
        const bool isClients =
            disk::Read(path.string() + "/.vaultry_owner").find("\nwork copy-out\n") != std::string::npos;
        EXPECT_TRUE((kind == "staging-recent" && isClients) || kind == stays) << path << " is not mended: " << kind;
    }
}
