// Plays the transcripts: commands typed at a shell, and its answers.
//
//     == A title                    a fresh directory and a fresh shell, with vaultry and probe at hand; the commands
//                                   before the first title begin every section
//     $ command                     goes on in the next line after "> "
//     answer                        both of its streams, the directory's name as "$", a time of this century as "TIME",
//                                   unique letters as "*"
//     [1]                           its exit status, unless it is 0
//
// Empty lines and those that begin with "#" are for the reader. "[root]" before a line, or after "==", is a condition
// of that line, command or section, and "[!root]" its opposite. The conditions: root, user and capable tell who plays;
// flags, whether that user may set a file immutable; compression and clones, whether files can be compressed and cloned
// here; mount, whether something can be mounted; inode, whether all attributes of an item have to fit beside its inode;
// tracing, whether a program can be killed at one of its calls; namespaces, whether a user can be root in a user
// namespace; moved, whether the command's clock can be; fuse, whether faulty_volume.py of tests/support can be mounted;
// hosts, whether tests/hosts lends two hosts, and room, whether it can set a quota; long, whether there is time for
// what takes minutes. Those of kEverywhere hold on every disk; a volume that lacks one can be tested with the rest. A
// section with "[volumes]" after "==" is played here, and once more on a volume of each type, unless one was chosen.

#include "Platform/UniqueFd.h"
#include "support/Tests.h"
#include "support/Volumes.h"

#include <deque>
#include <fcntl.h>
#include <fstream>
#include <regex>
#include <set>
#include <sys/wait.h>
#include <sys/xattr.h>

namespace {

const std::string kFolder = VAULTRY_TESTS_DIRECTORY "/transcripts";

struct Step {
    int line;
    std::string command, answer;
};

struct Section {
    std::string title, place;
    std::vector<Step> steps;
};

using Conditions = std::set<std::string>;
constexpr const char *kMeasured[] = {"flags",   "compression", "mount", "inode",
                                     "tracing", "namespaces",  "moved", "fuse"};

// What every disk can do, and how to see it.
constexpr struct {
    const char *name, *command;
} kEverywhere[] = {
    {"flagged", "chattr +d f && chattr -d f"},
    {"fine", "touch -d 2001-01-01T00:00:00.5 f && stat -c %y f | grep -q '[.]5'"}, // times with fractions of seconds
    {"born", "[ \"$(stat -c %W f)\" != 0 ]"},
    {"holes", "truncate -s 1M h && [ \"$(stat -c %b h)\" -lt 100 ]"},
    {"quiet", "touch -ad @1 f && dd if=f iflag=noatime && [ \"$(stat -c %X f)\" = 1 ]"}, // can be read unnoticed
    {"listed", "setfacl -m u:1:r f && getfattr -m - f | grep posix_acl"},
    {"denied", "cat f && mkdir s && touch s/f && chmod 600 s && chmod 0 f && ! { cat f || stat s/f; } || [ -O / ]"},
    {"nameless", "[ -e nameless ]"}, // can have a file without a name
    {"exchange", "[ -e exchange ]"}, // can exchange two items
    // What is known is told in filesystem.h: there, a folder is flushed that can't be read.
    {"known", "stat -fc %T . | grep -qxE 'ext2/ext3|xfs|btrfs|tmpfs'"},
};

// The conditions that hold for this user in a directory there; "" is the usual place.
Conditions ConditionsAt(const std::string &place, As who)
{
    Conditions met = {who == As::Root ? "root" : who == As::User ? "user" : "capable"};
    const TempDirectory probe(place);
    if (probe.CanSetImmutable()) met.insert("flags");
    if (disk::SetFlags(disk::Write(probe / "file", "x"), FS_COMPR_FL)) met.insert("compression");
    if (Shell(probe.path(), "cp --reflink=always file clone")) met.insert("clones");
    if (Shell("/", "strace -qq -o /dev/null true")) met.insert("tracing");
    if (Shell("/", "unshare -Ur true")) met.insert("namespaces");
    // A sanitizer waits for ever for the clock's own library.
    if (!kIsSanitized && Shell("/", "PATH=" VAULTRY_COMMANDS ":$PATH; faketime -f +0 vaultry --version"))
        met.insert("moved");
    if (Shell("/", "on one true")) met.insert("hosts");
    if (disk::Exists("/run/engine/room")) met.insert("room");
    if (getenv("VAULTRY_LONG") != nullptr) met.insert("long");
    if (UniqueFd(open(probe.path().c_str(), O_TMPFILE | O_RDWR, 0600))) disk::Write(probe / "nameless", "");
    const std::string one = disk::Write(probe / "one", ""), folder = disk::MakeDirectory(probe / "folder");
    if (renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, folder.c_str(), RENAME_EXCHANGE) == 0)
        disk::Write(probe / "exchange", "");
    std::string look = "exec 3>seen; echo x >f";
    for (const auto &[name, command] : kEverywhere) look += std::string("\n") + command + " && echo " + name + " >&3";
    (void)Shell(probe.path(), look);
    std::istringstream seen(disk::Read(probe / "seen"));
    for (std::string name; seen >> name;) met.insert(name);
    const std::string large(5000, 'x');
    if (setxattr(probe.path().c_str(), "user.large", large.data(), large.size(), 0) != 0) met.insert("inode");
    if (who == As::Root && !VolumeOfType("tmpfs").path.empty()) met.insert("mount");
    if (met.count("mount") != 0 && Shell("/", "/usr/bin/python3 -c 'import fuse' </dev/fuse")) met.insert("fuse");
    return met;
}

// Whether a line is for this user; removes the conditions from its front.
bool IsMet(const Conditions &met, std::string &line)
{
    static const std::regex condition([] {
        std::string names = "root|user|capable|clones|hosts|room|long";
        for (const char *name : kMeasured) names += std::string("|") + name;
        for (const auto &each : kEverywhere) names += std::string("|") + each.name;
        return R"(^\[(!?)()" + names + R"()\] (.*)$)";
    }());
    bool isMet = true;
    for (std::smatch parts; std::regex_match(line, parts, condition); line = std::string(parts[3]))
        isMet &= (met.count(parts[2]) != 0) == (parts[1].length() == 0);
    return isMet;
}

std::vector<Section> ReadSections(const std::string &file, const std::string &place, const Conditions &met)
{
    std::vector<Section> sections = {{"", place, {}}}; // the first is the beginning of all
    std::ifstream in(file);
    bool sectionIsForUs = true, stepIsForUs = false;
    int number = 1;
    for (std::string line; std::getline(in, line); ++number) {
        const bool isTitle = line.starts_with("== "), isOfVolumes = line.starts_with("== [volumes] ");
        const bool isForUs = IsMet(met, line.erase(0, isOfVolumes ? 13 : isTitle ? 3 : 0));
        if (isTitle) {
            sectionIsForUs = isForUs && (isOfVolumes || place.empty());
            if (sectionIsForUs) sections.push_back({line, place, sections.front().steps});
            stepIsForUs = false;
        } else if (line.starts_with("$ ")) {
            stepIsForUs = sectionIsForUs && isForUs;
            if (stepIsForUs) sections.back().steps.push_back({number, line.substr(2), ""});
        } else if (stepIsForUs && isForUs && !line.empty() && line[0] != '#') {
            Step &step = sections.back().steps.back();
            line.starts_with("> ") ? step.command += "\n" + line.substr(2) : step.answer += line + "\n";
        }
    }
    sections.erase(sections.begin());
    return sections;
}

constexpr char kEnd = '\x1e'; // the end of an answer

// A traced process can't be searched for leaks. What is printed as JSON is noted, and held against its schemas.
constexpr char kFunctions[] = R"sh(strace() { LSAN_OPTIONS=detect_leaks=0 command strace "$@"; }
vaultry() {
    case " $* " in *" --json "*) ;; *) command vaultry "$@"; return ;; esac
    local call; call=$(mktemp -d "$JSON/XXXXXX"); printf %s "$*" >"$call/words"
    command vaultry "$@" >"$call/out" 2>"$call/error"; set -- $?
    cat "$call/out"; cat "$call/error" >&2; return "$1"
}
)sh";

// A section that is being played: one shell runs all its commands, and marks the end of each answer.
class Performance {
public:
    explicit Performance(const Section &section) : section_(section), directory_(section.place)
    {
        const std::string &directory = directory_.path();
        std::string script =
            "exec </dev/null >" + apart_.path() + "/said 2>&1; cd " + directory + "; umask 022\n" + kFunctions;
        for (const Step &step : section.steps)
            script += "{ " + step.command + "\n}\nstatus=$?; [ $status = 0 ] || echo \"[$status]\"; printf '\\036'\n";
        const std::string json = disk::MakeDirectory(apart_ / "json");
        script += "ls " + json + " | grep -q . && schemas.py " + json + " >" + apart_ / "wrong" + " 2>&1\n";
        const std::string file = disk::Write(apart_ / "script", script);
        shell_ = fork();
        if (shell_ != 0) return;
        for (const char *name : {"VAULTRY_STORE", "XDG_DATA_HOME", "NO_COLOR"}) unsetenv(name);
        const std::string path =
            VAULTRY_COMMANDS ":" VAULTRY_TESTS_DIRECTORY "/support:" + std::string(getenv("PATH")) + ":/usr/sbin:/sbin";
        for (const auto &[name, value] :
             {std::pair{"PATH", path}, {"HOME", directory}, {"LC_ALL", "C.UTF-8"}, {"TZ", "UTC"}, {"JSON", json}})
            setenv(name, value.c_str(), 1);
        execl("/bin/sh", "sh", file.c_str(), nullptr);
        _exit(127);
    }
    void ExpectAnswers(const std::string &file) const
    {
        waitpid(shell_, nullptr, 0);
        std::istringstream said(disk::Read(apart_ / "said"));
        for (const Step &step : section_.steps) {
            std::string answer;
            std::getline(said, answer, kEnd);
            answer = Plainer(answer);
            EXPECT_TRUE(answer == step.answer) << file << ":" << step.line << ": " << section_.title << " "
                                               << section_.place << "\n$ " << step.command << "\nshould answer:\n"
                                               << step.answer << "but answers:\n"
                                               << answer;
        }
        EXPECT_EQ(disk::Read(apart_ / "wrong"), "") << file << ": " << section_.title;
    }

private:
    std::string Plainer(std::string answer) const
    {
        static const std::pair<std::regex, const char *> rules[] = {
            {std::regex("20[0-9-]{8}[T ][0-9:-]{8}([.][0-9]+)?Z?"), "TIME"},
            {std::regex("\n\n+"), "\n"},
            {std::regex("^\n"), ""},
        };
        if (!answer.empty() && answer.back() != '\n') answer += '\n';
        answer = Plain(answer, directory_.path());
        for (const auto &[found, shown] : rules) answer = std::regex_replace(answer, found, shown);
        return answer;
    }

    const Section section_;
    const TempDirectory directory_, apart_;
    pid_t shell_ = -1;
};

using Part = std::tuple<std::string, As>; // a file, and who plays

struct Transcripts : testing::TestWithParam<Part> {};

std::vector<std::string> Files()
{
    std::vector<std::string> names;
    for (const std::string &name : disk::List(kFolder))
        if (name.ends_with(".txt")) names.push_back(name.substr(0, name.size() - 4));
    return names;
}

} // namespace

TEST_P(Transcripts, Hold)
{
    const auto &[name, who] = GetParam();
    if (!CanBe(who)) GTEST_SKIP() << "this process can't be " << NameOf(who);
    std::map<std::string, std::string> places = {{"", ""}}; // by type
    const std::string file = kFolder + "/" + name + ".txt";
    const bool isOnVolumes = disk::Read(file).find("\n== [volumes] ") != std::string::npos;
    for (const char *type : kVolumeTypes)
        if (const std::string place = isOnVolumes ? VolumeOfType(type).path : ""; !place.empty()) places[type] = place;
    const Impersonate identity(who);
    std::deque<Performance> playing; // a few at a time
    bool isPlayed = false;
    for (const auto &[type, place] : places)
        for (const Section &section : ReadSections(file, place, ConditionsAt(place, who))) {
            isPlayed = true;
            playing.emplace_back(section);
            if (playing.size() < 4) continue;
            playing.front().ExpectAnswers(file);
            playing.pop_front();
        }
    for (const Performance &last : playing) last.ExpectAnswers(file);
    const Conditions here = ConditionsAt("", who);
    std::string missing, types;
    for (const char *condition : kMeasured)
        if (who == As::Root && here.count(condition) == 0) missing += std::string(" ") + condition;
    for (const auto &each : kEverywhere)
        if (here.count(each.name) == 0) missing += std::string(" ") + each.name;
    for (const char *type : kVolumeTypes)
        if (isOnVolumes && who == As::Root && places.count(type) == 0) types += std::string(" ") + type;
    // A chosen volume lacks what it lacks, and the rest was played.
    const bool hasHosts = getenv("VAULTRY_HOSTS") != nullptr;
    EXPECT_TRUE(!hasHosts || who != As::Root || here.count("hosts") != 0)
        << "the hosts that were lent can't be reached";
    if (!isPlayed) GTEST_SKIP() << "no session of it is for this user and place";
    if (OnlyVolume() && !missing.empty()) std::printf("figures: 1 file of sessions without:%s\n", missing.c_str());
    if (OnlyVolume()) return;
    if (!missing.empty()) GTEST_SKIP() << "not played without:" << missing;
    if (!types.empty()) GTEST_SKIP() << "not played on:" << types;
}
INSTANTIATE_TEST_SUITE_P(Of, Transcripts,
                         testing::Combine(testing::ValuesIn(Files()), testing::Values(As::Root, As::User, As::Capable)),
                         [](const auto &each) { return std::get<0>(each.param) + NameOf(std::get<1>(each.param)); });
