// See differences.h.

#include "differences.h"

#include "failure.h"
#include "json.h"
#include "text.h"
#include "times.h"

#include <vaultry/file_status.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

static constexpr struct {
    Changed change;
    const char *word, *ofMany;
} kChanges[] = {
    {kRemoved, "removed", "removed"},
    {kAdded, "added", "added"},
    {kKind, "kind", "kinds"},
    {kContent, "content", "contents"},
    {kRights, "rights", "rights"},
    {kOwner, "owner", "owners"},
    {kAttributes, "attributes", "attributes"},
    {kAccessList, "access_list", "access lists"},
    {kFlags, "flags", "flags"},
    {kTimes, "times", "times"},
};

// What a restore in place leaves to the document.
static constexpr unsigned kOfTheDocument = kRights | kOwner | kAccessList | kFlags;

static std::string _NameOfKind(const ComparedItem &item)
{
    return item.IsFolder() ? "a folder" : item.IsFile() ? "a file" : item.IsLink() ? "a link" : "something else";
}

static std::string _RightsOf(const ComparedItem &item)
{
    char text[16];
    snprintf(text, sizeof text, "%04o", item.mode);
    return text;
}

static std::string _OwnersOf(const ComparedItem &item)
{
    return std::to_string(item.owner) + ":" + std::to_string(item.group);
}

static std::string _FlagsOf(const ComparedItem &item)
{
    std::string text;
    if (item.flags & kTQFlagNoDump) text += " nodump";
    if (item.flags & kTQFlagImmutable) text += " immutable";
    if (item.flags & kTQFlagAppend) text += " append-only";
    return text.empty() ? "none" : text.substr(1);
}

static std::string _ListOf(const std::vector<std::string> &names)
{
    std::string text;
    for (const std::string &name : names) text.append(" ").append(Printable(name));
    return text;
}

// Local time, unless that does not tell the two apart.
static std::string _TimesOf(const ComparedItem &first, const ComparedItem &second)
{
    const double one = ToSeconds(first.modified), other = ToSeconds(second.modified);
    const bool isFine = HumanTime(one) == HumanTime(other);
    return (isFine ? IsoTime(one) : HumanTime(one)) + ", now " + (isFine ? IsoTime(other) : HumanTime(other));
}

static std::string _Path(const Difference &difference)
{
    return difference.below.empty() ? "." : difference.below;
}

static bool _IsTerminal()
{
    return isatty(STDOUT_FILENO);
}

// The system's diff shows the changed lines of a text, or says that binary files differ. It gets the files that were
// compared, whatever their names lead to by now.
void DifferencePrinter::ShowContents(const Difference &difference) const
{
    fflush(stdout);
    const auto labelOf = [&](const ComparedTree &tree) {
        return "--label=" + Printable(difference.below.empty() ? tree.label : tree.label + "/" + difference.below);
    };
    const std::string firstLabel = labelOf(first_), secondLabel = labelOf(second_);
    const int one = fcntl(difference.first->fd(), F_DUPFD, 3), other = fcntl(difference.second->fd(), F_DUPFD, 3);
    const std::string first = "/dev/fd/" + std::to_string(one), second = "/dev/fd/" + std::to_string(other);
    const char *arguments[] = {"diff", "--unified",   firstLabel.c_str(), secondLabel.c_str(),
                               "--",   first.c_str(), second.c_str(),     nullptr};
    pid_t child = -1;
    const int error = one < 0 || other < 0
                          ? errno
                          : posix_spawnp(&child, "diff", nullptr, nullptr, const_cast<char **>(arguments), environ);
    if (one >= 0) (void)close(one);
    if (other >= 0) (void)close(other);
    if (error != 0) throw CommandFailure::Errno("can't run diff", error);
    int status = 0;
    (void)waitpid(child, &status, 0);
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGPIPE) return; // whoever reads has seen enough
    if (!WIFEXITED(status) || WEXITSTATUS(status) > 1)
        throw CommandFailure(kExitFailure, "diff could not compare " + Quoted(difference.first->path()) + " with " +
                                               Quoted(difference.second->path()));
}

std::string DifferencePrinter::WordsFor(const Difference &difference) const
{
    const unsigned changes = difference.changes;
    const auto sizeOf = [](const ComparedItem &item) { return HumanSize(item.size); };
    if (changes & (kRemoved | kAdded)) {
        const ComparedItem &only = difference.first ? *difference.first : *difference.second;
        const bool isSized = arguments_.summary && only.IsFile();
        return "only in " + Printable((difference.first ? first_ : second_).label) +
               (isSized ? ", " + sizeOf(only) : "");
    }
    const ComparedItem &first = *difference.first, &second = *difference.second;
    std::string words;
    const auto say = [&](Changed change, const std::string &text) {
        if (changes & change) words += (words.empty() ? "" : "; ") + text;
    };
    say(kKind, _NameOfKind(first) + ", now " + _NameOfKind(second));
    if (first.IsLink())
        say(kContent, "a link to " + Quoted(first.target) + ", now to " + Quoted(second.target));
    else if (arguments_.summary)
        say(kContent, "content " + sizeOf(first) + ", now " + sizeOf(second));
    say(kAttributes, "attributes" + _ListOf(difference.attributes));
    say(kTimes, "modified " + _TimesOf(first, second));
    say(kRights, "rights " + _RightsOf(first) + ", now " + _RightsOf(second));
    say(kOwner, "owner " + _OwnersOf(first) + ", now " + _OwnersOf(second));
    say(kAccessList, "access list");
    say(kFlags, "flags " + _FlagsOf(first) + ", now " + _FlagsOf(second));
    const bool stays =
        difference.below.empty() && !second_.isKept && !second_.isItem && (changes & kOfTheDocument) != 0;
    return words + (stays ? " (a restore in place keeps the document's)" : "");
}

// "change" is the one word that says most.
void DifferencePrinter::ShowJson(const Difference &difference) const
{
    Json object, words = Json::array();
    for (const auto &row : kChanges)
        if (difference.changes & row.change) words.push_back(row.word);
    PutBytes(object, "path", difference.below);
    object["change"] = words.front();
    object["changes"] = words;
    PrintLine(object);
}

void DifferencePrinter::Show(const Difference &difference)
{
    ++count_;
    for (const auto &row : kChanges)
        if (difference.changes & row.change) ++counts_[row.change];
    if (difference.changes & (kRemoved | kAdded | kKind | kContent)) {
        if (difference.first && difference.first->IsFile()) before_ += difference.first->size;
        if (difference.second && difference.second->IsFile()) now_ += difference.second->size;
    }
    if (arguments_.json) return ShowJson(difference);
    const std::string path = _Path(difference);
    if (arguments_.namesOnly) {
        puts((_IsTerminal() ? Printable(path) : path).c_str());
        return;
    }
    if (const std::string words = WordsFor(difference); !words.empty())
        printf("%s: %s\n", Printable(path).c_str(), words.c_str());
    if ((difference.changes & kContent) && difference.first->IsFile() && !arguments_.summary) ShowContents(difference);
}

void DifferencePrinter::ShowTotals() const
{
    const std::string items = std::to_string(count_) + (count_ == 1 ? " item" : " items");
    std::string words;
    for (const auto &row : kChanges) {
        const auto counted = counts_.find(row.change);
        if (counted == counts_.end()) continue;
        if (counts_.size() == 1 && row.change > kKind) {
            words = std::string("only ") + row.ofMany + " differ: " + items;
            break;
        }
        words += (words.empty() ? items + (count_ == 1 ? " differs: " : " differ: ") : ", ") + row.ofMany + " " +
                 std::to_string(counted->second);
    }
    if (count_ == 0) words = "nothing differs";
    if (before_ != 0 || now_ != 0) words += "; " + HumanSize(before_) + ", now " + HumanSize(now_);
    printf("%s\n", words.c_str());
}

void DifferencePrinter::Finish() const
{
    if (arguments_.summary) ShowTotals();
}
