// One operation met by a fault at each of its calls in turn, until the fault lies past the last.
//
// Every round has a scene of its own, and after every round the same is asked: is everything as it was before, or as
// it is after success? Is every generation whole, is the document somewhere, does the next operation work?

#pragma once

#include "support/Tests.h"

#include <optional>
#include <regex>
#include <set>

// A store that keeps one generation, "kept", with metadata of each kind; and a document that has changed since.
struct Scene {
    explicit Scene(TestStore::Document kind, bool lifts);

    // The document that is worked on, in place of the store's own.
    void WorkOn(const std::string &path, bool folder);
    Snapshot Now() const;
    bool HoldsDocument(const Snapshot &contents) const;

    TestStore store;
    std::optional<TempDirectory> otherVolume;
    const std::string out = store / "out";
    std::string document, restored; // and where what takes its place will be, if anything does
    Ref<TQLibrary> library;
};

// An operation to be swept.
struct Swept {
    std::string name;
    TestStore::Document kind = TestStore::Document::File;
    std::function<void(Scene &)> prepare = [](Scene &) {};
    std::function<bool(Scene &, TQError **)> run = {};
    std::string subject = "";    // the generation that it works on
    std::string unfinished = ""; // paths that a kill may leave half done
    // Failures that come last, when what was done stays.
    std::string stays = "Failed to flush (?!.*/staged\")";
    std::string lesser = "whole"; // what may be answered when a call fails, beside the whole answer
    bool silent = false;          // its failures have no error object
    std::function<void(Scene &)> then = [](Scene &) {};
    std::vector<std::string> says = {}; // what its failures say; with "user: " or "cap: " in front only as those
};

class Sweeper {
public:
    Sweeper(const Swept &swept, As who);
    void Walk();

private:
    using Faults = std::function<Fault(int nth)>;
    void Walk(int &points, const Faults &faults);
    void Judge(const Fault &fault, const Outcome &outcome, Scene &scene);
    void JudgeReport(const Fault &fault, const Outcome &outcome, const Scene &scene);

    Outcome Run(const Fault &fault, Scene &scene) const;

    const Swept &swept_;
    As who_;
    Snapshot before_, after_, documentBefore_, restored_;
    std::string answer_;
    std::set<std::string> said_; // messages of error objects; and of lines, with their level in front
};
