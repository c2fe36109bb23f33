#include "Runtime/Values.h"
#include "support/Disk.h"
#include "support/Table.h"

#include <vaultry/plist.h>
#include <vaultry/url.h>

#include <iomanip>

using testing::HasSubstr;

namespace {

// The list's bytes, or the description of the error.
std::string Write(const Value &value)
{
    Ref<TQError> error;
    const Value data = Own(TQPropertyListCreateData(value.get(), error.out()));
    if (!data) return "! " + Describe(error.get());
    return {static_cast<const char *>(TQDataGetBytes(Cast{data})), TQDataGetLength(Cast{data})};
}

Value Read(const std::string &bytes, bool mutableContainers = false, TQError **error = nullptr)
{
    return Own(TQPropertyListCreateWithData(Cast{Bytes(bytes)}, mutableContainers, error));
}

// What the list holds, or the description of the error.
std::string Reading(const std::string &bytes)
{
    Ref<TQError> error;
    const Value value = Read(bytes, false, error.out());
    return value ? Describe(value.get()) : "! " + Describe(error.get());
}

std::string BigEndian(uint64_t value, size_t size)
{
    std::string bytes;
    while (size-- > 0) bytes.push_back(static_cast<char>(value >> (8 * size)));
    return bytes;
}

std::string ToHex(const std::string &bytes)
{
    std::ostringstream out;
    for (const char byte : bytes) out << std::hex << std::setw(2) << std::setfill('0') << (byte & 0xff);
    return out.str();
}

std::string FromHex(const std::string &digits)
{
    std::string bytes;
    for (size_t i = 0; i < digits.size(); i += 2) bytes += BigEndian(std::stoul(digits.substr(i, 2), nullptr, 16), 1);
    return bytes;
}

// The file that a row of the table describes.
std::string File(const std::string &words)
{
    std::string objects = "bplist00", table;
    std::istringstream in(words);
    std::string word;
    for (; in >> word && word[0] != '@'; objects += FromHex(word)) table += BigEndian(objects.size(), 2);
    std::string file = objects + table + BigEndian(0x0202, 8) + BigEndian(table.size() / 2, 8) + BigEndian(0, 8) +
                       BigEndian(objects.size(), 8);
    for (; in; in >> word) file[file.size() - std::stoul(word.substr(1))] = FromHex(word.substr(word.find('=') + 1))[0];
    return file;
}

} // namespace

TEST(PropertyList, IsReadOrRefusedWithTheReason)
{
    for (const TableRow &row : ReadTable("Runtime/plists.txt")) {
        SCOPED_TRACE(row[0] + ": " + row[1]);
        const std::string file = File(row[1]);
        const bool refused = row[0].starts_with("! ");
        EXPECT_EQ(!Read(file, true), refused);
        EXPECT_THAT(Reading(file), HasSubstr(row[0].substr(refused ? 2 : 0)));
        if (refused) continue;
        const std::string written = Write(Read(file));
        const size_t size = row[1].size() / 2; // of the object
        EXPECT_EQ(Reading(written), row[0]);
        EXPECT_EQ(written.substr(8, size) == file.substr(8, size), row[2] != "foreign");
    }
    EXPECT_EQ(Reading(Write(Nested(512))), Describe(Nested(512).get()));
}

TEST(PropertyList, HoldsNothingThatTheFormatHasNot)
{
    const Value key = Text("key");
    const auto loop = Ref<TQDictionary>::Adopt(TQDictionaryCreateMutable());
    TQDictionarySetValue(loop.get(), key.get(), Array({Value::Retain(loop.get())}).get());
    const std::pair<Value, const char *> rows[] = {
        {Own(TQSetCreateMutable()), "a value of the kind set"},
        {Array({Own(TQURLCreateWithFileSystemPath("/", true))}), "a value of the kind URL"},
        {Dictionary({{key, Own(TQErrorCreate(kTQPOSIXErrorDomain, 1, nullptr))}}), "a value of the kind error"},
        {Dictionary({{Number(1), Number(1)}}), "a key of the kind number"},
        {Value::Retain(loop.get()), "holds itself"},
        {Nested(513), "more than 512 deep"},
        {Value(), "null"},
    };
    for (const auto &[value, says] : rows) EXPECT_THAT(Write(value), HasSubstr(says));
    EXPECT_EQ(TQPropertyListCreateData(loop.get(), nullptr), nullptr);
    TQDictionaryRemoveValue(loop.get(), key.get());
}

TEST(PropertyList, MutableContainersAreEachTheirOwn)
{
    // One dictionary in three places, one of them inside another array that is itself in two places.
    const Value read = Read(File("a3000100020002 d100030004 a10001 516b 5176"), true);
    const Value first = Value::Retain(TQArrayGetValueAtIndex(Cast{read}, 1));
    const Value inFirst = Value::Retain(TQArrayGetValueAtIndex(Cast{first}, 0));
    EXPECT_TRUE(TQDictionarySetValue(Cast{inFirst}, Text("k").get(), Number(5).get()));
    for (const Value &array : {first, read}) EXPECT_TRUE(TQArrayAppendValue(Cast{array}, Number(6).get()));
    EXPECT_EQ(Describe(read.get()), "[{\"k\": \"v\"}, [{\"k\": 5}, 6], [{\"k\": \"v\"}], 6]");
}

// Each level refers to the next in several places. That costs nothing until each place gets a container of its own.
TEST(PropertyList, SharedContainersCostWhatTheyTake)
{
    const auto levels = [](uint64_t count, int places, const char *last) {
        std::string words;
        for (uint64_t next = 1; next < count; ++next) {
            words += "af11" + ToHex(BigEndian(static_cast<uint64_t>(places), 2));
            for (int i = 0; i < places; ++i) words += ToHex(BigEndian(next, 2));
            words += ' ';
        }
        return File(words + last);
    };
    const std::string wide = levels(3, 374, "09"), wider = levels(4, 250, "09"), deep = levels(300, 16, "a0");
    EXPECT_EQ(wide.size(), 1551U);
    for (const std::string &file : {wide, wider, deep}) {
        const Value read = Read(file), again = Read(file);
        EXPECT_TRUE(read && TQEqual(read.get(), again.get()) && TQHash(read.get()) == TQHash(again.get()));
        EXPECT_LT(Describe(read.get()).size(), 2U << 20);
        Ref<TQError> error;
        EXPECT_EQ(static_cast<bool>(Read(file, true, error.out())), file == wide);
        EXPECT_THAT(file == wide ? "more memory" : Describe(error.get()), HasSubstr("more memory"));
        EXPECT_THAT(Write(file == deep ? read : Text("x")), HasSubstr(file == deep ? "! more than 4194304" : ""));
    }
}

// Python's plistlib is an independent writer of the format: we write its file back byte for byte. The file is
//
//     plistlib.dump({
//         'integers': [0, 255, 256, 65535, 65536, 1 << 32, (1 << 63) - 1, -1, -(1 << 63), 1 << 63, (1 << 64) - 1],
//         'reals': [0.5, -1e300, float('inf'), 1.0], 'truths': [True, False, 1, 0],
//         'apart': [1, 1.0, True, '1', b'1'] * 100,
//         'texts': ['', '14 characters.', '15 characters..', 'é€😀', 'x' * 70000, 'zero\0'],
//         'data': [b'', b'\xff' * 300],
//         'dates': [datetime.datetime(2001, 9, 9, 1, 46, 40, 500000), datetime.datetime(1938, 4, 24)],
//         'ключ': {}, 'many': {f'key {i}': i * i for i in range(300)}, 'nested': [[[[[['deep']]]]]],
//     }, open('by_python.plist', 'wb'), fmt=plistlib.FMT_BINARY, sort_keys=False)
TEST(PropertyList, AgreesWithPython)
{
    const std::string theirs = disk::Read(VAULTRY_TESTS_DIRECTORY "/Runtime/by_python.plist");
    EXPECT_THAT(Reading(theirs), HasSubstr("\"truths\": [true, false, 1, 0]"));
    EXPECT_TRUE(Write(Read(theirs)) == theirs);
}
