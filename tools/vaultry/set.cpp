// vaultry set: changes the metadata of a generation, never its content.

#include "assignment.h"
#include "commands.h"
#include "failure.h"
#include "generation.h"
#include "info_value.h"
#include "json.h"
#include "text.h"

#include <cerrno>
#include <functional>

static std::vector<Assignment> _ParseChanges(const Arguments &arguments)
{
    std::vector<Assignment> changes;
    for (const std::string &assignment : arguments.assignments) changes.push_back(ParseAssignment(assignment));
    for (const std::string &key : arguments.unset) changes.push_back({key, {}});
    return changes;
}

static uint64_t _ParseOptions(const std::string &text)
{
    char *end = nullptr;
    errno = 0;
    const uint64_t options = strtoull(text.c_str(), &end, 0);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0)
        throw CommandFailure(kExitUsage, "--options " + Quoted(text) + " is no number of 64 bits");
    return options;
}

static void _SetDisplayName(const Store &store, const std::string &name, const TQString *displayName)
{
    Owned<TQError> error;
    if (!TQClientManagedStorageSetGenerationOriginalDisplayName(store.handle(), name.c_str(), displayName, error.out()))
        throw CommandFailure::Library("can't set the display name of " + Quoted(name), error.get())
            .At(store.PathOf(name));
}

static void _SetOptions(const Store &store, const std::string &name, uint64_t options)
{
    Owned<TQError> error;
    if (!TQClientManagedStorageSetGenerationOptions(store.handle(), name.c_str(), options, error.out()))
        throw CommandFailure::Library("can't set the options of " + Quoted(name), error.get()).At(store.PathOf(name));
}

struct Step {
    std::string what;
    std::function<void()> take;
    const char *entry; // of the object that tells what was changed
    Json value;        // what stands there, or in the list there
};

// A change can't be undone, so a failure says which changes were made before it.
static void _Take(const std::vector<Step> &steps, Json &changed)
{
    std::string done;
    for (const Step &step : steps) {
        try {
            step.take();
        } catch (const CommandFailure &failure) {
            if (done.empty()) throw;
            throw failure.Saying(failure.what() + ("\n  changed before that: " + done));
        }
        done += (done.empty() ? "" : ", ") + step.what;
        if (step.value.is_array())
            changed[step.entry].push_back(step.value[0]);
        else
            changed[step.entry] = step.value;
    }
}

int RunSet(const Arguments &arguments)
{
    const std::vector<Assignment> changes = _ParseChanges(arguments);
    const uint64_t options = arguments.options ? _ParseOptions(*arguments.options) : 0;
    const Owned<TQString> displayName = MakeString(arguments.displayName.value_or(""));
    if (!displayName)
        throw CommandFailure(kExitUsage, "--display-name " + Quoted(*arguments.displayName) + ": it has to be UTF-8");
    if (changes.empty() && !arguments.options && !arguments.displayName)
        throw CommandFailure(kExitUsage, "there is nothing to set; \"vaultry set --help\" tells what can be");

    const Store store = Store::Require(LocateStore(arguments.store));
    const std::string name = ChosenGeneration(store, arguments.choice, arguments.name);
    std::vector<Step> steps;
    steps.reserve(changes.size());
    for (const Assignment &change : changes)
        steps.push_back({Quoted(change.key),
                         [&] {
                             return change.value ? SetInfoValue(store, name, change.key, change.value.get())
                                                 : RemoveInfoValue(store, name, change.key);
                         },
                         change.value ? "set" : "unset", Json::array({change.key})});
    if (arguments.displayName)
        steps.push_back({"the display name", [&] { _SetDisplayName(store, name, displayName.get()); }, "display_name",
                         *arguments.displayName});
    if (arguments.options)
        steps.push_back({"the options", [&] { _SetOptions(store, name, options); }, "options", options});
    Json changed;
    PutBytes(changed, "generation", name);
    Problems problems;
    problems.Note([&] { _Take(steps, changed); });
    if (arguments.json && changed.size() > 1) PrintLine(changed);
    problems.SayAll();
    return problems.exitCode();
}
