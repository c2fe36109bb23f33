// See info_value.h.

#include "info_value.h"

#include "space.h"
#include "text.h"

#include <cerrno>

void SetInfoValue(const Store &store, const std::string &name, const std::string &key, TQValue *value)
{
    Owned<TQError> error;
    const Owned<TQString> string = MakeString(key);
    TQValue *const keys[] = {string.get()}, *const values[] = {value};
    const Owned<TQDictionary> info(TQDictionaryCreate(keys, values, 1));
    if (TQClientManagedStorageSetGenerationInfoValues(store.handle(), name.c_str(), info.get(), error.out())) return;
    const CommandFailure failure =
        CommandFailure::Library("can't set " + Quoted(key) + " of " + Quoted(name), error.get()).At(store.PathOf(name));
    const bool isOfAttributes = IsAttributeSpace(UnderlyingErrno(error.get()), store.path());
    throw failure.Saying(failure.what() + (isOfAttributes ? std::string("\n  ") + kAttributeSpaceIsFull : ""));
}

// The library gives no error object for a failure under the lock. Looking again, and errno, tell the reason.
void RemoveInfoValue(const Store &store, const std::string &name, const std::string &key)
{
    Owned<TQError> error;
    errno = 0;
    if (TQClientManagedStorageSetGenerationInfoValueForKey(store.handle(), name.c_str(), MakeString(key).get(), nullptr,
                                                           error.out()))
        return;
    const int reason = errno;
    const std::string what = "can't remove " + Quoted(key) + " of " + Quoted(name);
    if (error) throw CommandFailure::Library(what, error.get());
    const Owned<TQDictionary> info(
        TQClientManagedStorageCopyGenerationInfoDictionary(store.handle(), name.c_str(), error.out()));
    if (!info) throw CommandFailure::Library(what, error.get());
    if (!TQDictionaryGetValue(info.get(), MakeString(key).get()))
        throw CommandFailure(kExitFailure, what + ": there is no such key");
    if (reason == 0) throw CommandFailure::Library(what, nullptr);
    throw CommandFailure::Errno(what, reason);
}
