// What needs no disk: names, error objects, property lists.

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

void WritePropertyList(benchmark::State &state)
{
    TQDictionary *info = MakeInfo(state.range(0));
    for ([[maybe_unused]] auto _ : state) TQRelease(TQPropertyListCreateData(info, nullptr));
    TQRelease(info);
}
BENCHMARK(WritePropertyList)->Arg(4)->Arg(64);

void ReadPropertyList(benchmark::State &state)
{
    TQDictionary *info = MakeInfo(state.range(0));
    TQData *data = TQPropertyListCreateData(info, nullptr);
    for ([[maybe_unused]] auto _ : state)
        TQRelease(TQPropertyListCreateWithData(data, /*mutableContainers=*/false, nullptr));
    TQRelease(data);
    TQRelease(info);
}
BENCHMARK(ReadPropertyList)->Arg(4)->Arg(64);

} // namespace
