// Pieces that need no disk: names, formatted strings, failures and the log, property lists.

#include "Shared/tq_log.h"
#include "Shared/vaultry_internal_failure.h"

#include <vaultry/collections.h>
#include <vaultry/data.h>
#include <vaultry/number.h>
#include <vaultry/path.h>
#include <vaultry/plist.h>
#include <vaultry/status.h>
#include <vaultry/string.h>

#include <benchmark/benchmark.h>

#include <cerrno>
#include <string>

namespace {

void CheckName(benchmark::State &state)
{
    TQString *name = TQStringCreate(std::string(static_cast<size_t>(state.range(0)), 'n').c_str());
    char buffer[255];
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(validateTQName(name, nullptr) && TQStringGetGenName(name, buffer, nullptr));
    TQRelease(name);
}
BENCHMARK(CheckName)->Arg(16)->Arg(254);

void MakeErrorObject(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state) {
        TQError *error = nullptr;
        _TQCreateErrorUseErrno(&error, ENOENT, "stat(\"/home/ann/Report.txt\") failed; error 2 (No such file)");
        benchmark::DoNotOptimize(TQErrorGetStatus(error));
        TQRelease(error);
    }
}
BENCHMARK(MakeErrorObject);

// The cost of a refusal beyond its error object: the message, and a line of the log that the threshold holds back.
void RefuseWithoutLogging(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state) {
        TQError *error = nullptr;
        (void)Failure(&error).Refused(kTQStatusExists, "path \"%s\" already exists", "/home/ann/store/Report.txt");
        TQRelease(error);
    }
}
BENCHMARK(RefuseWithoutLogging);

void LogWhatIsSuppressed(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state) Log(kLogDebug).Line("failed to open \"%s\"", "/home/ann/Report.txt");
}
BENCHMARK(LogWhatIsSuppressed);

void FormatString(benchmark::State &state)
{
    TQString *name = TQStringCreate("Report.txt");
    for ([[maybe_unused]] auto _ : state)
        TQRelease(TQStringCreateWithFormat("%@: %s, generation %d", name, "kept", 12345));
    TQRelease(name);
}
BENCHMARK(FormatString);

// An info dictionary with `count` entries of every kind that one usually holds.
TQDictionary *MakeInfo(int64_t count)
{
    TQDictionary *info = TQDictionaryCreateMutable();
    for (int64_t i = 0; i < count; ++i) {
        TQString *key = TQStringCreateWithFormat("com.example.key%lld", static_cast<long long>(i));
        TQValue *values[] = {TQStringCreateWithFormat("value %lld", static_cast<long long>(i)),
                             TQNumberCreateInt64(i * 1000), TQDateCreate(static_cast<double>(i)),
                             TQDataCreate("0123456789abcdef", 16)};
        TQDictionarySetValue(info, key, values[i % 4]);
        for (TQValue *value : values) TQRelease(value);
        TQRelease(key);
    }
    return info;
}

// Counted in entries: 25 of them are about a KiB.
void FromOneKiBToOneMiB(benchmark::internal::Benchmark *family)
{
    for (const int64_t kibibytes : {1, 32, 1024}) family->Arg(25 * kibibytes);
}

void WritePropertyList(benchmark::State &state)
{
    TQDictionary *info = MakeInfo(state.range(0));
    size_t size = 0;
    for ([[maybe_unused]] auto _ : state) {
        TQData *data = TQPropertyListCreateData(info, nullptr);
        size = TQDataGetLength(data);
        TQRelease(data);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
    TQRelease(info);
}
BENCHMARK(WritePropertyList)->Apply(FromOneKiBToOneMiB);

void ReadPropertyList(benchmark::State &state)
{
    TQDictionary *info = MakeInfo(state.range(0));
    TQData *data = TQPropertyListCreateData(info, nullptr);
    for ([[maybe_unused]] auto _ : state)
        TQRelease(TQPropertyListCreateWithData(data, /*mutableContainers=*/false, nullptr));
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(TQDataGetLength(data)));
    TQRelease(data);
    TQRelease(info);
}
BENCHMARK(ReadPropertyList)->Apply(FromOneKiBToOneMiB);

} // namespace
