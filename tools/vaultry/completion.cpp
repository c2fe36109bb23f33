// The candidates that a shell offers. See completion.h.

#include "completion.h"

#include "failure.h"
#include "location.h"
#include "text.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <filesystem>

namespace fs = std::filesystem;

enum class Values { None, Generations, Files, GenerationsAndFiles, Directories };

// Goes by the names that the definition gives to options and arguments.
static Values _ValuesOf(const std::string &name)
{
    static const std::map<std::string, Values> values = {
        {"--store", Values::Directories},
        {"STORE", Values::Directories},
        {"DOCUMENT", Values::Files},
        {"DESTINATION", Values::Files},
        {"OLD", Values::Files},
        {"NEW", Values::Files},
        {"NAME", Values::Generations},
        {"[NAME] DOCUMENT", Values::GenerationsAndFiles},
        {"[STORE] TARGET", Values::Directories},
        {"OTHER", Values::GenerationsAndFiles},
    };
    const auto found = values.find(name);
    return found == values.end() ? Values::None : found->second;
}

// The only words that are allowed; a type's name ends in them, "TEXT:{bash,zsh,fish}".
static std::vector<std::string> _Choices(const CLI::Option &option)
{
    const std::string type = option.get_type_name();
    const size_t open = type.find('{'), close = type.find('}');
    if (open == type.npos || close == type.npos) return {};
    return CLI::detail::split(type.substr(open + 1, close - open - 1), ',');
}

static bool _TakesValue(const CLI::Option &option)
{
    return option.get_items_expected_max() > 0;
}

// The state that the words before the cursor lead to.
class Line {
public:
    explicit Line(const CLI::App &app) : command_(&app) {}

    void Read(const std::string &word)
    {
        if (awaiting_) {
            Take(*std::exchange(awaiting_, nullptr), word);
        } else if (optionsMayCome_ && word == "--") {
            optionsMayCome_ = false;
        } else if (IsOption(word)) {
            const size_t equals = word.find('=');
            const CLI::Option *option = command_->get_option_no_throw(word.substr(0, equals));
            if (!option) return;
            isChosen_ |= IsChoice(*option);
            if (!_TakesValue(*option)) return;
            if (equals == word.npos)
                awaiting_ = option;
            else
                Take(*option, word.substr(equals + 1));
        } else if (command_->get_parent()) {
            ++arguments_;
        } else {
            for (const CLI::App *command : command_->get_subcommands({}))
                if (command->check_name(word)) command_ = command;
        }
    }

    void Complete(const std::string &word)
    {
        const size_t equals = word.find('=');
        if (awaiting_) {
            OfferValues(*awaiting_, "--" + awaiting_->get_lnames().front(), "", word);
        } else if (IsOption(word) && equals != word.npos) {
            const std::string name = word.substr(0, equals);
            const CLI::Option *option = command_->get_option_no_throw(name);
            if (option) OfferValues(*option, name, name + "=", word);
        } else if (optionsMayCome_ && word.rfind('-', 0) == 0) {
            for (const CLI::Option *option : command_->get_options())
                for (const std::string &name : option->get_lnames())
                    Offer("--" + name, word, option->get_description());
        } else if (command_->get_parent()) {
            if (const CLI::Option *argument = Argument()) OfferValues(*argument, argument->get_name(true), "", word);
        } else {
            for (const CLI::App *command : command_->get_subcommands({}))
                Offer(command->get_name(), word, command->get_description());
        }
    }

    void Print() const
    {
        puts(shellAdds_);
        for (const std::string &candidate : candidates_) puts(candidate.c_str());
    }

private:
    bool IsOption(const std::string &word) const { return optionsMayCome_ && word.size() > 1 && word[0] == '-'; }

    // With a choice, a document stands where the name of a generation would.
    static bool IsChoice(const CLI::Option &option)
    {
        return option.check_name("--latest") || option.check_name("--at") || option.check_name("--before");
    }

    void Take(const CLI::Option &option, const std::string &value)
    {
        if (option.check_name("--store")) store_ = value;
    }

    // The argument that comes next; null if there are no more.
    const CLI::Option *Argument() const
    {
        int before = 0;
        for (const CLI::Option *option : command_->get_options()) {
            if (!option->get_positional()) continue;
            before += option->get_items_expected_max();
            if (arguments_ < before) return option;
        }
        return nullptr;
    }

    void OfferValues(const CLI::Option &option, const std::string &name, const std::string &prefix,
                     const std::string &word)
    {
        Values values = _ValuesOf(name);
        if (isChosen_ && (name == "NAME" || name == "[NAME] DOCUMENT")) values = Values::Files;
        if (values == Values::Files || values == Values::GenerationsAndFiles) shellAdds_ = "files";
        if (values == Values::Directories) shellAdds_ = "directories";
        for (const std::string &choice : _Choices(option)) Offer(prefix + choice, word);
        // This takes no lock, since somebody who repairs a big store may hold the lock for long.
        if (values != Values::Generations && values != Values::GenerationsAndFiles) return;
        for (const std::string &generation : PeekAtNames(LocateStore(store_))) Offer(prefix + generation, word);
        if (command_->get_option_no_throw("--path")) OfferItems(word);
    }

    // Of a folder that is typed behind a whole name.
    void OfferItems(const std::string &word)
    {
        const std::string folder = word.substr(0, word.rfind('/') + 1), name = folder.substr(0, folder.find('/'));
        if (!PeekAtNames(LocateStore(store_)).contains(name)) return;
        std::error_code error;
        fs::directory_iterator item(LocateStore(store_) + "/" + folder, error);
        for (const fs::directory_iterator end; !error && item != end; item.increment(error))
            Offer(folder + item->path().filename().native(), word);
    }

    // A candidate that could not be typed as it stands is left out.
    void Offer(const std::string &candidate, const std::string &word, const std::string &meaning = "")
    {
        if (candidate.rfind(word, 0) != 0 || Printable(candidate) != candidate) return;
        candidates_.push_back(candidate + (meaning.empty() ? "" : "\t" + meaning));
    }

    const CLI::App *command_;
    const CLI::Option *awaiting_ = nullptr; // whose value comes next
    int arguments_ = 0;                     // of the command, so far
    bool optionsMayCome_ = true;
    bool isChosen_ = false;
    std::optional<std::string> store_;
    const char *shellAdds_ = "words";
    std::vector<std::string> candidates_;
};

void PrintCandidates(const CLI::App &app, const std::vector<std::string> &words)
{
    Line line(app);
    for (size_t i = 0; i + 1 < words.size(); ++i) line.Read(words[i]);
    try {
        line.Complete(words.empty() ? "" : words.back());
    } catch (const CommandFailure &) { // no readable store, so no generations
    }
    line.Print();
}
