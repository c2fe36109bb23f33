// Power that fails at any moment of an operation, or right after it: what returned true is on disk, to the byte and the
// attribute; what did not is there whole or not at all; and what lies about is named and mended.

#include "support/PowerCut.h"
#include "support/Tests.h"

#include <vaultry/vaultry.hpp>

#include <cmath>
#include <cstdlib>
#include <set>

namespace {

using Document = TestStore::Document;
using Journal = PoweredVolume::Journal;

// What a restore makes beside the document.
bool IsLitter(const std::string &name)
{
    return name.find(".nosync.") != std::string::npos;
}

bool Holds(const std::string &path, const Snapshot &contents)
{
    Snapshot found = Snapshot::Of(path, Snapshot::kContents);
    // A copy that was to take the place of a hard link may lie beside it.
    std::erase_if(found.items, [](const auto &item) { return item.first.find('_') != std::string::npos; });
    return found == contents;
}

// A store with one generation, the document that it was made of, and on a desk another one that it may replace.
struct Scene {
    Scene(Document kind, const std::string &generation, const std::string &storeVolume, const std::string &volume)
        : store(kind, storeVolume), desk(volume), draft(desk / "draft.rtf")
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
            if (!IsLitter(name)) all["desk/" + name] = Snapshot::Of(desk / name);
        return all;
    }

    void ExpectLitterIsNamed() const
    {
        std::set<std::string> named;
        for (const auto &finding : *vaultry::Store::findings(store.root())) named.insert(finding.path);
        for (const auto &name : disk::List(store.Staging()))
            EXPECT_TRUE(named.count(store.Staging() + "/" + name) ||
                        named.count(store.Staging() + "/" + name + "/staged"));
        for (const auto &name : disk::List(desk.path()))
            EXPECT_TRUE(!IsLitter(name) || named.count(desk / name)) << name;
    }

    // What is so after an operation that did not come to its end, and was to change `changed`.
    void CheckInterrupted(const std::string &changed, bool moves)
    {
        if (disk::Exists(store.Generation("backup"))) {
            EXPECT_TRUE(Holds(store.Generation("backup"), draftContents));
            EXPECT_TRUE(handle.remove({"backup"}));
        }
        store.CheckInvariants(changed, /*killed=*/true);
        EXPECT_TRUE(vaultry::Store::findings(store.root(), /*repair=*/true));
        for (const auto &[path, kind, meaning, mended] : *vaultry::Store::findings(store.root())) {
            // Young, or the draft under its other name, where the restored one is.
            const bool aside = kind == "document-aside" && disk::Exists(draft);
            EXPECT_TRUE(aside || kind == "staging-recent" || kind == "copy-recent" || kind == "placeholder-empty")
                << path << " is not mended: " << kind;
        }
        EXPECT_TRUE(Holds(store.document(), store.contents()) || (moves && disk::Exists(store.Generation("g"))));
        EXPECT_TRUE(Holds(draft, draftContents) || Holds(draft, store.contents()) ||
                    Holds(desk / "draft.txt", store.contents()));
    }

    TestStore store;
    const vaultry::Store handle = *vaultry::Store::open(store.root());
    const TempDirectory desk;
    const std::string draft;
    Snapshot draftContents;
};

enum Traits : unsigned { kChangesIt = 1, kMoves = 2, kAcross = 4 }; // kAcross: the store's volume keeps its power
const struct Work {
    const char *what, *generation;
    std::function<vaultry::Result<void>(const Scene &)> run;
    unsigned traits = 0;
    bool Is(Traits trait) const { return (traits & trait) != 0; }
    bool LeavesAlone(const std::string &part) const
    {
        return part == "document" ? !Is(kMoves) : part == std::string("store/") + generation && !Is(kChangesIt);
    }
} kWorks[] = {
    {"add by copying", "old", [](const Scene &s) { return s.handle.add("g", s.store.document(), 6); }},
    {"add by moving", "old", [](const Scene &s) { return s.handle.add_by_moving("g", s.store.document(), 6); }, kMoves},
    {"set options", "old", [](const Scene &s) { return s.handle.set_options("old", 6); }, kChangesIt},
    {"set info", "old", [](const Scene &s) { return s.handle.set_info("old", "k", vaultry::String("v")); }, kChangesIt},
    {"set display name", "old", [](const Scene &s) { return s.handle.set_display_name("old", "name"); }, kChangesIt},
    {"remove", "old", [](const Scene &s) { return s.handle.remove({"old"}); }, kChangesIt},
    {"restore", "old.rtf", [](const Scene &s) { return s.handle.restore("old.rtf", s.draft); }},
    {"restore, other extension", "old.txt",
     [](const Scene &s) { return s.handle.restore("old.txt", s.draft, "backup"); }},
    {"restore, other volume", "old.rtf", [](const Scene &s) { return s.handle.restore("old.rtf", s.draft); }, kAcross},
    {"restore where nothing is", "old", [](const Scene &s) { return s.handle.restore("old", s.desk / "new"); }},
};

class PowerCuts : public testing::TestWithParam<const char *> {};
INSTANTIATE_TEST_SUITE_P(On, PowerCuts, testing::Values("ext4", "xfs"),
                         [](const auto &each) { return std::string(each.param); });

TEST_P(PowerCuts, WhatReturnedTrueStaysAndNothingIsTorn)
{
    if (const TestVolume &volume = VolumeOfType(GetParam()); volume.path.empty())
        GTEST_SKIP() << "no " << GetParam() << " volume: " << volume.whyNot;
    PoweredVolume volume(GetParam());
    const auto failures = [] {
        return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
    };
    const int rounds = std::getenv("VAULTRY_LONG") ? 50 : 3; // of each work on each kind
    int cuts = 0, torn = 0, lost = 0;
    for (const auto &work : kWorks)
        for (const auto kind : {Document::File, Document::Package}) {
            int calls = 0; // of the whole
            for (int round = 0; round < rounds && torn + lost < 10; ++round) {
                // To its end first, and then killed at calls spread evenly, however many are tried.
                const int nth = round == 0 ? 0 : 1 + static_cast<int>(calls * std::fmod(cuts * 0.618034, 1.0));
                const Journal journal = cuts % 2 == 0 ? Journal::Lost : Journal::Written;
                const As who = cuts / 2 % 2 == 0 ? As::User : As::Root;
                SCOPED_TRACE(testing::Message() << work.what << (kind == Document::File ? ", file, " : ", package, ")
                                                << NameOf(who) << (nth == 0 ? ", ended" : ", killed at call ") << nth
                                                << (journal == Journal::Lost ? ", journal lost" : ""));
                const int before = failures();
                std::optional<Impersonate> identity(who);
                Scene scene(kind, work.generation, work.Is(kAcross) ? "" : volume.path(), volume.path());
                const auto old = scene.State();
                const auto asRoot = [&](const auto &run) { identity.reset(), run(), identity.emplace(who); };
                asRoot([&] { volume.FlushAll(); });
                const Outcome outcome =
                    InChild(nth == 0 ? CountCalls(kAllButMemory) : KillBefore(nth), [&](TQError **why) {
                        const auto result = work.run(scene);
                        if (!result) *why = static_cast<TQError *>(TQRetain(result.error().get()));
                        return static_cast<bool>(result);
                    });
                if (nth == 0) calls = outcome.count;
                EXPECT_TRUE(outcome.succeeded || nth != 0) << outcome.message;
                const auto done = scene.State();
                asRoot([&] { volume.CutPower(journal); });
                const auto found = scene.State();
                EXPECT_TRUE(found.size() == done.size() || !outcome.succeeded);
                for (const auto &[part, snapshot] : outcome.succeeded ? done : old) {
                    if (!outcome.succeeded && !work.LeavesAlone(part)) continue;
                    EXPECT_TRUE(found.count(part) && Same(snapshot, found.at(part))) << part;
                }
                scene.ExpectLitterIsNamed();
                if (!outcome.succeeded)
                    scene.CheckInterrupted(work.Is(kChangesIt) ? work.generation : "g", work.Is(kMoves));
                ++cuts;
                (outcome.succeeded ? lost : torn) += failures() > before ? 1 : 0;
            }
        }
    std::printf("figures: %d power cuts on %s, %d torn, %d lost after success\n", cuts, GetParam(), torn, lost);
}

} // namespace
