// One operation, with a fault at each of its calls in turn, until the fault lies past the last.
//
// Every round has a scene of its own, and ends with the same questions. Is everything as it was before, or as it is
// after success? Is every generation whole, is the document somewhere, does the next operation work?

#pragma once

#include "support/Tests.h"

#include <optional>
#include <regex>
#include <set>

// A store that keeps one generation, "kept", with metadata of each kind; and a document that has changed since.
struct Scene {
    explicit Scene(TestStore::Document kind, bool lifts);

    // Works on this document instead of the store's own.
    void WorkOn(const std::string &path, bool folder);
    Snapshot Now() const;
    std::vector<std::string> Placeholders() const; // beside the document
    bool HoldsDocument(const Snapshot &contents) const;

    TestStore store;
    std::optional<TempDirectory> otherVolume;
    const std::string out = store / "out";
    std::string document, restored; // and the path of its replacement, if there is one
    Ref<TQLibrary> library;
};

// A failure in the last step, after which the change stays.
inline const std::string kLastFlush = "Failed to flush (?!.*/staged[/\"])";

// An operation to be swept. Paths and words are regular expressions.
struct Swept {
    std::string name; // also in messages.txt
    TestStore::Document kind = TestStore::Document::File;
    std::function<void(Scene &)> prepare = [](Scene &) {};
    std::function<bool(Scene &, TQError **)> run = {};
    std::string subject = "";         // the generation that it works on
    std::string unfinished = "";      // other items that a kill may leave half done
    std::string stays = kLastFlush;   // failures after which the change may stay
    std::string lesser = "the whole"; // a smaller answer that a failing call may cause
    int step = 1;                     // from one call that the daily run disturbs to the next
    bool silent = false;              // its failures have no error object
    std::function<void(Scene &)> then = [](Scene &) {};
    std::string table = ""; // the first words of a table in docs/architecture.md: remains of a kill, and their repair
};

// Expects that kills have met every row of the table since the last call.
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
