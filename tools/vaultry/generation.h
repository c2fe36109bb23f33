// Which generation a user means.

#pragma once

#include "arguments.h"
#include "history.h"

// The generation that `given` names: exactly, or by a beginning that no other has. Throws if there is none, or several.
std::string ResolveGeneration(const Store &store, const std::string &given);

// The same, or, with a choice, the one of the document `given` that was chosen. Throws if there is none.
std::string ChosenGeneration(const Store &store, const Choice &choice, const std::string &given);

// The same for several words of one command line: what there is to choose from is read, and told of, once.
class Chooser {
public:
    Chooser(const Store &store, const Choice &choice) : store_(store), choice_(choice) {}
    std::string ChosenFor(const std::string &given);

private:
    const Store &store_;
    const Choice &choice_;
    std::optional<std::vector<Kept>> history_ = {};
    std::optional<double> limit_ = {};
};

// A generation, or one item of it.
struct GenerationItem {
    std::string name;
    std::optional<std::string> inner; // the item's path below the top; "" is the top, of a folder

    bool isInner() const { return inner && !inner->empty(); }
    // Its place in a document.
    std::string In(const std::string &document) const { return isInner() ? document + "/" + *inner : document; }
    // Where it lies in the store, looked up without the lock.
    std::string PathIn(const Store &store) const;
    // How the user would type it.
    std::string asTyped() const { return isInner() ? name + "/" + *inner : name; }
};

// The generation or the item that the user means: NAME/path, or with --path a NAME or a choice. Throws if it is not
// there.
GenerationItem ChosenItem(const Store &store, const Arguments &arguments);

// Says that `given` names none of the generations that are present, and which name is the nearest; or that it names a
// document, as below, or an item of a generation.
CommandFailure NoSuchGeneration(const Store &store, const std::set<std::string> &present, const std::string &given);

// Throws if a link has that name. Only another program can have put it into the store. `outcome` ends the message.
void RefuseLink(const Store &store, const std::string &name, const std::string &outcome = "");

// Says that `given` names a document, how many generations it has, and what to type instead. None if it has none.
std::optional<CommandFailure> RefusalOfDocument(const Store &store, const std::string &given);

// The name of another document of the same folder, which is the nearest. None if no name is near.
std::optional<std::string> NearestDocument(const std::vector<Kept> &history, const std::string &document);

// The newest version of a document, which is no backup. None if there is none. Throws if one that can't be read may be
// newer.
std::optional<std::string> NewestVersionOf(const Store &store, const std::string &document);

// What the last restore of a document put aside. None if there is none.
std::optional<std::string> NewestBackupOf(const Store &store, const std::string &document);

// The newest generation of a document, for an add that shares unchanged files. None if there is none.
std::optional<std::string> BaseFor(const Store &store, const std::string &document);
