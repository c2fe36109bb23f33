// The command line: what is understood of it, and the answer to what is not. subcommands.h has what each takes.

#include "arguments.h"

#include "completion.h"
#include "failure.h"
#include "nearest.h"
#include "subcommands.h"
#include "text.h"

#include <vaultry/version.h>

#include <CLI/CLI.hpp>

static constexpr char kDescription[] =
    "vaultry keeps earlier versions of documents in a protected store and brings them back.";

static constexpr char kFooter[] = R"(
The store is the directory that --store names, else $VAULTRY_STORE, else
$XDG_DATA_HOME/vaultry/store (~/.local/share/vaultry/store). Only this last one
is made when the first document is added; "vaultry init" makes any.

Exit status:
  0  done                     4  something of that name exists
  1  failed                   5  permission denied, or a read-only file system
  2  wrong usage              6  no space
  3  no generation or store   7  kept, but changed while it was read
  8  another program has the store, and --wait is over
130  stopped by Ctrl-C

Examples:
  vaultry add report.txt                 keep report.txt as it is now
  vaultry list report.txt                what is kept of it
  vaultry restore --latest report.txt    back as it was; its present state is kept
  vaultry copy report-2026-03 /tmp       a copy of it; the beginning of a name will do

"vaultry COMMAND --help" explains a command.)";

// An argument whose name stands for two things, "[NAME] DOCUMENT", is shown without a count.
class Formatter : public CLI::Formatter {
public:
    std::string make_option_usage(const CLI::Option *option) const override
    {
        const bool namesTwo = option->get_expected_max() == 2;
        return namesTwo ? make_option_name(option, /*is_positional=*/true) : CLI::Formatter::make_option_usage(option);
    }
};

static void _SortOutRestore(Arguments &arguments)
{
    const bool isChosen = arguments.choice.isMade();
    if (isChosen && arguments.names.size() != 1)
        throw CLI::ValidationError("restore", "--latest, --at and --before take the DOCUMENT alone");
    arguments.document = arguments.names.back();
    arguments.name = isChosen ? arguments.document : arguments.names.size() == 2 ? arguments.names.front() : "";
}

// Words that people bring along from other commands.
static std::optional<std::string> _CommandFor(const std::string &word)
{
    static const std::map<std::string, std::string> commands = {
        {"save", "add"},      {"keep", "add"},     {"ls", "list"},      {"log", "list"},     {"history", "list"},
        {"info", "show"},     {"cp", "copy"},      {"get", "copy"},     {"extract", "copy"}, {"revert", "restore"},
        {"back", "restore"},  {"rm", "remove"},    {"forget", "prune"}, {"thin", "prune"},   {"clean", "prune"},
        {"delete", "remove"}, {"verify", "check"}, {"fsck", "check"},   {"create", "init"},  {"help", "--help"},
        {"du", "usage"},      {"mirror", "clone"},
    };
    const auto found = commands.find(word);
    return found == commands.end() ? std::nullopt : std::optional(found->second);
}

// Which word nothing takes, and what may have been meant by it; "" if something else is wrong.
static std::string _WrongWord(const CLI::App &app)
{
    const std::vector<std::string> words = app.remaining(/*recurse=*/true);
    if (words.empty()) return "";
    const bool hasCommand = !app.get_subcommands().empty();
    const CLI::App &command = hasCommand ? *app.get_subcommands().front() : app;
    const std::string word = words.front().substr(0, words.front().find_first_of(std::string_view("=\0", 2)));
    std::vector<std::string> candidates;
    if (word.size() > 1 && word[0] == '-') {
        for (const CLI::Option *option : command.get_options())
            for (const std::string &name : option->get_lnames()) candidates.push_back("--" + name);
        const auto nearest = NearestTo(word, candidates, Match::Whole);
        if (nearest == word) return Quoted(word) + " belongs after the command";
        return (hasCommand ? command.get_name() + " has" : "there is") + " no option " + Quoted(word) +
               DidYouMean(nearest);
    }
    if (hasCommand) return "";
    for (const CLI::App *each : app.get_subcommands({})) candidates.push_back(each->get_name());
    std::optional<std::string> meant = _CommandFor(word);
    if (!meant) meant = NearestTo(word, candidates, Match::Whole);
    return "there is no command " + Quoted(word) + DidYouMean(meant);
}

// The parser takes a word in brackets for a list of words. A zero byte behind it, which no argument can hold, keeps it
// from that until the word is taken.
static std::vector<std::string> _WordsBackwards(int argc, char **argv)
{
    std::vector<std::string> words;
    for (int i = argc - 1; i > 0; --i) {
        words.emplace_back(argv[i]);
        const size_t value = words.back()[0] == '-' ? words.back().find('=') + 1 : 0;
        if (value < words.back().size() && words.back()[value] == '[' && words.back().back() == ']')
            words.back() += '\0';
    }
    return words;
}

static void _TakeWordsAsTheyAre(CLI::App &app)
{
    for (CLI::Option *option : app.get_options())
        if (option->get_items_expected_max() > 0)
            option->transform([](std::string word) {
                if (!word.empty() && word.back() == '\0') word.pop_back();
                return word;
            });
    for (CLI::App *command : app.get_subcommands({})) _TakeWordsAsTheyAre(*command);
}

// Told from the words alone, since a line that can't be read is told to a program, too.
static bool _WantsJson(int argc, char **argv)
{
    for (int i = 1; i < argc && argv[i] != std::string_view("--"); ++i)
        if (argv[i] == std::string_view("--json")) return true;
    return false;
}

std::optional<int> ParseArguments(int argc, char **argv, Arguments &arguments)
{
    CLI::App app(kDescription, "vaultry");
    app.footer(kFooter + 1);
    app.formatter(std::make_shared<Formatter>());
    app.get_formatter()->column_width(24);
    app.set_version_flag("--version", "vaultry " VAULTRY_VERSION, "Show the version and exit");
    app.require_subcommand(1);
    const bool wantsJson = _WantsJson(argc, argv);
    if (wantsJson) SayInJson();
    app.failure_message([wantsJson](const CLI::App *parsed, const CLI::Error &error) {
        const std::string wrong = _WrongWord(*parsed);
        const CommandFailure failure(kExitUsage, wrong.empty() ? error.what() : wrong);
        return failure.Line() + (wantsJson ? "" : "Try \"vaultry --help\".\n");
    });
    DefineCommands(app, arguments);
    if (argc > 1 && argv[1] == std::string_view(kCompleteWord)) {
        PrintCandidates(app, std::vector<std::string>(argv + 2, argv + argc));
        return kExitSuccess;
    }
    try {
        _TakeWordsAsTheyAre(app);
        app.parse(_WordsBackwards(argc, argv));
        if (arguments.newName && arguments.documents.size() > 1)
            throw CLI::ValidationError("--name", "names one generation, but there are several documents");
        if (arguments.command == Command::Restore) _SortOutRestore(arguments);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? kExitSuccess : kExitUsage;
    }
    if (arguments.command != Command::Completion) return std::nullopt;
    PrintCompletion(arguments.shell);
    return kExitSuccess;
}
