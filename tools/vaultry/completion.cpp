// See completion.h.

#include "completion.h"

#include <CLI/CLI.hpp>

#include <cstdio>

struct Choice {
    std::string words; // a subcommand, or the names of an option
    std::string help;
};

static std::vector<Choice> _Subcommands(CLI::App &app)
{
    std::vector<Choice> choices;
    for (const CLI::App *command : app.get_subcommands({}))
        choices.push_back({command->get_name(), command->get_description()});
    return choices;
}

static std::vector<Choice> _Options(const CLI::App &app)
{
    std::vector<Choice> choices;
    for (const CLI::Option *option : app.get_options())
        for (const std::string &name : option->get_lnames())
            if (!option->get_positional() || option->nonpositional())
                choices.push_back({"--" + name, option->get_description()});
    return choices;
}

static std::string _Words(const std::vector<Choice> &choices)
{
    std::string words;
    for (const Choice &choice : choices) words += (words.empty() ? "" : " ") + choice.words;
    return words;
}

// In single quotes of a shell.
static std::string _Quoted(const std::string &text)
{
    std::string quoted = "'";
    for (const char character : text) {
        if (character == '\'')
            quoted += "'\\''";
        else
            quoted += character;
    }
    return quoted + "'";
}

static constexpr char kTakesGenerations[] = "show|copy|restore|diff|set|remove";

static void _PrintBash(CLI::App &app)
{
    printf("_vaultry()\n{\n    local word=${COMP_WORDS[COMP_CWORD]} command='' options='' choices=''\n"
           "    local i\n    for ((i = 1; i < COMP_CWORD; ++i)); do\n"
           "        case ${COMP_WORDS[i]} in\n        --store) ((++i)) ;;\n        -*) ;;\n"
           "        *) command=${COMP_WORDS[i]}; break ;;\n        esac\n    done\n"
           "    case $command in\n    '') choices=%s; options=%s ;;\n",
           _Quoted(_Words(_Subcommands(app))).c_str(), _Quoted(_Words(_Options(app))).c_str());
    for (const CLI::App *command : app.get_subcommands({}))
        printf("    %s) options=%s ;;\n", command->get_name().c_str(), _Quoted(_Words(_Options(*command))).c_str());
    printf(
        "    esac\n    local IFS=$'\\n'\n    case $command in\n    %s)\n"
        "        choices=$(vaultry list --json 2>/dev/null | sed -n 's/^{\"name\":\"\\([^\"\\\\]*\\)\".*/\\1/p') ;;\n"
        "    '') choices=${choices// /$'\\n'} ;;\n    esac\n"
        "    if [[ $word == -* ]]; then choices=${options// /$'\\n'}; fi\n"
        "    local reply\n    COMPREPLY=()\n"
        "    while read -r reply; do COMPREPLY+=(\"$(printf %%q \"$reply\")\"); done "
        "< <(compgen -W \"$choices\" -- \"$word\")\n"
        "}\ncomplete -o default -F _vaultry vaultry\n",
        kTakesGenerations);
}

static void _PrintZsh(CLI::App &app)
{
    printf("#compdef vaultry\n_vaultry()\n{\n    local -a commands\n    commands=(\n");
    for (const Choice &choice : _Subcommands(app))
        printf("        %s\n", _Quoted(choice.words + ":" + choice.help).c_str());
    printf("    )\n    if (( CURRENT == 2 )); then _describe command commands; return; fi\n    case $words[2] in\n");
    for (const CLI::App *command : app.get_subcommands({})) {
        printf("    %s) _arguments", command->get_name().c_str());
        for (const Choice &choice : _Options(*command))
            printf(" \\\n        %s", _Quoted(choice.words + "[" + choice.help + "]").c_str());
        printf(" \\\n        '*:file:_files' ;;\n");
    }
    printf("    esac\n}\nif [ \"$funcstack[1]\" = _vaultry ]; then _vaultry; else compdef _vaultry vaultry; fi\n");
}

static void _PrintFish(CLI::App &app)
{
    for (const Choice &choice : _Subcommands(app))
        printf("complete -c vaultry -n __fish_use_subcommand -a %s -d %s\n", choice.words.c_str(),
               _Quoted(choice.help).c_str());
    for (const CLI::App *command : app.get_subcommands({}))
        for (const Choice &choice : _Options(*command))
            printf("complete -c vaultry -n '__fish_seen_subcommand_from %s' -l %s -d %s\n", command->get_name().c_str(),
                   choice.words.c_str() + 2, _Quoted(choice.help).c_str());
}

void PrintCompletion(CLI::App &app, const std::string &shell)
{
    if (shell == "bash")
        _PrintBash(app);
    else if (shell == "zsh")
        _PrintZsh(app);
    else
        _PrintFish(app);
}
