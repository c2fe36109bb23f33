// See subcommands.h. help.h has what the help of a subcommand says besides.

#include "subcommands.h"

#include "help.h"

// Options may stand before the command or behind it.
static void _AddCommonOptions(CLI::App *app, Arguments &arguments)
{
    app->set_help_flag("-h,--help", "Show this help and exit");
    app->add_option("--store", arguments.store, "The store's directory")->option_text("DIR");
    app->add_option("--wait", arguments.wait, "Give up after waiting for the store so long in all")
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

static void _AddNoPager(CLI::App *command, Arguments &arguments)
{
    command->add_flag("--no-pager", arguments.noPager, "Don't show what is long page by page");
}

static std::string _RequireText(const std::string &text)
{
    return text.empty() ? "wants a name, and not \"\"" : "";
}

// A generation has a NAME, or is chosen of a DOCUMENT's.
static void _AddChoice(CLI::App *command, Arguments &arguments)
{
    Choice &choice = arguments.choice;
    CLI::Option *latest = command->add_flag("--latest", choice.latest, "The newest generation of a DOCUMENT");
    latest->option_text(" ");
    CLI::Option *at = command->add_option("--at", choice.at, "The newest one at that time");
    at->option_text("TIME")->excludes(latest);
    command->add_option("--before", choice.before, "The newest one before it")
        ->option_text("TIME")
        ->excludes(latest)
        ->excludes(at);
    command->footer(kChoiceFooter + command->get_footer());
}

// One item of a folder, which is otherwise typed behind the NAME.
static void _AddItem(CLI::App *command, Arguments &arguments)
{
    command->add_option("--path", arguments.item, "Only this item of a folder")->option_text("PATH");
    command->footer(kItemFooter + command->get_footer());
}

static void _AddName(CLI::App *command, Arguments &arguments)
{
    command->add_option("NAME", arguments.name, "The generation")->required()->option_text(" ");
}

static void _DefineAdd(CLI::App &app, Arguments &arguments)
{
    CLI::App *add = _AddCommand(app, arguments, Command::Add, "add", "Keep documents as they are now", kAddFooter);
    add->add_option("DOCUMENT", arguments.documents, "What to keep")->required()->option_text("...");
    CLI::Option *move =
        add->add_flag("--move", arguments.move, "Move the document into the store instead of copying it");
    move->option_text(" ");
    add->add_flag("--if-changed", arguments.ifChanged, "Only if it differs from its newest version")
        ->option_text(" ")
        ->excludes(move);
    CLI::Option *name = add->add_option("--name", arguments.newName, "What to call the generation (one DOCUMENT only)");
    name->option_text("NAME");
    add->add_option("--tag", arguments.tags, "What to note of it; may be given several times")
        ->option_text("KEY=VALUE")
        ->allow_extra_args(false);
    add->add_flag("--pin", arguments.pin, "Keep the generation from being pruned");
    add->add_flag("--retry", arguments.retry, "Read a document once more that changed while it was read")
        ->option_text(" ")
        ->excludes(name);
    add->add_flag("--no-links", arguments.noLinks, "Refuse a document that holds a symbolic link");
    add->add_flag("--no-share", arguments.noShare, "Copy the files that have not changed, too");
    add->add_flag("--seal", arguments.seal, "Seal it, as seal does");
    _AddJson(add, arguments);
}

// What is wrong with a text that is to be a count; nothing if it is one.
static std::string _RequireCount(const std::string &text)
{
    const bool isCount =
        !text.empty() && text.size() < 10 && text[0] != '0' && text.find_first_not_of("0123456789") == text.npos;
    return isCount ? "" : "wants a number, 1 or more, and not \"" + text + "\"";
}

static void _DefineList(CLI::App &app, Arguments &arguments)
{
    CLI::App *list = _AddCommand(app, arguments, Command::List, "list", "Show what is kept", kListFooter);
    list->add_option("DOCUMENT", arguments.document, "Only generations of this document")
        ->option_text(" ")
        ->check(_RequireText);
    CLI::Option *isLong = list->add_flag("--long", arguments.longList, "Show options and display names too");
    isLong->option_text(" ");
    list->add_option("--since", arguments.since, "Only generations since that time")->option_text("TIME");
    list->add_option("--until", arguments.until, "Only generations up to that time")->option_text("TIME");
    CLI::Option *limit = list->add_option("--limit", arguments.limit, "Only the newest N");
    limit->option_text("N")->check(_RequireCount);
    list->add_flag("--reverse", arguments.reverse, "Newest first");
    list->add_flag("--documents", arguments.byDocument, "One line a document")
        ->option_text(" ")
        ->excludes(limit)
        ->excludes(isLong);
    list->add_option("--client", arguments.client, "Only generations of this client: draftline or nimbusync")
        ->option_text("CLIENT")
        ->check(CLI::IsMember({"draftline", "nimbusync"}));
    list->add_option("--with-options", arguments.withOptions, "Only with one of these option bits")
        ->option_text("WORD");
    list->add_option("--without-options", arguments.withoutOptions, "Only with none of these option bits")
        ->option_text("WORD");
    _AddJson(list, arguments);
    _AddNoPager(list, arguments);
}

static void _DefineSet(CLI::App &app, Arguments &arguments)
{
    CLI::App *set =
        _AddCommand(app, arguments, Command::Set, "set", "Change what is known of a generation", kSetFooter);
    _AddName(set, arguments);
    set->add_option("KEY=VALUE", arguments.assignments, "What to set in its info dictionary")->option_text("...");
    set->add_option("--unset", arguments.unset, "Remove a key")->option_text("KEY")->allow_extra_args(false);
    set->add_option("--display-name", arguments.displayName, "What to show the document as; \"\" for nothing")
        ->option_text("NAME");
    set->add_option("--options", arguments.options, "The options word, such as 0x4")->option_text("WORD");
    _AddChoice(set, arguments);
    _AddJson(set, arguments);
}

static void _DefineDiff(CLI::App &app, Arguments &arguments)
{
    CLI::App *diff = _AddCommand(app, arguments, Command::Diff, "diff", "Show what has changed since", kDiffFooter);
    _AddName(diff, arguments);
    diff->add_option("OTHER", arguments.other, "A document, or another generation")
        ->option_text(" ")
        ->check(_RequireText);
    CLI::Option *summary = diff->add_flag("--stat", arguments.summary, "One line an item, and a count");
    summary->option_text(" ");
    CLI::Option *names = diff->add_flag("--name-only", arguments.namesOnly, "Only the paths of what differs");
    names->option_text(" ")->excludes(summary);
    diff->add_flag("--times", arguments.times, "Compare times of modification, too");
    _AddItem(diff, arguments);
    _AddChoice(diff, arguments);
    _AddJson(diff, arguments);
    diff->get_option("--json")->option_text(" ")->excludes(summary)->excludes(names);
    _AddNoPager(diff, arguments);
}

// NAME DOCUMENT, or DOCUMENT alone with a choice.
static void _DefineRestore(CLI::App &app, Arguments &arguments)
{
    CLI::App *restore =
        _AddCommand(app, arguments, Command::Restore, "restore", "Bring a document back in place", kRestoreFooter);
    restore->add_option("[NAME] DOCUMENT", arguments.names, "The generation, and the document to replace")
        ->required()
        ->expected(1, 2)
        ->option_text(" ");
    CLI::Option *backup = restore->add_option("--backup", arguments.backup, "What to keep its present state as");
    backup->option_text("NAME");
    restore->add_flag("--no-backup", arguments.noBackup, "Don't keep its present state")
        ->option_text(" ")
        ->excludes(backup);
    restore->add_flag("--replace", arguments.replace, "Also over another document, or a folder over a file");
    _AddItem(restore, arguments);
    _AddChoice(restore, arguments);
    _AddJson(restore, arguments);
}

static void _DefineMoved(CLI::App &app, Arguments &arguments)
{
    CLI::App *moved =
        _AddCommand(app, arguments, Command::Moved, "moved", "Tell vaultry that a document was moved", kMovedFooter);
    moved->add_option("OLD", arguments.document, "The path that it had")->required()->option_text(" ");
    moved->add_option("NEW", arguments.other, "The path that it has")->required()->option_text(" ");
    moved->add_flag("--anyway", arguments.anyway, "Also from or to a path where it does not look so");
    _AddJson(moved, arguments);
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

static void _DefineRemove(CLI::App &app, Arguments &arguments)
{
    CLI::App *remove =
        _AddCommand(app, arguments, Command::Remove, "remove", "Remove generations from the store", kRemoveFooter);
    remove->add_option("NAME", arguments.names, "The generations")->required()->option_text("...");
    remove->add_flag("--pinned", arguments.pinnedToo, "Remove them even if they are pinned");
    _AddChoice(remove, arguments);
    _AddJson(remove, arguments);
}

static void _DefinePin(CLI::App &app, Arguments &arguments, Command command, const char *name, const char *description)
{
    CLI::App *pin = _AddCommand(app, arguments, command, name, description, kPinFooter);
    pin->add_option("NAME", arguments.names, "The generations")->required()->option_text("...");
    _AddChoice(pin, arguments);
    _AddJson(pin, arguments);
}

static void _DefinePrune(CLI::App &app, Arguments &arguments)
{
    CLI::App *prune = _AddCommand(app, arguments, Command::Prune, "prune", "Remove generations by rules", kPruneFooter);
    prune->add_option("DOCUMENT", arguments.documents, "Only generations of these documents")->option_text("...");
    const auto addCount = [prune](const char *name, size_t &count, const char *description) {
        prune->add_option(name, count, description)->option_text("N")->check(_RequireCount);
    };
    addCount("--keep-last", arguments.keep.last, "Keep the N newest");
    prune->add_option("--keep-within", arguments.keepWithin, "Keep all from that time until now")->option_text("SPAN");
    addCount("--keep-hourly", arguments.keep.spans[0], "Keep the newest of each of N hours");
    addCount("--keep-daily", arguments.keep.spans[1], "Keep the newest of each of N days");
    addCount("--keep-weekly", arguments.keep.spans[2], "Keep the newest of each of N weeks");
    addCount("--keep-monthly", arguments.keep.spans[3], "Keep the newest of each of N months");
    addCount("--keep-yearly", arguments.keep.spans[4], "Keep the newest of each of N years");
    prune->add_flag("--foreign", arguments.foreign, "Prune generations of other programs, too");
    prune->add_flag("--dry-run", arguments.isDryRun, "Only show what would be kept and removed");
    _AddJson(prune, arguments);
    _AddNoPager(prune, arguments);
}

static void _DefineSeal(CLI::App &app, Arguments &arguments)
{
    CLI::App *seal = _AddCommand(app, arguments, Command::Seal, "seal", "Note what generations hold", kSealFooter);
    CLI::Option *names = seal->add_option("NAME", arguments.names, "The generations");
    names->option_text("...");
    seal->add_flag("--all", arguments.all, "All that are not sealed yet")->option_text(" ")->excludes(names);
    _AddChoice(seal, arguments);
    _AddJson(seal, arguments);
    seal->callback([&arguments] {
        arguments.command = Command::Seal;
        if (arguments.names.empty() != arguments.all || (arguments.all && arguments.choice.isMade()))
            throw CLI::ValidationError("seal", "wants a NAME, or --all");
    });
}

static void _DefineClone(CLI::App &app, Arguments &arguments)
{
    CLI::App *clone = _AddCommand(app, arguments, Command::Clone, "clone", "Copy a whole store", kCloneFooter);
    clone->add_option("[STORE] TARGET", arguments.names, "The store, and where its copy is to be")
        ->required()
        ->expected(1, 2)
        ->option_text(" ");
    _AddJson(clone, arguments);
}

void DefineCommands(CLI::App &app, Arguments &arguments)
{
    _AddCommonOptions(&app, arguments);
    _AddJson(_AddCommand(app, arguments, Command::Init, "init", "Make a store", kInitFooter), arguments);

    _DefineAdd(app, arguments);

    _DefineList(app, arguments);

    CLI::App *show = _AddCommand(app, arguments, Command::Show, "show", "Show all of one generation", kShowFooter);
    _AddName(show, arguments);
    _AddItem(show, arguments);
    _AddChoice(show, arguments);
    _AddJson(show, arguments);
    _AddNoPager(show, arguments);

    CLI::App *copy =
        _AddCommand(app, arguments, Command::Copy, "copy", "Bring a generation back as a document", kCopyFooter);
    _AddName(copy, arguments);
    copy->add_option("DESTINATION", arguments.destination, "Where to")->required()->option_text(" ");
    _AddItem(copy, arguments);
    _AddChoice(copy, arguments);
    _AddJson(copy, arguments);

    _DefineRestore(app, arguments);

    CLI::App *undo = _AddCommand(app, arguments, Command::Undo, "undo", "Undo the last restore", kUndoFooter);
    undo->add_option("DOCUMENT", arguments.document, "The document that was restored")->required()->option_text(" ");
    _AddJson(undo, arguments);

    _DefineMoved(app, arguments);

    _DefineDiff(app, arguments);

    _DefineSet(app, arguments);

    _DefineRemove(app, arguments);
    _DefinePrune(app, arguments);

    _DefinePin(app, arguments, Command::Pin, "pin", "Keep generations from being pruned");
    _DefinePin(app, arguments, Command::Unpin, "unpin", "Let generations be pruned again");

    _DefineSeal(app, arguments);
    CLI::App *usage = _AddCommand(app, arguments, Command::Usage, "usage", "Show what takes the room", kUsageFooter);
    usage->add_option("DOCUMENT", arguments.document, "Only generations of this document")->option_text(" ");
    _AddJson(usage, arguments);
    _AddNoPager(usage, arguments);
    _DefineClone(app, arguments);

    CLI::App *check = _AddCommand(app, arguments, Command::Check, "check", "Verify a store", kCheckFooter);
    check->add_option("STORE", arguments.checked, "The store's directory")->option_text(" ");
    check->add_flag("--repair", arguments.repair, "Mend what is safe to mend");
    check->add_flag("--read", arguments.readAll, "Read all that is sealed, too");
    _AddJson(check, arguments);

    CLI::App *destroy = _AddCommand(app, arguments, Command::Destroy, "destroy",
                                    "Remove the whole store with all generations", kDestroyFooter);
    destroy->add_flag("--yes", arguments.yes, "Don't ask");
    _AddJson(destroy, arguments);

    _DefineCompletion(app, arguments);
}
