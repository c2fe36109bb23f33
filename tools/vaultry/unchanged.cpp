// See unchanged.h.

#include "unchanged.h"

#include "comparing.h"
#include "document.h"
#include "failure.h"
#include "generation.h"
#include "text.h"

enum class Outcome { Differs, LooksEqual, IsEqual };

static Outcome _Compare(const ComparedTree &generation, const ComparedTree &document, const Extent &extent)
{
    bool differs = false;
    const Compared compared = CompareTrees(generation, document, extent, [&](const Difference &) {
        differs = true;
        return false;
    });
    if (differs) return Outcome::Differs;
    if (!compared.problems.none()) throw compared.problems.first();
    return compared.isWhole ? Outcome::IsEqual : Outcome::LooksEqual;
}

static bool _IsAsKept(const Store &store, const std::string &name, const std::string &document)
{
    const ComparedTree generation{.path = store.PathOf(name), .label = name, .isKept = true};
    const ComparedTree present{.path = document, .label = document, .isKept = false};
    const Fingerprint before = FingerprintOf(document);
    // What is quick to see comes first: a change need not wait until all that has none is read.
    Outcome outcome = _Compare(generation, present, {.bigFiles = false});
    if (outcome == Outcome::LooksEqual) outcome = _Compare(generation, present, {});
    return outcome == Outcome::IsEqual && FingerprintOf(document) == before && !store.Lacks(name);
}

std::optional<std::string> UnchangedSince(const Store &store, const std::string &document)
try {
    const std::optional<std::string> name = NewestVersionOf(store, document);
    return name && _IsAsKept(store, *name, document) ? name : std::nullopt;
} catch (const CommandFailure &failure) {
    if (failure.exitCode() == kExitInUse) throw; // adding would have to wait, too
    Say("whether " + Quoted(document) + " has changed can't be told: " + failure.what());
    return std::nullopt;
}
