// What is going on in a store: who holds its lock, and which operations live. Nobody is waited for, so that a program
// that waits can tell for whom.

#include "vaultry_client_managed_check.h"

#include "vaultry_client_managed.h"

#include "Platform/Attributes.h"
#include "Platform/FileStatus.h"
#include "Platform/LockHolders.h"
#include "Platform/Machine.h"
#include "Shared/vaultry_internal_failure.h"
#include "Shared/vaultry_storage.h"

#include <vaultry/data.h>
#include <vaultry/number.h>

#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <sys/stat.h>
#include <utility>

namespace {

using Entry = std::pair<const char *, TQValue *>;

class Operations {
public:
    // Takes the values over.
    void Add(std::initializer_list<Entry> entries)
    {
        const auto operation = Ref<TQDictionary>::Adopt(TQDictionaryCreateMutable());
        for (const auto &[key, given] : entries) {
            const auto value = Ref<TQValue>::Adopt(given);
            const auto name = Ref<TQString>::Adopt(TQStringCreate(key));
            isWhole_ = isWhole_ && TQDictionarySetValue(operation.get(), name.get(), value.get());
        }
        isWhole_ = isWhole_ && TQArrayAppendValue(list_.get(), operation.get());
    }
    TQArray *Detach() { return isWhole_ ? list_.Detach() : nullptr; }

private:
    Ref<TQArray> list_ = Ref<TQArray>::Adopt(TQArrayCreateMutable());
    bool isWhole_ = true;
};

TQValue *Bytes(const char *text)
{
    return TQDataCreate(text, strlen(text));
}

void AddLockHolders(const char *lockFile, Operations &operations)
{
    const UniqueFd fd(open(lockFile, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) return;
    platform::LockHolders holders(fd.get());
    for (platform::LockHolder holder; holders.Next(&holder);)
        operations.Add({{"work", TQStringCreate(holder.isExclusive ? "lock" : "shared-lock")},
                        {"process", TQNumberCreateInt64(holder.process)},
                        {"host", Bytes(platform::ThisMachine().name)},
                        {"here", TQRetain(TQBooleanGet(true))}});
}

// Not where others may write, nor in what was a generation, whose owner file somebody may have brought.
bool MayBeBelieved(int directory)
{
    TQFileStatus status;
    return platform::GetStatusOfFd(directory, &status) == 0 && (status.mode & (S_IWGRP | S_IWOTH)) == 0 &&
           platform::GetAttributeOfFd(directory, kSavedPermissionsAttribute, nullptr, 0) < 0;
}

bool AddLiving(const Item &area, Operations &operations)
{
    Names names(area);
    TQFileStatus status;
    if (names.error() == 0 && platform::GetStatusOfFd(names.directory(), &status) != 0) return false;
    while (const char *name = names.Next()) {
        const UniqueFd fd(openat(names.directory(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        FoundOwner owner;
        if (fd && MayBeBelieved(fd.get())) _LookForOwner(fd.get(), status.owner, &owner);
        if (owner.life != OwnerLife::Alive || !owner.readable) continue;
        const OwnerNote &note = owner.note;
        operations.Add({{"work", TQStringCreate(WordOf(note.work))},
                        {"process", TQNumberCreateInt64(note.process)},
                        {"host", Bytes(note.host)},
                        {"here", TQRetain(TQBooleanGet(note.IsOfThisStart()))},
                        {"document", Bytes(note.document)},
                        {"since", TQDateCreate(static_cast<double>(note.since))}});
    }
    errno = names.error();
    return errno == 0;
}

} // namespace

TQArray *TQClientManagedStorageCopyOperations(const char *rootPath, TQError **error)
{
    if (!_RequireRootDirectory(rootPath, error)) return nullptr;
    PathBuffer lockFile;
    PathBuffer staging;
    if (!_GetPathToLockFile(rootPath, lockFile, error)) return nullptr;
    if (!staging.Format("%s/%s", rootPath, kStagingName))
        return Failure(error).Refused(kTQStatusBadPath, "failed to get staging dir path");

    Operations operations;
    AddLockHolders(lockFile.c_str(), operations);
    if (!AddLiving(Item::AtPath(staging.c_str()), operations))
        return Failure(error).Errno("unable to read the directory \"%s\"", staging.c_str());
    TQArray *list = operations.Detach();
    return list ? list : Failure(error).Status(kTQStatusFailed, "malloc failed");
}
