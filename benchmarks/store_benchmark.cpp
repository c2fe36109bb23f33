// A store's operations on one small document: the lock alone, adding, copying out, and the metadata of a generation.
//
// They run in $TMPDIR, so that any file system can be measured, with the flush that each of them ends in.

#include "vaultry_client_managed.h"

#include <vaultry/filesystem.h>
#include <vaultry/number.h>
#include <vaultry/string.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/stat.h>

namespace {

// A store and a document of 4 KiB, removed at the end.
class SmallStore {
public:
    SmallStore()
    {
        const char *parent = getenv("TMPDIR");
        path_ = std::string(parent ? parent : "/tmp").append("/vaultry-benchmark-XXXXXX");
        if (!mkdtemp(path_.data())) abort();
        root_ = path_ + "/store";
        document_ = path_ + "/document";
        if (mkdir(root_.c_str(), 0700) != 0) abort();
        std::ofstream(document_) << std::string(4096, 'x');
        store_ = TQClientManagedStorageCreate(root_.c_str(), nullptr);
        if (!store_) abort();
    }
    ~SmallStore()
    {
        TQClientManagedStorageFree(store_);
        _RemoveTree(path_.c_str(), 0, nullptr);
    }
    SmallStore(const SmallStore &) = delete;
    SmallStore &operator=(const SmallStore &) = delete;

    const TQClientManagedStorage *store() const { return store_; }
    const char *root() const { return root_.c_str(); }
    std::string In(const char *name) const { return path_ + "/" + name; }

    bool Add(const char *name) const
    {
        return TQClientManagedStorageAdd(store_, name, document_.c_str(), 0, nullptr, /*copy=*/true);
    }
    bool Remove(const char *name) const
    {
        TQString *string = TQStringCreate(name);
        TQValue *value = string;
        TQArray *names = TQArrayCreate(&value, 1);
        const bool removed = TQClientManagedStorageRemoveGenerations(store_, names, nullptr);
        TQRelease(names);
        TQRelease(string);
        return removed;
    }

private:
    std::string path_, root_, document_;
    TQClientManagedStorage *store_ = nullptr;
};

void LockAndUnlock(benchmark::State &state)
{
    const SmallStore small;
    for ([[maybe_unused]] auto _ : state) {
        StoreLock lock;
        if (!_WriteLockGenerationStore(small.root(), &lock, nullptr)) return state.SkipWithError("no lock");
        _UnlockGenerationStore(&lock);
    }
}
BENCHMARK(LockAndUnlock);

void OpenStore(benchmark::State &state)
{
    const SmallStore small;
    for ([[maybe_unused]] auto _ : state)
        TQClientManagedStorageFree(TQClientManagedStorageCreate(small.root(), nullptr));
}
BENCHMARK(OpenStore);

void Add4KiB(benchmark::State &state)
{
    const SmallStore small;
    for ([[maybe_unused]] auto _ : state) {
        if (!small.Add("generation")) return state.SkipWithError("not added");
        state.PauseTiming();
        if (!small.Remove("generation")) return state.SkipWithError("not removed");
        state.ResumeTiming();
    }
}
BENCHMARK(Add4KiB);

void CopyOut4KiB(benchmark::State &state)
{
    const SmallStore small;
    const std::string destination = small.In("copy");
    if (!small.Add("generation")) return state.SkipWithError("not added");
    for ([[maybe_unused]] auto _ : state) {
        if (!TQClientManagedStorageCopyGeneration(small.store(), "generation", destination.c_str(), nullptr))
            return state.SkipWithError("not copied");
        state.PauseTiming();
        remove(destination.c_str());
        state.ResumeTiming();
    }
}
BENCHMARK(CopyOut4KiB);

void SetInfoValue(benchmark::State &state)
{
    const SmallStore small;
    TQString *key = TQStringCreate("benchmark");
    if (!small.Add("generation")) state.SkipWithError("not added");
    int64_t value = 0;
    for ([[maybe_unused]] auto _ : state) {
        TQNumber *number = TQNumberCreateInt64(++value);
        if (!TQClientManagedStorageSetGenerationInfoValueForKey(small.store(), "generation", key, number, nullptr))
            state.SkipWithError("not set");
        TQRelease(number);
    }
    TQRelease(key);
}
BENCHMARK(SetInfoValue);

// Every field of one generation, as a client's list of versions asks for it.
void QueryRecord(benchmark::State &state)
{
    const SmallStore small;
    TQString *name = TQStringCreate("generation");
    TQString *key = TQStringCreate("benchmark");
    if (!small.Add("generation") ||
        !TQClientManagedStorageSetGenerationInfoValueForKey(small.store(), "generation", key, name, nullptr))
        state.SkipWithError("not added");
    for ([[maybe_unused]] auto _ : state)
        TQRelease(TQClientManagedStorageCopyGenerationInfos(small.store(), name, nullptr, nullptr));
    TQRelease(key);
    TQRelease(name);
}
BENCHMARK(QueryRecord);

} // namespace
