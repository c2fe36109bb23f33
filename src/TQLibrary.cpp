// The library object: a data value whose whole content is a pointer to a store handle.
//
// Its last release frees the handle, through the allocator to which the data value returns its bytes. The store on disk
// is not touched.

#include "TQLibrary.h"

#include "Platform/Attributes.h"
#include "Platform/FileStatus.h"
#include "Runtime/Ref.h"
#include "Shared/PathBuffer.h"
#include "Shared/vaultry_internal_failure.h"
#include "Shared/vaultry_storage.h"

#include <vaultry/path.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>

namespace {

using StorageSlot = TQClientManagedStorage *;

TQAllocator *sTQLibraryAllocator;
std::once_flag sTQLibraryAllocatorOnce;

// The allocator exists only to free slots.
[[noreturn]] void *__TQLibraryAllocate(size_t, void *)
{
    abort();
}

void __TQLibraryFinalize(void *slot, void *)
{
    TQClientManagedStorageFree(*static_cast<StorageSlot *>(slot));
    free(slot);
}

void MakeLibraryAllocator()
{
    TQAllocatorContext context{};
    context.allocate = __TQLibraryAllocate;
    context.deallocate = __TQLibraryFinalize;
    sTQLibraryAllocator = TQAllocatorCreate(/*allocator=*/nullptr, &context);
}

StorageSlot *SlotOf(const TQLibrary *library)
{
    return static_cast<StorageSlot *>(const_cast<void *>(TQDataGetBytes(library)));
}

} // namespace

TQLibrary *TQLibraryAllocate(TQAllocator *allocator)
{
    std::call_once(sTQLibraryAllocatorOnce, MakeLibraryAllocator);
    if (!sTQLibraryAllocator) {
        Log(kLogError).Line("The allocator of library objects could not be created");
        return nullptr;
    }
    void *slot = calloc(1, sizeof(StorageSlot));
    if (!slot) return nullptr;
    TQLibrary *library = TQDataCreateNoCopy(allocator, slot, sizeof(StorageSlot), sTQLibraryAllocator);
    if (!library) free(slot);
    return library;
}

TQTypeID TQLibraryGetTypeID(void)
{
    return TQDataGetTypeID();
}

TQLibrary *TQLibraryCreateClientManaged(TQAllocator *allocator, const TQURL *storeURL, TQError **error)
{
    const DeferredScope scope;
    char root[PathBuffer::kCapacity];
    if (!TQURLGetAbsPath(storeURL, root, sizeof root, error)) return nullptr;
    TQClientManagedStorage *store = TQClientManagedStorageCreate(root, error);
    if (!store) return nullptr;

    TQLibrary *library = TQLibraryAllocate(allocator);
    if (!library) {
        Failure(error).Status(kTQStatusFailed, "TQLibraryAllocate failed");
        TQClientManagedStorageFree(store);
        return nullptr;
    }
    *SlotOf(library) = store;
    return library;
}

const TQClientManagedStorage *_StorageOf(const TQLibrary *library)
{
    return TQDataGetLength(library) == sizeof(StorageSlot) ? *SlotOf(library) : nullptr;
}

bool TQLibraryDestroyClientManaged(const TQURL *storeURL, TQError **error)
{
    const DeferredScope scope;
    char root[PathBuffer::kCapacity];
    return TQURLGetAbsPath(storeURL, root, sizeof root, error) && TQClientManagedStorageDestroy(root, error);
}

int TQLibraryInternalStatGeneration(const char *path, TQFileStatus *status)
{
    const DeferredScope scope;
    const Item item = Item::AtPath(path ? path : "");
    if (!status) {
        errno = EFAULT;
        return -1;
    }
    const int result = platform::GetStatus(item, Links::Follow, status);
    if (result != 0) return result;
    const int before = errno;

    // The store's own protection is not shown as the document's, and a stored item never looks compressed to its
    // reader.
    uint8_t saved = 0;
    errno = 0;
    const ssize_t length =
        platform::GetAttribute(item, Links::Follow, kSavedPermissionsAttribute, &saved, sizeof saved);
    const uint32_t flags = status->flags & ~uint32_t{kTQFlagImmutable | kTQFlagCompressed};
    if (length == 1) {
        status->mode |= SavedWriteBits(saved);
        status->flags = flags | SavedFlags(saved);
    } else if (errno == ENODATA) {
        status->mode |= 0200;
        status->flags = flags;
    } else {
        Failure(nullptr).Errno("failed to retrieve original perms from xattr on item \"%s\"", item.path);
        errno = EIO;
        return -1;
    }
    errno = before;
    return 0;
}

// Only stores that the system manages have storage options and transfers between clients. The calls stay for clients
// that make them.

bool TQLibrarySetStorageOptions(TQLibrary *, uint64_t, TQError **)
{
    return false;
}

uint64_t TQLibraryGetStorageOptions(TQLibrary *, TQError **)
{
    return 0;
}

bool TQLibraryPrivateTransferGenerationToClientName(TQLibrary *, const TQString *, const TQString *, TQError **)
{
    const DeferredScope scope;
    return false;
}
