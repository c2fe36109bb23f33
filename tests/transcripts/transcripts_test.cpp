// Plays the transcripts: what is typed at a shell, and what it answers.
//
//     == A title                    a fresh directory and a fresh shell, with vaultry and probe at hand; the commands
//                                   before the first title begin every section
//     $ command                     goes on in the next line behind "> "
//     answer                        both of its streams, the directory's name as "$", a time of this century as "TIME"
//     [1]                           its exit status, unless it is 0
//
// Empty lines and those behind "#" are for the reader. "[root]" before a line, or behind "==", is a condition of that
// line, command or section, "[!root]" its contrary: root, user and capable tell who plays; flags, whether it may set
// a file immutable; compression, whether files can be compressed here; mount, whether something can be mounted;
// inode, whether all attributes of an item have to fit beside its inode.

#include "support/Tests.h"
#include "support/Volumes.h"

#include <filesystem>
#include <fstream>
#include <linux/capability.h>
#include <regex>
#include <set>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>

namespace {

const std::string kFolder = VAULTRY_TESTS_DIRECTORY "/transcripts";

struct Step {
    int line;
    std::string command, answer;
};

struct Section {
    std::string title;
    std::vector<Step> steps;
};

using Conditions = std::set<std::string>;

// Whether a line is for us; takes the condition from its front.
bool IsMet(const Conditions &met, std::string &line)
{
    static const std::regex condition(R"(^\[(!?)(root|user|capable|flags|compression|mount|inode)\] (.*)$)");
    std::smatch parts;
    if (!std::regex_match(line, parts, condition)) return true;
    const bool wanted = parts[1].length() == 0, found = met.count(parts[2]) != 0;
    line = std::string(parts[3]);
    return wanted == found;
}

std::vector<Section> ReadSections(const std::string &file, const Conditions &met)
{
    std::vector<Section> sections = {{"", {}}}; // the first is the beginning of all
    std::ifstream in(file);
    bool sectionIsForUs = true, stepIsForUs = false;
    int number = 1;
    for (std::string line; std::getline(in, line); ++number) {
        const bool isTitle = line.starts_with("== ");
        const bool isForUs = IsMet(met, isTitle ? line.erase(0, 3) : line);
        if (isTitle) {
            if (isForUs) sections.push_back({line, sections.front().steps});
            sectionIsForUs = isForUs;
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

// What this user may do, and no more, the programs that the shell starts may do too.
void HandDownRights(As who)
{
    prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
    if (who != As::Capable) return;
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    syscall(SYS_capget, &header, data);
    data[0].inheritable |= 1U << CAP_LINUX_IMMUTABLE;
    syscall(SYS_capset, &header, data);
    prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, CAP_LINUX_IMMUTABLE, 0, 0);
}

// One shell runs all commands, and says where the answer to each ends.
std::vector<std::string> Play(const std::vector<Step> &steps, const std::string &directory, As who)
{
    constexpr char kEnd = '\x1e';
    const TempDirectory apart;
    std::string script = "exec </dev/null >" + apart.path() + "/said 2>&1; cd " + directory + "; umask 022\n";
    for (const Step &step : steps)
        script += "{ " + step.command + "\n}\nstatus=$?; [ $status = 0 ] || echo \"[$status]\"; printf '\\036'\n";
    const std::string file = disk::Write(apart / "script", script);
    const pid_t shell = fork();
    if (shell == 0) {
        HandDownRights(who);
        for (const char *name : {"VAULTRY_STORE", "XDG_DATA_HOME", "NO_COLOR"}) unsetenv(name);
        setenv("PATH", (VAULTRY_COMMANDS ":" + std::string(getenv("PATH")) + ":/usr/sbin:/sbin").c_str(), 1);
        setenv("HOME", directory.c_str(), 1);
        setenv("LC_ALL", "C.UTF-8", 1);
        setenv("TZ", "UTC", 1);
        execl("/bin/sh", "sh", file.c_str(), nullptr);
        _exit(127);
    }
    waitpid(shell, nullptr, 0);
    std::vector<std::string> answers;
    std::istringstream said(disk::Read(apart / "said"));
    static const std::regex emptyLines("\n\n+"), time("20[0-9-]{8}[T ][0-9:-]{8}([.][0-9]+)?Z?");
    for (std::string answer; std::getline(said, answer, kEnd);) {
        if (!answer.empty() && answer.back() != '\n') answer += '\n';
        answers.push_back(
            std::regex_replace(std::regex_replace(Plain(answer, directory), time, "TIME"), emptyLines, "\n"));
        if (answers.back().starts_with('\n')) answers.back().erase(0, 1);
    }
    answers.resize(steps.size());
    return answers;
}

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
    const Impersonate identity(who);
    const std::string file = kFolder + "/" + name + ".txt";
    Conditions met = {who == As::Root ? "root" : who == As::User ? "user" : "capable"};
    {
        const TempDirectory probe;
        if (probe.CanSetImmutable()) met.insert("flags");
        if (disk::SetFlags(disk::Write(probe / "file", ""), FS_COMPR_FL)) met.insert("compression");
        const std::string large(5000, 'x');
        if (setxattr(probe.path().c_str(), "user.large", large.data(), large.size(), 0) != 0) met.insert("inode");
        if (who == As::Root && !VolumeOfType("tmpfs").path.empty()) met.insert("mount");
    }
    for (const Section &section : ReadSections(file, met)) {
        const TempDirectory directory;
        const std::vector<std::string> answers = Play(section.steps, directory.path(), who);
        for (size_t i = 0; i < answers.size(); ++i)
            EXPECT_TRUE(answers[i] == section.steps[i].answer)
                << file << ":" << section.steps[i].line << ": " << section.title << "\n$ " << section.steps[i].command
                << "\nshould answer:\n"
                << section.steps[i].answer << "but answers:\n"
                << answers[i];
    }
    for (const char *condition : {"flags", "compression", "mount", "inode"})
        if (who == As::Root && met.count(condition) == 0) GTEST_SKIP() << "not played without: " << condition;
}
INSTANTIATE_TEST_SUITE_P(Of, Transcripts,
                         testing::Combine(testing::ValuesIn(Files()), testing::Values(As::Root, As::User, As::Capable)),
                         [](const auto &each) { return std::get<0>(each.param) + NameOf(std::get<1>(each.param)); });
