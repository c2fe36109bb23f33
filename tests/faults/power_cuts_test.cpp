// Power that fails at any moment of an operation, or right after it: what returned true is on disk, to the byte and the
// attribute; what did not is there whole or not at all; and what lies about is named and mended.

#include "support/Tests.h"
#include "support/Volumes.h"

#include <vaultry/vaultry.hpp>

#include <cstdlib>

namespace {

using Document = TestStore::Document;

// The power of the volume at `path` fails and comes back: what had not reached its disk is gone, with or without what its
// journal holds of the last seconds. By the file system's own shutdown; the disk itself loses nothing that it was given,
// so this tells whether everything was handed to it, not whether its cache was emptied. Btrfs has no such call, tmpfs no
// disk. Nobody has anything open there; the device, which would go with its last mount, is kept open meanwhile.
bool CutPower(const std::string &path, bool losesJournal)
{
    const std::string how = losesJournal ? "" : "-f", disk = "disk=$(findmnt -no SOURCE " + path + "); exec 3<$disk; ";
    return Shell("/",
                 disk + "xfs_io -xc 'shutdown " + how + "' " + path + "; umount " + path + "; mount $disk " + path);
}

bool IsAside(const std::string &name)
{
    return name.find("-tmp.nosync.") != std::string::npos;
}

// A store with one generation, the document that it was made of, and on a desk another one that it may replace.
struct Scene {
    Scene(Document kind, const std::string &generation, const std::string &storeVolume, const std::string &volume)
        : store(kind, storeVolume), desk(volume)
    {
        disk::Write(kind == Document::Package ? disk::MakeDirectory(draft) + "/text" : draft, std::string(9999, 'n'));
        disk::SetAttribute(draft, "com.example.kind", "draft");
        draftContents = Snapshot::Of(draft, Snapshot::kContents);
        EXPECT_TRUE(handle.add(generation, store.document()));
        // By which a check finds what a restore put aside.
        EXPECT_TRUE(handle.set_info(generation, vaultry::document_key, vaultry::Data(draft)));
    }

    // All that the user has: generations and documents.
    std::map<std::string, Snapshot> State() const
    {
        std::map<std::string, Snapshot> all = {{"document", Snapshot::Of(store.document())}};
        for (const auto &name : store.List()) all["store/" + name] = Snapshot::Of(store.Generation(name));
        for (const auto &name : disk::List(desk.path()))
            if (!IsAside(name)) all["desk/" + name] = Snapshot::Of(desk / name);
        return all;
    }

    void ExpectLitterIsNamed() const
    {
        std::string named;
        for (const auto &finding : *vaultry::Store::findings(store.root())) named += finding.path.string() + "/";
        auto litter = disk::List(store.Staging());
        for (const auto &name : disk::List(desk.path()))
            if (IsAside(name)) litter.push_back(name);
        for (const auto &name : litter) EXPECT_NE(named.find("/" + name + "/"), std::string::npos) << name;
    }

    // After an operation that did not come to its end, on what may be unprotected.
    void CheckInterrupted(const std::string &unprotected, bool moves, bool across)
    {
        if (disk::Exists(store.Generation("backup"))) {
            EXPECT_TRUE(ContentsOfDocument(store.Generation("backup")) == draftContents);
            EXPECT_TRUE(handle.remove({"backup"}));
        }
        store.CheckInvariants(unprotected, /*killed=*/true);
        for (const auto &finding : *vaultry::Store::findings(store.root()))
            EXPECT_TRUE(finding.kind != "document-aside" || disk::Exists(draft))
                << "it is not back from " << finding.path;
        EXPECT_TRUE(ContentsOfDocument(store.document()) == store.contents() ||
                    (moves && disk::Exists(store.Generation("g"))));
        bool whole = ContentsOfDocument(draft) == draftContents || ContentsOfDocument(draft) == store.contents() ||
                     ContentsOfDocument(desk / "draft.txt") == store.contents();
        // While a copy from another volume is made the draft is aside, and half a copy may be at its path.
        for (const auto &name : disk::List(desk.path()))
            whole |= across && IsAside(name) && ContentsOfDocument(desk / name) == draftContents;
        EXPECT_TRUE(whole);
    }

    TestStore store;
    const vaultry::Store handle = *vaultry::Store::open(store.root());
    const TempDirectory desk;
    const std::string draft = desk / "draft.rtf";
    Snapshot draftContents;
};

const struct Work {
    const char *what, *generation;
    std::string changes; // how the names of the parts begin that it works on
    std::function<vaultry::Result<void>(const Scene &)> run;
    bool across = false; // the store lies on a volume that keeps its power
} kWorks[] = {
    {"add by copying", "old", "new", [](auto &s) { return s.handle.add("g", s.store.document(), 6); }},
    {"add by moving", "old", "document", [](auto &s) { return s.handle.add_by_moving("g", s.store.document(), 6); }},
    {"set options", "old", "store/", [](auto &s) { return s.handle.set_options("old", 6); }},
    {"set info", "old", "store/", [](auto &s) { return s.handle.set_info("old", "k", vaultry::String("v")); }},
    {"set display name", "old", "store/", [](auto &s) { return s.handle.set_display_name("old", "name"); }},
    {"remove", "old", "store/", [](auto &s) { return s.handle.remove({"old"}); }},
    {"restore", "old.rtf", "desk/", [](auto &s) { return s.handle.restore("old.rtf", s.draft); }},
    {"restore as text", "old.txt", "desk/", [](auto &s) { return s.handle.restore("old.txt", s.draft, "backup"); }},
    {"restore across", "old.rtf", "desk/", [](auto &s) { return s.handle.restore("old.rtf", s.draft); }, true},
    {"restore where nothing is", "old", "new", [](auto &s) { return s.handle.restore("old", s.desk / "new"); }},
};

class PowerCuts : public testing::TestWithParam<const char *> {};
INSTANTIATE_TEST_SUITE_P(On, PowerCuts, testing::Values("ext4", "xfs"),
                         [](const auto &each) { return std::string(each.param); });

TEST_P(PowerCuts, WhatReturnedTrueStaysAndNothingIsTorn)
{
    const TestVolume &where = VolumeOfType(GetParam());
    if (where.path.empty()) GTEST_SKIP() << "no " << GetParam() << " volume: " << where.whyNot;
    const int rounds = std::getenv("VAULTRY_LONG") ? 50 : 3; // of each work on each kind
    int cuts = 0, torn = 0, lost = 0, calls = 0;
    for (int i = 0; i < static_cast<int>(std::size(kWorks)) * 2 * rounds && torn + lost < 10; ++i) {
        const Work &work = kWorks[i / rounds / 2];
        const auto kind = i / rounds % 2 == 0 ? Document::File : Document::Package;
        // To its end first, and then killed at calls spread evenly, however many are tried, or a little later.
        const int nth = i % rounds == 0 ? 0 : 1 + calls * (i * 618 % 1000) / 900;
        const bool losesJournal = i % 2 == 0;
        const As who = i / 2 % 2 == 0 ? As::User : As::Root;
        SCOPED_TRACE(testing::Message() << work.what << (kind == Document::File ? ", file, " : ", package, ")
                                        << NameOf(who) << (nth == 0 ? ", ended" : ", killed at call ") << nth
                                        << (losesJournal ? ", journal lost" : ""));
        std::optional<Impersonate> identity(who);
        Scene scene(kind, work.generation, work.across ? "" : where.path, where.path);
        const auto old = scene.State();
        identity.reset();
        // What the library did flushes itself; what the user did has to be there only where it is looked for.
        const bool flushed = nth != 0 || kind == Document::File;
        ASSERT_TRUE(!flushed || Shell(where.path, "sync -f ."));
        identity.emplace(who);
        const Outcome outcome = InChild(KillBefore(nth), [&](TQError **why) {
            const auto result = work.run(scene);
            if (!result) *why = static_cast<TQError *>(TQRetain(result.error().get()));
            return static_cast<bool>(result);
        });
        if (nth == 0) calls = outcome.count;
        EXPECT_TRUE(outcome.succeeded || nth != 0) << outcome.message;
        const auto done = scene.State();
        identity.reset();
        ASSERT_TRUE(CutPower(where.path, losesJournal));
        identity.emplace(who);

        const auto *result = testing::UnitTest::GetInstance()->current_test_info()->result();
        const int before = result->total_part_count();
        const auto found = scene.State();
        EXPECT_TRUE(found.size() == done.size() || !outcome.succeeded);
        for (const auto &[part, snapshot] : outcome.succeeded ? done : old) {
            if (!outcome.succeeded && part.starts_with(work.changes)) continue;
            if (!flushed && !part.starts_with("store/") && !part.starts_with(work.changes)) continue;
            EXPECT_TRUE(found.count(part) && Same(snapshot, found.at(part))) << part;
        }
        scene.ExpectLitterIsNamed();
        if (!outcome.succeeded)
            scene.CheckInterrupted(work.changes == "store/" ? "old" : "g", work.changes == "document", work.across);
        ++cuts;
        (outcome.succeeded ? lost : torn) += result->total_part_count() > before ? 1 : 0;
    }
    std::printf("figures: %d power cuts on %s, %d torn, %d lost after success\n", cuts, GetParam(), torn, lost);
}

} // namespace
