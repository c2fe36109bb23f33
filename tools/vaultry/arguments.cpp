// The command line: subcommands, options, and the help that explains them.

#include "arguments.h"

#include "completion.h"
#include "failure.h"

#include <CLI/CLI.hpp>

#ifndef VAULTRY_VERSION
#define VAULTRY_VERSION "1.0.0"
#endif

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
  3  no generation or store   8  another program has the store, and --wait is over
                            130  stopped by Ctrl-C

Examples:
  vaultry add report.txt                 keep report.txt as it is now
  vaultry list report.txt                what is kept of it
  vaultry restore --latest report.txt    back as it was; its present state is kept
  vaultry copy report-2026-03 /tmp       a copy of it; the beginning of a name will do

"vaultry COMMAND --help" explains a command.)";

static constexpr char kAddFooter[] = R"(
Each document, a file or a directory with everything in it, becomes a
generation: a write-protected copy. Its name is printed. Files named "._..."
are left out; FIFOs, sockets and devices can't be kept. Symbolic links are kept
as links; a document that is itself a link is resolved first. A file of a
directory that is the same in the document's newest generation shares its room
with that, as a hard link, after a comparison of every byte, unless it can be
cloned or the document is moved. Ctrl-C leaves nothing behind.

Examples:
  vaultry add report.txt Photos/         as report-2026-03-01T10-15-30Z.txt, ...
  vaultry add --name before-review report.txt
  vaultry add --move old-draft.txt       into the store, and away from here)";

static constexpr char kListFooter[] = R"(
Oldest first. Times are local. A generation that another program added may have
no time and no document. If the metadata of one can't be read, "?" stands in
their place, a message says what is wrong, and the exit status is that of a
failure; the others are listed all the same. With a DOCUMENT, a generation whose
document can't be read is not listed, but has its message. With --json, one
object a line: name, document, kept, size, options, display_name, and problems,
a list of messages, where there are any.

Examples:
  vaultry list
  vaultry list report.txt                the history of one document
  vaultry list --long --client nimbusync)";

static constexpr char kShowFooter[] = R"(
Permissions and flags are those that the document had, not those that protect
the generation. What can't be read is left out, a message says what is wrong,
and the exit status is that of a failure. With --json the messages are also
listed under problems.

Example:
  vaultry show before-review)";

static constexpr char kRestoreFooter[] = R"(
The document keeps its own permissions and flags. Its present state is kept
first, as a generation of its own whose name is printed; nothing is lost by
restoring the wrong one. If another program saves the file meanwhile, the
restore fails and keeps what was saved. If the generation's name ends in another
extension, the document gets that extension. A document that is gone is copied
back.

A TIME is local, 2026-03-01 or "2026-03-01 10:15:30", or UTC with a Z at its
end. It stands for the last moment of the day, minute or second that it names.

Examples:
  vaultry restore --latest report.txt
  vaultry restore --at 2026-03-01 report.txt
  vaultry restore before-review report.txt)";

static constexpr char kDiffFooter[] = R"(
Compares with the document that the generation was made from, or with another
document or generation. Exit status 0 if nothing differs, 1 if something does,
2 or more if that can't be told.

Examples:
  vaultry diff before-review
  vaultry diff before-review after-review)";

static constexpr char kSetFooter[] = R"(
key=text sets a text, key:=json a number, true or false, a list or a dictionary;
{"$date": "2026-03-01T10:15:30Z"} and {"$data": "base64"} are a date and bytes.

Examples:
  vaultry set before-review author=Ada reviewed:=true
  vaultry set before-review --unset author --display-name "Report")";

static constexpr char kCheckFooter[] = R"(
Each finding is shown with its path and its meaning. --repair mends what is safe
to mend: it puts protection back, returns a document that an interrupted
operation left aside to its place, and removes anything else that the operation
left behind. An item that may be in use stays for an hour after its last change.
The contents of generations are never touched.

Example:
  vaultry check --repair)";

static constexpr char kCompletionFooter[] = R"(
Commands, options, their values and the names of generations are completed.

Examples:
  source <(vaultry completion bash)      in ~/.bashrc
  source <(vaultry completion zsh)       in ~/.zshrc, behind compinit
  vaultry completion fish | source       in ~/.config/fish/config.fish)";

static constexpr char kCopyFooter[] = R"(
The copy is an ordinary document again, with the permissions that it had.
As with cp, a DESTINATION that is a directory receives it under the document's
own name, and any other DESTINATION is its new name. Nothing that exists is
ever replaced. The path of the copy is printed. Copying can't be interrupted
half-way: after Ctrl-C the copy is removed as soon as it is complete; a second
Ctrl-C ends at once and leaves what has been written.

Examples:
  vaultry copy before-review report-old.txt
  vaultry copy report-2026-03-01T10-15-30Z.txt /tmp    to /tmp/report.txt)";

static constexpr char kRemoveFooter[] = R"(
Give the whole name of a generation here: a beginning that is typed once too
often could remove another one. Names that the store doesn't hold are reported;
the others are removed.

Example:
  vaultry remove before-review)";

static constexpr char kDestroyFooter[] = R"(
Says how many generations go, and asks first. Refuses a directory that is not a
store, and a store with a document that an interrupted operation left aside,
which "check --repair" gives back. If it is cut short, call it again: it goes on.

Example:
  vaultry destroy --store /tmp/try --yes)";

static constexpr char kInitFooter[] = R"(
Makes the directory, for you alone, or takes an empty one. Nothing changes in
a directory that is a store already, and any other is refused.

Example:
  vaultry init --store /srv/versions)";

// An argument whose name stands for two things, "[NAME] DOCUMENT", is shown without a count.
class Formatter : public CLI::Formatter {
public:
    std::string make_option_usage(const CLI::Option *option) const override
    {
        const bool namesTwo = option->get_expected_max() == 2;
        return namesTwo ? make_option_name(option, /*is_positional=*/true) : CLI::Formatter::make_option_usage(option);
    }
};

// Options may stand before the command or behind it.
static void _AddCommonOptions(CLI::App *app, Arguments &arguments)
{
    app->set_help_flag("-h,--help", "Show this help and exit");
    app->add_option("--store", arguments.store, "The store's directory")->option_text("DIR");
    app->add_option("--wait", arguments.wait, "Give up when another program has the store for so long")
        ->option_text("SECONDS")
        ->check([](const std::string &text) {
            double seconds = -1;
            const bool isTime = CLI::detail::lexical_cast(text, seconds) && seconds >= 0;
            return isTime ? "" : "wants seconds, 0 or more, and not \"" + text + "\"";
        });
    app->add_flag("-v,--verbose", arguments.verbose, "Show the library's diagnostic lines");
}

static CLI::App *_AddCommand(CLI::App &app, Arguments &arguments, Command command, const char *name,
                             const char *description, const char *footer)
{
    CLI::App *subcommand = app.add_subcommand(name, description);
    subcommand->footer(footer + 1);
    subcommand->callback([&arguments, command] { arguments.command = command; });
    _AddCommonOptions(subcommand, arguments);
    return subcommand;
}

static void _AddJson(CLI::App *command, Arguments &arguments)
{
    command->add_flag("--json", arguments.json, "Print JSON, one object a line");
}

static void _DefineAdd(CLI::App &app, Arguments &arguments)
{
    CLI::App *add = _AddCommand(app, arguments, Command::Add, "add", "Keep documents as they are now", kAddFooter);
    add->add_option("DOCUMENT", arguments.documents, "What to keep")->required()->option_text("...");
    add->add_flag("--move", arguments.move, "Move the document into the store instead of copying it");
    CLI::Option *name = add->add_option("--name", arguments.newName, "What to call the generation (one DOCUMENT only)");
    name->option_text("NAME");
    add->add_flag("--no-links", arguments.noLinks, "Refuse a document that holds a symbolic link");
    add->add_flag("--no-share", arguments.noShare, "Copy the files that have not changed, too");
    _AddJson(add, arguments);
}

static void _DefineList(CLI::App &app, Arguments &arguments)
{
    CLI::App *list = _AddCommand(app, arguments, Command::List, "list", "Show what is kept", kListFooter);
    list->add_option("DOCUMENT", arguments.document, "Only generations of this document")->option_text(" ");
    list->add_flag("--long", arguments.longList, "Show options and display names too");
    list->add_option("--client", arguments.client, "Only generations of this client: draftline or nimbusync")
        ->option_text("CLIENT")
        ->check(CLI::IsMember({"draftline", "nimbusync"}));
    list->add_option("--with-options", arguments.withOptions, "Only with one of these option bits")
        ->option_text("WORD");
    list->add_option("--without-options", arguments.withoutOptions, "Only with none of these option bits")
        ->option_text("WORD");
    _AddJson(list, arguments);
}

static void _DefineSet(CLI::App &app, Arguments &arguments)
{
    CLI::App *set = _AddCommand(app, arguments, Command::Set, "set", "Change what is known of one", kSetFooter);
    set->add_option("NAME", arguments.name, "The generation")->required()->option_text(" ");
    set->add_option("KEY=VALUE", arguments.assignments, "What to set in its info dictionary")->option_text("...");
    set->add_option("--unset", arguments.unset, "Remove a key")->option_text("KEY")->expected(1)->take_all();
    set->add_option("--display-name", arguments.displayName, "What to show the document as; \"\" for nothing")
        ->option_text("NAME");
    set->add_option("--options", arguments.options, "The options word, such as 0x4")->option_text("WORD");
}

// NAME DOCUMENT, or DOCUMENT alone with --latest or --at.
static void _DefineRestore(CLI::App &app, Arguments &arguments)
{
    CLI::App *restore =
        _AddCommand(app, arguments, Command::Restore, "restore", "Bring a document back in place", kRestoreFooter);
    restore->add_option("[NAME] DOCUMENT", arguments.names, "The generation, and the document to replace")
        ->required()
        ->expected(1, 2)
        ->option_text(" ");
    CLI::Option *latest = restore->add_flag("--latest", arguments.latest, "The newest generation of DOCUMENT");
    latest->option_text(" ");
    restore->add_option("--at", arguments.at, "The newest one at that time")->option_text("TIME")->excludes(latest);
    CLI::Option *backup = restore->add_option("--backup", arguments.backup, "What to keep its present state as");
    backup->option_text("NAME");
    restore->add_flag("--no-backup", arguments.noBackup, "Don't keep its present state")
        ->option_text(" ")
        ->excludes(backup);
    _AddJson(restore, arguments);
}

static void _SortOutRestore(Arguments &arguments)
{
    const size_t wanted = arguments.latest || arguments.at ? 1 : 2;
    if (arguments.names.size() != wanted)
        throw CLI::ValidationError("restore", wanted == 1 ? "--latest and --at take the DOCUMENT alone"
                                                          : "wants a NAME and a DOCUMENT, or --latest or --at");
    arguments.document = arguments.names.back();
    if (wanted == 2) arguments.name = arguments.names.front();
}

static void _DefineCompletion(CLI::App &app, Arguments &arguments)
{
    CLI::App *completion = _AddCommand(app, arguments, Command::Completion, "completion",
                                       "Print the completions of a shell", kCompletionFooter);
    completion->add_option("SHELL", arguments.shell, "bash, zsh or fish")
        ->required()
        ->option_text(" ")
        ->check(CLI::IsMember({"bash", "zsh", "fish"}));
}

static void _DefineCommands(CLI::App &app, Arguments &arguments)
{
    _AddCommand(app, arguments, Command::Init, "init", "Make a store", kInitFooter);

    _DefineAdd(app, arguments);

    _DefineList(app, arguments);

    CLI::App *show = _AddCommand(app, arguments, Command::Show, "show", "Show all of one generation", kShowFooter);
    show->add_option("NAME", arguments.name, "The generation")->required()->option_text(" ");
    _AddJson(show, arguments);

    CLI::App *copy =
        _AddCommand(app, arguments, Command::Copy, "copy", "Bring a generation back as a document", kCopyFooter);
    copy->add_option("NAME", arguments.name, "The generation")->required()->option_text(" ");
    copy->add_option("DESTINATION", arguments.destination, "Where to")->required()->option_text(" ");
    _AddJson(copy, arguments);

    _DefineRestore(app, arguments);

    CLI::App *diff = _AddCommand(app, arguments, Command::Diff, "diff", "Show what has changed since", kDiffFooter);
    diff->add_option("NAME", arguments.name, "The generation")->required()->option_text(" ");
    diff->add_option("OTHER", arguments.other, "A document, or another generation")->option_text(" ");
    _AddJson(diff, arguments);

    _DefineSet(app, arguments);

    CLI::App *remove =
        _AddCommand(app, arguments, Command::Remove, "remove", "Remove generations from the store", kRemoveFooter);
    remove->add_option("NAME", arguments.names, "The generations")->required()->option_text("...");

    CLI::App *check = _AddCommand(app, arguments, Command::Check, "check", "Verify a store", kCheckFooter);
    check->add_option("STORE", arguments.checked, "The store's directory")->option_text(" ");
    check->add_flag("--repair", arguments.repair, "Mend what is safe to mend");
    _AddJson(check, arguments);

    CLI::App *destroy = _AddCommand(app, arguments, Command::Destroy, "destroy",
                                    "Remove the whole store with all generations", kDestroyFooter);
    destroy->add_flag("--yes", arguments.yes, "Don't ask");

    _DefineCompletion(app, arguments);
}

std::optional<int> ParseArguments(int argc, char **argv, Arguments &arguments)
{
    CLI::App app(kDescription, "vaultry");
    app.footer(kFooter + 1);
    app.formatter(std::make_shared<Formatter>());
    app.get_formatter()->column_width(24);
    app.set_version_flag("--version", "vaultry " VAULTRY_VERSION, "Show the version and exit");
    app.require_subcommand(1);
    app.failure_message([](const CLI::App *, const CLI::Error &error) {
        return std::string("vaultry: ") + error.what() + "\nTry \"vaultry --help\".\n";
    });
    _AddCommonOptions(&app, arguments);
    _DefineCommands(app, arguments);
    if (argc > 1 && argv[1] == std::string_view(kCompleteWord)) {
        PrintCandidates(app, std::vector<std::string>(argv + 2, argv + argc));
        return kExitSuccess;
    }
    try {
        app.parse(argc, argv);
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
