// The command line: subcommands, options, and the help that explains them.

#include "arguments.h"

#include "failure.h"

#include <CLI/CLI.hpp>

#ifndef VAULTRY_VERSION
#define VAULTRY_VERSION "1.0.0"
#endif

static constexpr char kDescription[] =
    "vaultry keeps earlier versions of documents in a protected store and brings them back.";

static constexpr char kFooter[] = R"(
The store is the directory that --store names, else $VAULTRY_STORE, else
$XDG_DATA_HOME/vaultry/store (~/.local/share/vaultry/store). It is made when
the first document is added.

Exit status:
  0  done                     4  something of that name exists
  1  failed                   5  permission denied, or a read-only file system
  2  wrong usage              6  no space
  3  no such generation     130  stopped by Ctrl-C

Examples:
  vaultry add report.txt                 keep report.txt as it is now
  vaultry list report.txt                what is kept of it
  vaultry copy "report 2026-03-01T10.15.30Z.txt" /tmp

"vaultry COMMAND --help" explains a command.)";

static constexpr char kAddFooter[] = R"(
Each document, a file or a directory with all that is in it, becomes a
generation: a copy that nothing can change. Its name is printed. Files named
"._..." are left out; symbolic links, FIFOs, sockets and devices can't be kept.
A document that is itself a link is resolved first. Ctrl-C leaves nothing
behind.

Examples:
  vaultry add report.txt Photos/         as "report 2026-03-01T10.15.30Z.txt", ...
  vaultry add --name before-review report.txt
  vaultry add --move old-draft.txt       into the store, and away from here)";

static constexpr char kListFooter[] = R"(
Oldest first. Times are local. A generation that another program added may have
no time and no document.

Examples:
  vaultry list
  vaultry list report.txt                the history of one document)";

static constexpr char kCopyFooter[] = R"(
What is copied is an ordinary document again, with the permissions that it had.
As with cp, a DESTINATION that is a directory receives it under the document's
own name, and any other DESTINATION is its new name. Nothing that exists is
ever replaced. The path of the copy is printed. Copying can't be interrupted
half-way: after Ctrl-C it is removed as soon as it is through; a second Ctrl-C
ends at once and leaves what has been written.

Examples:
  vaultry copy before-review report-old.txt
  vaultry copy "report 2026-03-01T10.15.30Z.txt" /tmp    to /tmp/report.txt)";

static constexpr char kRemoveFooter[] = R"(
Names that the store doesn't hold are reported; the others are removed.

Example:
  vaultry remove before-review)";

static constexpr char kDestroyFooter[] = R"(
Says how many generations go, and asks first. Refuses a directory that is no
store.

Example:
  vaultry destroy --store /tmp/try --yes)";

static constexpr char kInitFooter[] = R"(
Makes the directory, for you alone, or takes an empty one. Nothing changes in
a directory that is a store already, and any other is refused.

Example:
  vaultry init --store /srv/versions)";

// Options may stand before the command or behind it.
static void _AddCommonOptions(CLI::App *app, Arguments &arguments)
{
    app->set_help_flag("-h,--help", "Show this help and exit");
    app->add_option("--store", arguments.store, "The store's directory")->option_text("DIR");
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

static void _DefineCommands(CLI::App &app, Arguments &arguments)
{
    _AddCommand(app, arguments, Command::Init, "init", "Make a store", kInitFooter);

    CLI::App *add = _AddCommand(app, arguments, Command::Add, "add", "Keep documents as they are now", kAddFooter);
    add->add_option("DOCUMENT", arguments.documents, "What to keep")->required()->option_text("...");
    add->add_flag("--move", arguments.move, "Move the document into the store instead of copying it");
    CLI::Option *name = add->add_option("--name", arguments.newName, "What to call the generation (one DOCUMENT only)");
    name->option_text("NAME");

    CLI::App *list = _AddCommand(app, arguments, Command::List, "list", "Show what is kept", kListFooter);
    list->add_option("DOCUMENT", arguments.document, "Only generations of this document")->option_text(" ");

    CLI::App *copy =
        _AddCommand(app, arguments, Command::Copy, "copy", "Bring a generation back as a document", kCopyFooter);
    copy->add_option("NAME", arguments.name, "The generation")->required()->option_text(" ");
    copy->add_option("DESTINATION", arguments.destination, "Where to")->required()->option_text(" ");

    CLI::App *remove =
        _AddCommand(app, arguments, Command::Remove, "remove", "Remove generations from the store", kRemoveFooter);
    remove->add_option("NAME", arguments.names, "The generations")->required()->option_text("...");

    CLI::App *destroy = _AddCommand(app, arguments, Command::Destroy, "destroy",
                                    "Remove the whole store with all generations", kDestroyFooter);
    destroy->add_flag("--yes", arguments.yes, "Don't ask");
}

std::optional<int> ParseArguments(int argc, char **argv, Arguments &arguments)
{
    CLI::App app(kDescription, "vaultry");
    app.footer(kFooter + 1);
    app.get_formatter()->column_width(24);
    app.set_version_flag("--version", "vaultry " VAULTRY_VERSION, "Show the version and exit");
    app.require_subcommand(1);
    app.failure_message([](const CLI::App *, const CLI::Error &error) {
        return std::string("vaultry: ") + error.what() + "\nTry \"vaultry --help\".\n";
    });
    _AddCommonOptions(&app, arguments);
    _DefineCommands(app, arguments);
    try {
        app.parse(argc, argv);
        if (arguments.newName && arguments.documents.size() > 1)
            throw CLI::ValidationError("--name", "names one generation, but there are several documents");
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? kExitSuccess : kExitUsage;
    }
    return std::nullopt;
}
