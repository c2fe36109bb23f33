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
    std::vector<std::string> Placeholders() const; // beside the document
    bool HoldsDocument(const Snapshot &contents) const;

    TestStore store;
    std::optional<TempDirectory> otherVolume;
    const std::string out = store / "out";
    std::string document, restored; // and where what takes its place will be, if anything does
    Ref<TQLibrary> library;
};

// A failure that comes last, when what was done stays.
inline const std::string kLastFlush = "Failed to flush (?!.*/staged[/\"])";

// An operation to be swept. Paths and words are regular expressions.
struct Swept {
    std::string name; // also in messages.txt
    TestStore::Document kind = TestStore::Document::File;
    std::function<void(Scene &)> prepare = [](Scene &) {};
    std::function<bool(Scene &, TQError **)> run = {};
    std::string subject = "";         // the generation that it works on
    std::string unfinished = "";      // what else a kill may leave half done
    std::string stays = kLastFlush;   // failures that may leave what was done
    std::string lesser = "the whole"; // what a failing call may reduce the answer to
    int step = 1;                     // between the calls that the daily run meets
    bool silent = false;              // its failures have no error object
    std::function<void(Scene &)> then = [](Scene &) {};
    std::string table = ""; // of docs/architecture.md, by its first words: what a kill leaves, and a repair makes of it
};

// Whether since the last time kills have met every row of the table.
void ExpectEveryRowMet(const std::string &table);

class Sweeper {
public:
    Sweeper(const Swept &swept, As who);
    void Walk();

private:
    using Faults = std::function<Fault(int nth)>;
    void ExpectMessages() const;
    void Walk(int &points, const Faults &faults);
    void Judge(const Fault &fault, const Outcome &outcome, Scene &scene);
    void JudgeKill(Scene &scene) const;
    std::string Named(const std::string &path) const;
    void JudgeReport(const Fault &fault, const Outcome &outcome, const Scene &scene, bool broken);

    Outcome Run(const Fault &fault, Scene &scene) const;

    const Swept &swept_;
    As who_;
    Snapshot before_, after_, documentBefore_, restored_;
    std::string answer_;
    std::set<std::string> said_; // messages of error objects; and of lines, with their level in front
};
