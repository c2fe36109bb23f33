/// @file
/// Progress of long operations, and their cancelling.
///
/// A client makes a progress object, makes it current on its thread, and calls an operation
/// that reports: adding a generation by copying makes a child of the thread's current progress, with
/// the bytes to copy as its total. The client watches through an observer and may cancel
/// from any thread; the operation stops at its next step.
///
/// Any operation that waits for the store's lock looks at the thread's current progress when a signal interrupts the
/// wait, and gives up if that is cancelled. So a handler that cancels has to be installed without SA_RESTART.
///
/// Any thread may call any of these functions on any progress object. Getters of null answer 0, false or null.

#ifndef VAULTRY_PROGRESS_H
#define VAULTRY_PROGRESS_H

#include <vaultry/value.h>

TQ_BEGIN_DECLS

/// User-information keys and values that file operations set.
TQ_EXPORT extern TQString *const kTQProgressFileOperationKindKey;
TQ_EXPORT extern TQString *const kTQProgressFileOperationKindCopying;
/// As long as an operation waits for the store's lock, a child of the thread's current progress has this kind, and the
/// lock file's URL. The observers are called for the child when that begins, and once more when it ends: then the child
/// has no kind. The second call may come with the lock held, so it must not use the store, and should return at once.
TQ_EXPORT extern TQString *const kTQProgressFileOperationKindWaiting;
TQ_EXPORT extern TQString *const kTQProgressFileURLKey;
/// The kind of a progress that counts bytes of files.
TQ_EXPORT extern TQString *const kTQProgressKindFile;

TQ_EXPORT TQTypeID TQProgressGetTypeID(void);

/// A progress of its own, with no parent.
TQ_EXPORT TQProgress *TQProgressCreate(int64_t totalUnits);

/// A child of `parent` (which may be null, and is retained): cancelled with it, and its changes reach the
/// parent's observers too. A child's units are its own; they are not added to its parent's.
TQ_EXPORT TQProgress *TQProgressCreateChild(TQProgress *parent, int64_t totalUnits);

/// The current progress of this thread, or null.
TQ_EXPORT TQProgress *TQProgressGetCurrent(void);

/// Makes `progress` current on this thread and retains it until it resigns or the thread ends. Nests. If memory runs
/// out, it does not become current.
TQ_EXPORT void TQProgressBecomeCurrent(TQProgress *progress);

/// Makes the progress that was current before current again. Does nothing if `progress` is not current here.
TQ_EXPORT void TQProgressResignCurrent(TQProgress *progress);

/// How much there is to do, and how much of it is done; the library counts in bytes.
TQ_EXPORT int64_t TQProgressGetTotalUnits(const TQProgress *progress);
TQ_EXPORT void TQProgressSetTotalUnits(TQProgress *progress, int64_t units);
TQ_EXPORT int64_t TQProgressGetCompletedUnits(const TQProgress *progress);
TQ_EXPORT void TQProgressSetCompletedUnits(TQProgress *progress, int64_t units);

/// A value the caller owns, or null.
TQ_EXPORT TQValue *TQProgressCopyUserInfo(const TQProgress *progress, const TQString *key);
/// Retains both, replacing what was there. A null value removes the entry.
TQ_EXPORT void TQProgressSetUserInfo(TQProgress *progress, TQString *key, TQValue *value);

/// The caller owns it; null when none was set.
TQ_EXPORT TQString *TQProgressCopyKind(const TQProgress *progress);
TQ_EXPORT void TQProgressSetKind(TQProgress *progress, TQString *kind);

/// Whether cancelling has an effect: the operation sets it, as advice for a client that offers a button. False at
/// first.
TQ_EXPORT bool TQProgressIsCancellable(const TQProgress *progress);
TQ_EXPORT void TQProgressSetCancellable(TQProgress *progress, bool cancellable);

/// Safe in a signal handler too: it stores one atomic flag and calls nobody. It can't be taken back.
TQ_EXPORT void TQProgressCancel(TQProgress *progress);

/// Whether this progress, or one above it, was cancelled.
TQ_EXPORT bool TQProgressIsCancelled(const TQProgress *progress);

/// Called on the reporting thread after units of `changed`, which is the observed progress or a descendant, were set.
/// Several threads may call it at once. It may use any progress object, but if it sets units it is called again.
typedef void (*TQProgressObserver)(TQProgress *changed, void *context);

/// A progress has one observer; null removes it. Set it before the operation begins, and keep `context` until after its
/// end: nobody waits for a call that is already under way.
TQ_EXPORT void TQProgressSetObserver(TQProgress *progress, TQProgressObserver observer, void *context);

TQ_END_DECLS

#endif
