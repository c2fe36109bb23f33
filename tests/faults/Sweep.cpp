#include "faults/Sweep.h"

#include "support/Table.h"
#include "support/Volumes.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sys/syscall.h>
#include <vaultry/vaultry.hpp>

namespace {

using Fate = Outcome::Fate;
using Act = Fault::Act;
constexpr unsigned kLasting = Snapshot::kContents | Snapshot::kRights;

// Errors beside EIO, which the library never takes for an answer.
constexpr int kErrors[] = {ENOSPC, EACCES, EPERM, EMFILE, ENOMEM, EINTR, EDQUOT, EROFS, EXDEV, EINVAL, ENOTSUP};
// Errors of every call from some call on: a disk that broke, is full, or was made read-only.
constexpr int kLastingErrors[] = {EIO, ENOSPC, EROFS};

// The undo met a fault itself: both states stay, and a person decides.
constexpr char kNotHome[] = "Failed to give the document back to .*nosync";

// Remains of a clean-up that the failing call struck, and the log line that says so.
const struct {
    std::regex said, left;
} kResidue[] = {
    {std::regex("failed to protect store"), std::regex("/store|/out")},
    {std::regex("deletable|Failed to remove|fts_"), std::regex("/store/\\.vaultry_staging/.*|/out.*|.*nosync.*")},
    {std::regex("Failed to revert"), std::regex("/store/[a-z]+")},
    // The removal of the old document on another volume: its note stays.
    {std::regex("Failed to flush \"(?!.*/store)"), std::regex("/store/\\.vaultry_staging/.*")},
    {std::regex(kNotHome), std::regex(".*(/d|nosync\\.\\*).*")},
};

template <size_t count> int InTurn(const int (&errors)[count], int nth)
{
    return errors[static_cast<size_t>(nth) % count];
}

bool IsLong()
{
    return std::getenv("VAULTRY_LONG") != nullptr;
}

// Sanitizers are slow, so under one only a few of the calls fail.
const int kStep = kIsSanitized ? 7 : 1;

int failingCalls, kills, allocations, violations;

class Figures : public testing::Environment {
    void TearDown() override
    {
        std::printf("figures: %d failing calls, %d kills, %d failing allocations, %d violations%s\n", failingCalls,
                    kills, allocations, violations,
                    kIsSanitized ? " (under a sanitizer: few calls, no allocations, no look for leaks)" : "");
    }
};
const auto *const figures = testing::AddGlobalTestEnvironment(new Figures);

int Failures()
{
    return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

// Items that a comparison leaves out because a call failed that may fail.
std::string MayLack(int call, int error)
{
    // The store's attributes stay on a copy if they can't be removed.
    if (call == SYS_fremovexattr) return " user\\.com\\.corvane\\.vaultry\\.\\w+=\\S+";
    // A file system without attributes, and one without flags, or a user without the right to them.
    if (error == ENOTSUP && call == SYS_flistxattr) return " (user|system)\\.\\S+=\\S+";
    return error == ENOTSUP || error == EPERM ? " flags \\d+| \\S*orig_perms_v1=\\d+" : ""; // it records flags too
}

// Five cells of a row are read: the items in each of three places, the findings of a repair, and what it leaves. In a
// cell, "or" separates alternatives; "perhaps" stands before a finding that may be absent.
struct KillTable {
    std::vector<std::vector<std::string>> rows;
    std::vector<bool> met;
};

std::vector<std::string> Split(const std::string &text, const char *by)
{
    const std::regex between(by);
    return {std::sregex_token_iterator(text.begin(), text.end(), between, -1), {}};
}

KillTable &TableOfKills(const std::string &name)
{
    static std::map<std::string, KillTable> tables;
    KillTable &table = tables[name];
    std::ifstream page(VAULTRY_TESTS_DIRECTORY "/../docs/architecture.md");
    for (std::string line; table.rows.empty() && std::getline(page, line);)
        if (line.starts_with("| " + name + " "))
            for (std::getline(page, line); std::getline(page, line) && line.starts_with("|");)
                table.rows.push_back(Split(std::regex_replace(line, std::regex("`"), ""), " *\\| *"));
    table.met.resize(table.rows.size());
    return table;
}

bool Matches(const std::vector<std::string> &row, const std::vector<std::string> &state, std::set<std::string> found)
{
    for (size_t i = 0; i < state.size(); ++i) {
        const auto choices = Split(row.at(i + 2), " or ");
        if (i != 3 && std::find(choices.begin(), choices.end(), state[i]) == choices.end()) return false;
    }
    for (const auto &kind : Split(row.at(5), ", "))
        if (kind.starts_with("perhaps "))
            found.erase(kind.substr(8));
        else if (kind != "nothing" && found.erase(kind) == 0)
            return false;
    return found.empty();
}

std::string Show(const Fault &fault)
{
    const char *const acts[] = {"nothing", "failing", "kill before", "kill after", "failing allocation"};
    return std::string(acts[static_cast<int>(fault.act)]) + " " + std::to_string(fault.nth) +
           (fault.error != 0 ? std::string(" ") + strerrorname_np(fault.error) : "") +
           (fault.fromThereOn ? " from there on" : "");
}

} // namespace

void ExpectEveryRowMet(const std::string &name)
{
    KillTable &table = TableOfKills(name);
    EXPECT_FALSE(table.rows.empty()) << name;
    for (size_t i = 0; i < table.rows.size(); ++i)
        EXPECT_TRUE(table.met[i] || kStep > 1) << "no kill meets: " << testing::PrintToString(table.rows[i]);
    table.met.assign(table.rows.size(), false);
}

Scene::Scene(TestStore::Document kind, bool lifts)
    : store(kind, QuickVolume()), document(store.document()),
      library(Ref<TQLibrary>::Adopt(TQLibraryCreateClientManaged(nullptr, FileURL(store.root()).get(), nullptr)))
{
    EXPECT_TRUE(store.Add("kept", nullptr, true, 6));
    store.Remember(document, "kept");
    const std::string kept = store.Generation("kept");
    EXPECT_TRUE(TQSetOriginalDisplayName(kept.c_str(), String("shown").get(), nullptr));
    EXPECT_TRUE(TQSetInfoValue(kept.c_str(), String("key").get(), String("value").get(), nullptr));
    if (kind == TestStore::Document::File) {
        disk::Write(document, "changed");
        EXPECT_EQ(truncate(document.c_str(), 96 << 10), 0);
        disk::SetAttribute(document, "com.example.kind", "file");
        disk::SetFlags(document, FS_NODUMP_FL);
    } else {
        // Everything that archiving has to lift: missing write bits, and flags if they are lifted; and hard links.
        const std::string flagged = disk::MakeDirectory(document + "/flagged");
        for (const std::string &name : {flagged + "/link", store / "outside"})
            EXPECT_EQ(link((document + "/twin").c_str(), name.c_str()), 0);
        chmod((document + "/folder").c_str(), 0555);
        chmod(document.c_str(), lifts ? 0775 : 0555); // with the flag nobody could make it writable again
        disk::SetFlags(flagged, lifts ? FS_APPEND_FL : 0);
        disk::SetFlags(document, lifts ? FS_NODUMP_FL | FS_IMMUTABLE_FL : FS_NODUMP_FL);
    }
    store.RememberDocument();
}

void Scene::WorkOn(const std::string &path, bool folder)
{
    document = restored = path;
    disk::Write(folder ? disk::MakeDirectory(path) + "/in" : path, "now");
    if (folder) disk::Write(path + "/too", "now");
    chmod(path.c_str(), folder ? 0555 : 0640);
    disk::SetFlags(path, FS_NODUMP_FL);
    store.Remember(path, "backup");
}

Snapshot Scene::Now() const
{
    Snapshot now;
    const auto add = [&](const std::string &root, const std::string &as) {
        for (const auto &[path, item] : Snapshot::Of(root, kLasting).items) now.items[Plain(as + path, "")] = item;
    };
    add(store.path(), "");
    if (otherVolume) add(otherVolume->path(), "/other volume");
    return now;
}

std::vector<std::string> Scene::Placeholders() const
{
    const std::string directory = document.substr(0, document.rfind('/'));
    std::vector<std::string> paths;
    for (const auto &name : disk::List(directory))
        if (name.find("-tmp.nosync.") != std::string::npos) paths.push_back(directory + "/" + name);
    return paths;
}

bool Scene::HoldsDocument(const Snapshot &contents) const
{
    std::vector<std::string> places = {document, store.Generation("g")};
    for (const auto &path : Placeholders()) places.push_back(path);
    for (const auto &name : disk::List(store.Staging())) {
        const std::string unique = store.Staging() + "/" + name;
        if (disk::Read(unique + "/.vaultry_owner").find("\n" + document + "\nend\n") != std::string::npos)
            places.push_back(unique + "/staged");
    }
    return std::any_of(places.begin(), places.end(),
                       [&](const auto &place) { return ContentsOfDocument(place) == contents; });
}

Sweeper::Sweeper(const Swept &swept, As who) : swept_(swept), who_(who)
{
    // Twice, the first time in this process: objects that are made once and kept then don't count as a leak.
    for (const bool here : {true, false}) {
        Scene scene(swept_.kind, who == As::Capable);
        swept_.prepare(scene);
        before_ = scene.Now();
        documentBefore_ = ContentsOfDocument(scene.document);
        if (here) {
            EXPECT_TRUE(swept_.run(scene, nullptr));
            continue;
        }
        const Outcome undisturbed = Run({}, scene);
        EXPECT_TRUE(undisturbed.succeeded) << undisturbed.message;
        answer_ = undisturbed.answer;
        after_ = scene.Now();
        restored_ = ContentsOfDocument(scene.restored);
    }
}

Outcome Sweeper::Run(const Fault &fault, Scene &scene) const
{
    return InChild(fault, [&](TQError **why) { return swept_.run(scene, why); });
}

void Sweeper::Walk()
{
    Walk(failingCalls, [](int nth) { return FailCall(nth, EIO); });
    Walk(kills, [](int nth) { return KillBefore(nth); });
    if (kIsSanitized) return; // a sanitizer's own calls fail too
    Walk(allocations, FailAllocation);
    Walk(failingCalls, [](int nth) {
        return nth % 2 == 0 ? FailCall(nth, InTurn(kErrors, nth / 2))
                            : FailCall(nth, InTurn(kLastingErrors, nth / 2), {}, /*fromThereOn=*/true);
    });
    ExpectMessages();
    if (!IsLong()) return;
    Walk(kills, [](int nth) { return KillAfter(nth); });
    for (const int error : kErrors) {
        Walk(failingCalls, [error](int nth) { return FailCall(nth, error); });
        // An interrupted call is repeated, so it must not be interrupted for ever.
        if (error != EINTR)
            Walk(failingCalls, [error](int nth) { return FailCall(nth, error, {}, /*fromThereOn=*/true); });
    }
}

// A volume that was chosen may have no flags, and then no call that sets them fails.
void Sweeper::ExpectMessages() const
{
    static const std::vector<TableRow> messages = ReadTable("faults/messages.txt");
    for (const auto &row : messages) {
        const bool isOfFlags = row[1] == "cap" || row[2].find("flags") != std::string::npos;
        const bool isOfRoot = row[1] == "root";
        const bool concerned = (row[1] == "all" || (isOfRoot && who_ == As::Root) ||
                                (who_ == As::Capable && !isOfRoot) || (who_ == As::User && row[1] == "user")) &&
                               !(isOfFlags && OnlyVolume());
        EXPECT_TRUE(row[0] != swept_.name || !concerned || said_.count(row[2]))
            << "no fault gives: " << row[2] << "\nbut: " << testing::PrintToString(said_);
    }
}

void Sweeper::Walk(int &points, const Faults &faults)
{
    const int step = kStep * (IsLong() ? 1 : swept_.step);
    for (int nth = 1;; nth += step) {
        const Fault fault = faults(nth);
        SCOPED_TRACE(Show(fault));
        Scene scene(swept_.kind, who_ == As::Capable);
        swept_.prepare(scene);
        const Outcome outcome = Run(fault, scene);
        const int failures = Failures();
        Judge(fault, outcome, scene);
        swept_.then(scene);
        // With this a check looks beside the document, whether or not there is a note.
        if (!scene.restored.empty()) {
            EXPECT_TRUE(vaultry::Store::open(scene.store.root())
                            ->set_info("kept", vaultry::document_key, vaultry::Data(scene.document)));
        }
        if (outcome.fate == Fate::Killed && !swept_.table.empty()) JudgeKill(scene);
        const bool isHome = std::none_of(outcome.log.begin(), outcome.log.end(), [](const LogLine &line) {
            return std::regex_search(line.text, std::regex(kNotHome));
        });
        if (disk::Exists(scene.store.root()))
            scene.store.CheckInvariants(swept_.subject, /*killed=*/true, isHome ? "" : "document-aside");
        EXPECT_TRUE(!isHome || scene.Placeholders().empty());
        violations += Failures() > failures ? 1 : 0;
        if (!outcome.faultFired) {
            EXPECT_TRUE(outcome.succeeded) << outcome.message;
            return;
        }
        ++points;
    }
}

std::string Sweeper::Named(const std::string &path) const
{
    if (!disk::Exists(path)) return "nothing";
    const Snapshot found = ContentsOfDocument(path);
    if (found == documentBefore_) return "the document";
    if (found == restored_) return "the copy";
    if (disk::List(path).empty() && disk::Read(path).empty()) return "an empty item";
    const bool isOld = std::all_of(found.items.begin(), found.items.end(),
                                   [&](const auto &item) { return documentBefore_.items.count(item.first); });
    return isOld ? "a part of the document" : "a part of the copy";
}

// The items in each place have to match a row of the table, and so have the findings of a repair and what it leaves.
void Sweeper::JudgeKill(Scene &scene) const
{
    const bool moves = scene.restored.empty();
    const auto atPath = [&] {
        const bool renamed =
            !scene.restored.empty() && scene.restored != scene.document && disk::Exists(scene.restored);
        const std::string old = Named(scene.document), copy = renamed ? Named(scene.restored) + " by its new name" : "";
        return !renamed ? old : old == "nothing" ? copy : old + " and " + copy;
    };
    const std::string generation = scene.store.Generation(swept_.subject);
    const auto inStore = [&] { return std::string(disk::Exists(generation) ? "the generation" : "nothing"); };
    std::string beside, own, other; // in staging: the operation's own items, and those of the backup
    for (const auto &path : scene.Placeholders()) beside += Named(path);
    for (const auto &name : disk::List(scene.store.Staging())) {
        const std::string unique = scene.store.Staging() + "/" + name, note = disk::Read(unique + "/.vaultry_owner"),
                          item = disk::Exists(unique + "/staged") ? Named(unique + "/staged") : "";
        const bool isPart = item.find("part") != item.npos || item == "an empty item";
        if (note.find(moves ? "\nwork move\n" : "\nwork restore\n") != note.npos)
            own = "the note" + (item.empty() ? "" : " and " + (isPart ? "a part of the copy" : item));
        else
            other = note.empty() ? disk::List(unique).empty() ? "an empty directory" : "an empty note" : "a backup";
    }
    std::vector<std::string> state = {atPath(), beside.empty() ? "nothing" : beside,
                                      !own.empty() && !other.empty() ? own + ", a backup"
                                      : own.empty() && other.empty() ? "nothing"
                                                                     : own + other};
    if (moves) state = {state[0], state[2], inStore()};
    std::set<std::string> kinds;
    for (const auto &finding : *vaultry::Store::findings(scene.store.root(), /*repair=*/true))
        kinds.insert(finding.kind);
    state.insert(state.end(), {"", moves && atPath() == "nothing" ? inStore() : atPath()});

    for (const auto &[path, item] : Snapshot::Of(scene.document, Snapshot::kContents).items)
        EXPECT_FALSE(std::regex_search(path, std::regex("_\\w{6}$"))) << path << " was to replace a hard link";

    KillTable &table = TableOfKills(swept_.table);
    bool isRow = false;
    for (size_t i = 0; i < table.rows.size(); ++i)
        if (Matches(table.rows[i], state, kinds)) isRow = table.met[i] = true;
    EXPECT_TRUE(isRow) << "no row of the table: " << testing::PrintToString(state) << testing::PrintToString(kinds);
}

void Sweeper::Judge(const Fault &fault, const Outcome &outcome, Scene &scene)
{
    // A process that can't release its lock stops itself on purpose.
    const bool stopped = outcome.fate == Fate::Crashed;
    const bool mayStop =
        outcome.signal == SIGABRT && fault.act == Act::Fail && (fault.fromThereOn || outcome.call == SYS_flock);
    EXPECT_TRUE(!stopped || mayStop) << "it ended itself, by signal " << outcome.signal;
    const bool broken = stopped || fault.fromThereOn || outcome.fate == Fate::Killed;
    std::string told = outcome.message;
    for (const auto &line : outcome.log) told += swept_.silent ? line.text : "";
    const bool stays = std::regex_search(told, std::regex(swept_.stays));

    std::set<std::string> paths;
    const Snapshot found = scene.Now();
    for (const Snapshot *snapshot : {&std::as_const(before_), &std::as_const(after_), &found})
        for (const auto &[path, item] : snapshot->items) paths.insert(path);
    const std::regex unfinished(swept_.unfinished + "|/store|/store/" + swept_.subject +
                                "|/store/\\.vaultry_staging/.*");
    const std::string mayLack = fault.act == Act::Fail ? MayLack(outcome.call, fault.error) : "";
    const std::regex lacking(mayLack);
    std::string wrong;
    for (const auto &path : paths) {
        const auto item = [&](const Snapshot &snapshot) {
            const auto place = snapshot.items.find(path);
            if (place == snapshot.items.end()) return std::string("nothing");
            return mayLack.empty() ? place->second : std::regex_replace(place->second, lacking, "");
        };
        const bool isBefore = item(found) == item(before_), isAfter = item(found) == item(after_);
        if (outcome.succeeded ? isAfter : isBefore || ((broken || stays) && isAfter)) continue;
        if ((broken || stays) && std::regex_match(path, unfinished)) continue;
        const bool said = std::any_of(std::begin(kResidue), std::end(kResidue), [&](const auto &residue) {
            return std::regex_match(path, residue.left) &&
                   std::any_of(outcome.log.begin(), outcome.log.end(),
                               [&](const LogLine &line) { return std::regex_search(line.text, residue.said); });
        });
        if (!said)
            wrong += "\n'" + path + "' before: " + item(before_) + "\n    after success: " + item(after_) +
                     "\n    found: " + item(found);
    }
    EXPECT_TRUE(wrong.empty()) << (outcome.succeeded ? "it succeeded" : "it failed: ") << outcome.message << wrong;
    EXPECT_TRUE(scene.HoldsDocument(documentBefore_) ||
                (!scene.restored.empty() && ContentsOfDocument(scene.restored) == restored_))
        << "the document is lost";
    EXPECT_TRUE(!outcome.succeeded || outcome.answer == answer_ ||
                (fault.act == Act::Fail && std::regex_match(outcome.answer, std::regex(swept_.lesser))))
        << outcome.answer;
    EXPECT_TRUE(fault.act != Act::FailAllocation || outcome.leaked == 0) << outcome.leaked << " leaked";
    JudgeReport(fault, outcome, scene, broken);
}

void Sweeper::JudgeReport(const Fault &fault, const Outcome &outcome, const Scene &scene, bool broken)
{
    const auto plain = [&](const std::string &text) {
        const std::string other = scene.otherVolume ? scene.otherVolume->path() : "";
        return Plain(Plain(text, scene.store.path()), other);
    };
    const auto bare = [](const std::string &text) {
        const size_t end = text.find("; error ");
        return text.substr(0, end == std::string::npos ? text.find_last_not_of('\n') + 1
                                                       : text.find_last_not_of('\n', end - 1) + 1);
    };
    for (const auto &line : outcome.log) {
        // "file.cpp:12 message (on label)"
        const std::string text = plain(line.text.substr(0, line.text.rfind(" (on ")));
        said_.insert(std::to_string(line.level) + " " + bare(text.substr(text.find(' ') + 1)));
    }
    if (broken || outcome.succeeded || swept_.silent) return;
    EXPECT_TRUE(outcome.hasError) << "no error object";
    const std::string text = bare(plain(outcome.message)),
                      logged = outcome.message.substr(0, outcome.message.find_last_not_of('\n') + 1);
    // The reader of property lists has its own words for what is wrong.
    EXPECT_TRUE(std::any_of(outcome.log.begin(), outcome.log.end(),
                            [&](const LogLine &line) {
                                return line.text.find(logged) != std::string::npos ||
                                       line.text.find("property list") != std::string::npos;
                            }))
        << "not logged: " << outcome.message;
    if (outcome.underlying == 0) return;
    EXPECT_EQ(outcome.status, TQGetStatusForErrno(static_cast<int>(outcome.underlying))) << outcome.message;
    if (outcome.underlying == fault.error) said_.insert(text);
}
