// See sealing.h.

#include "sealing.h"

#include "entries.h"
#include "space.h"
#include "text.h"

#include <cerrno>

std::optional<Seal> SealOf(const Store &store, const std::string &name)
{
    const Owned<TQDictionary> info = store.InfoDictionaryOf(name);
    if (!ToGenerationInfo(info.get()).isSealed) return std::nullopt;
    const std::string kind = TextOf(info.get(), kDigestKindKey);
    const auto seal = Seal::FromBytes(BytesOf(info.get(), kDigestKey));
    if (kind != kDigestKind || !seal)
        throw CommandFailure(kExitFailure, "can't verify " + Quoted(name) +
                                               (kind == kDigestKind ? ": its seal is damaged"
                                                                    : ": its seal is of the kind " + Quoted(kind) +
                                                                          ", which this version does not know"));
    return seal;
}

static Owned<TQDictionary> _NotesOf(const Seal &seal)
{
    const std::string bytes = seal.Bytes();
    const Owned<TQString> key = MakeString(kDigestKey), kindKey = MakeString(kDigestKindKey),
                          kind = MakeString(kDigestKind);
    const Owned<TQData> data(TQDataCreate(bytes.data(), bytes.size()));
    TQValue *const keys[] = {key.get(), kindKey.get()}, *const values[] = {data.get(), kind.get()};
    return Owned<TQDictionary>(TQDictionaryCreate(keys, values, 2));
}

// The item of that name; a seal belongs to it, and not to another that takes its name.
static std::pair<dev_t, ino_t> _ItemAt(const std::string &path)
{
    struct stat status {};
    if (!IsThere(path, &status)) throw CommandFailure::Errno("can't look at " + Quoted(path), ENOENT);
    return {status.st_dev, status.st_ino};
}

void SealGeneration(const Store &store, const std::string &name, TreeReader &reader)
{
    const std::string path = store.PathOf(name), what = "can't seal " + Quoted(name);
    const auto item = _ItemAt(path);
    TreeContents contents = reader.Read(path);
    if (!contents.unread.empty()) {
        const auto &[below, reason] = contents.unread.front();
        throw CommandFailure::Errno(what + ": can't read " + Quoted(below.empty() ? path : path + "/" + below), reason);
    }
    if (_ItemAt(path) != item) throw CommandFailure(kExitFailure, what + ": another took its name meanwhile");

    // The sum alone tells of a single item.
    while (contents.items.size() == 1 && contents.seal.Shrink()) {
    }
    for (;;) {
        Owned<TQError> error;
        if (store.SetInfoOf(name, _NotesOf(contents.seal).get(), error.out())) return;
        const bool isOfAttributes = IsAttributeSpace(UnderlyingErrno(error.get()), store.path());
        if (isOfAttributes && contents.seal.Shrink()) continue;
        const CommandFailure failure = CommandFailure::Library(what, error.get());
        throw failure.Saying(failure.what() + (isOfAttributes ? std::string("\n  ") + kAttributeSpaceIsFull : ""));
    }
}

int SealKept(const Store &store, const std::string &name, ProgressBar &bar)
try {
    int64_t done = 0;
    bar.Restart();
    TreeReader reader(TreeReader::From::Memory,
                      [&](uint64_t bytes) { bar.Update(done += static_cast<int64_t>(bytes), 0); });
    SealGeneration(store, name, reader);
    bar.Clear();
    return kExitSuccess;
} catch (const CommandFailure &failure) {
    bar.Clear();
    Say(failure.Saying(Quoted(name) + " is kept, but not sealed: " + failure.what()));
    return failure.exitCode();
}
