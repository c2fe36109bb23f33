#include "Runtime/Values.h"
#include "fuzz/PlistRoundTrip.h"
#include "support/Disk.h"

#include <vaultry/url.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>

using testing::HasSubstr;

namespace {

// The list's bytes, or the description of the error.
std::string Write(const Value &value)
{
    Ref<TQError> error;
    const Value data = Own(TQPropertyListCreateData(value.get(), error.out()));
    if (!data) return "error: " + Describe(error.get());
    return {static_cast<const char *>(TQDataGetBytes(Cast{data})), TQDataGetLength(Cast{data})};
}

Value Read(const std::string &bytes, bool mutableContainers = false, std::string *refusal = nullptr)
{
    Ref<TQError> error;
    Value value = Own(TQPropertyListCreateWithData(Cast{Bytes(bytes)}, mutableContainers, error.out()));
    if (refusal) *refusal = value ? "accepted: " + Describe(value.get()) : Describe(error.get());
    EXPECT_TRUE(value || TQEqual(TQErrorGetDomain(error.get()), kTQLibraryErrorDomain));
    return value;
}

std::string BigEndian(uint64_t value, size_t size)
{
    std::string bytes;
    while (size-- > 0) bytes.push_back(static_cast<char>(value >> (8 * size)));
    return bytes;
}

// Null if the bytes keep what must hold for any.
const char *Fault(const std::string &bytes, bool &accepted)
{
    return CheckPlistRoundTrip(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size(), accepted);
}

// A file of these objects, the first on top, with numbers and offsets of two bytes.
std::string File(const std::vector<std::string> &objects)
{
    std::string file = "bplist00", table;
    for (const std::string &object : objects) {
        table += BigEndian(file.size(), 2);
        file += object;
    }
    return file + table + BigEndian(0x0202, 8) + BigEndian(objects.size(), 8) + BigEndian(0, 8) +
           BigEndian(file.size(), 8);
}

// An array or a dictionary of the objects with these numbers.
std::string Container(char kind, const std::vector<unsigned> &numbers)
{
    const size_t count = kind == '\xd0' ? numbers.size() / 2 : numbers.size();
    std::string object = count < 15 ? std::string(1, static_cast<char>(kind | static_cast<char>(count)))
                                    : std::string(1, static_cast<char>(kind | 15)) + "\x11" + BigEndian(count, 2);
    for (const unsigned number : numbers) object += BigEndian(number, 2);
    return object;
}

// Arrays that each hold the next one `times` times.
std::string Tower(unsigned height, size_t times)
{
    std::vector<std::string> objects;
    for (unsigned i = 1; i < height; ++i) objects.push_back(Container('\xa0', std::vector<unsigned>(times, i)));
    objects.push_back("\xa0");
    return File(objects);
}

std::string Replaced(std::string file, size_t fromEnd, char byte)
{
    file[file.size() - fromEnd] = byte;
    return file;
}

} // namespace

TEST(PropertyListWriter, RefusesWhatTheFormatHasNot)
{
    const Value key = Text("key");
    const auto loop = Ref<TQDictionary>::Adopt(TQDictionaryCreateMutable());
    TQDictionarySetValue(loop.get(), key.get(), Array({Value::Retain(loop.get())}).get());
    const std::tuple<Value, const char *> rows[] = {
        {Own(TQSetCreateMutable()), "a value of the kind set"},
        {Array({Own(TQURLCreateWithFileSystemPath("/", true))}), "a value of the kind URL"},
        {Array({Own(TQErrorCreate(kTQPOSIXErrorDomain, 1, nullptr))}), "a value of the kind error"},
        {Dictionary({{Number(1), Number(1)}}), "a key of the kind number"},
        {Value::Retain(loop.get()), "holds itself"},
        {Nested(513), "more than 512 deep"},
        {Value(), "null"},
    };
    for (const auto &[value, says] : rows) EXPECT_THAT(Write(value), HasSubstr(says));
    EXPECT_EQ(TQPropertyListCreateData(loop.get(), nullptr), nullptr);
    TQDictionaryRemoveValue(loop.get(), key.get());
}

TEST(PropertyListWriter, WritesEqualScalarsOnceAndDifferentOnesApart)
{
    const std::vector<Value> distinct = {Number(1),   Number(1.0),  Truth(true),  Text("1"), Bytes("1"), Number(0),
                                         Number(0.0), Number(-0.0), Truth(false), Date(1),   Text("é"),  Number(-1)};
    std::vector<Value> members;
    for (int i = 0; i < 100; ++i) members.insert(members.end(), distinct.begin(), distinct.end());
    const std::string bytes = Write(Array(members));
    EXPECT_EQ(bytes.substr(bytes.size() - 24, 8), BigEndian(distinct.size() + 1, 8));
    const Value again = Read(bytes);
    EXPECT_TRUE(std::signbit(TQNumberGetDouble(TQArrayGetValueAtIndex(Cast{again}, 7))));
}

TEST(PropertyList, HasOneFormForEachValueAndReadsOthers)
{
    const std::tuple<Value, std::string, bool> rows[] = {
        {Number(0), std::string("\x10\0", 2), true},
        {Number(255), "\x10\xff", true},
        {Number(256), "\x11" + BigEndian(256, 2), true},
        {Number(int64_t{1} << 32), "\x13" + BigEndian(1ULL << 32, 8), true},
        {Number(-1), "\x13" + std::string(8, '\xff'), true},
        {Number(INT64_MIN), "\x13" + BigEndian(1ULL << 63, 8), true},
        {Number(UINT64_MAX), "\x14" + std::string(8, '\0') + std::string(8, '\xff'), true},
        {Number(1.0), "\x23" + BigEndian(0x3ff0000000000000, 8), true},
        {Number(std::nan("")), "\x23" + BigEndian(0x7ff8000000000000, 8), true},
        {Truth(true), "\x09", true},
        {Date(978307201), "\x33" + BigEndian(0x3ff0000000000000, 8), true},
        {Date(0.1), "\x33" + BigEndian(0xc1cd27e43ff33333, 8), true},
        {Text("15 characters.."), "\x5f\x10\x0f\x31\x35 characters..", true},
        {Text("é😀"), std::string("\x63\x00\xe9\xd8\x3d\xde\x00", 7), true},
        {Bytes(std::string(256, 'x')), "\x4f\x11" + BigEndian(256, 2) + std::string(256, 'x'), true},
        {Number(1.5), "\x22" + BigEndian(0x3fc00000, 4), false},
        {Number(-1), "\x14" + std::string(16, '\xff'), false},
        {Number(5), "\x14" + std::string(15, '\0') + "\x05", false},
        {Text("xy"), "\x5f\x13" + BigEndian(2, 8) + "xy", false},
    };
    for (const auto &[value, object, written] : rows) {
        std::string refusal;
        EXPECT_TRUE(TQEqual(Read(File({object}), false, &refusal).get(), value.get())) << refusal;
        EXPECT_EQ(Write(value).substr(8, object.size()) == object, written) << Describe(value.get());
    }
    EXPECT_TRUE(TQEqual(Read(Write(Nested(512))).get(), Nested(512).get()));
}

TEST(PropertyListParser, SaysWhatIsWrongAndWhere)
{
    const std::string good = File({"\x10\x05"});
    const std::string eight(8, '\xff'), almostEight = "\x7f" + eight.substr(1);
    const std::string loop = File({Container('\xa0', {1}), Container('\xd0', {2, 0}), "\x51k"});
    const std::string keyTwice = File({Container('\xd0', {1, 2, 3, 3}), "\x51k", std::string("\x61\x00k", 3), "\x09"});
    const std::string threeTexts = File({Container('\xa0', {1, 2, 3}), "\x59nine char", "\x51x", "\x51y"});
    // The short way to the lower part is read first; the long way to it then is too deep.
    std::vector<std::string> longWay = {Container('\xa0', {300, 1})};
    for (unsigned i = 1; i < 600; ++i) longWay.push_back(Container('\xa0', {i + 1}));
    longWay.push_back("\xa0");
    const std::pair<const char *, std::vector<std::string>> refusals[] = {
        {"too few bytes at offset 0", {""}},
        {"too few bytes at offset 39", {good.substr(0, 39)}},
        {"version 1.0 at offset 0", {"bplist01" + good.substr(8), "x" + good}},
        {"invalid property list", {good + "x"}},
        {"does not fit the offset table", {good.substr(0, 12) + "x" + good.substr(12), Replaced(good, 17, 0)}},
        {"does not fit the offset table at offset 20", {Replaced(good, 24, '\x7f'), Replaced(good, 17, 2)}},
        {"offsets of 0 bytes at offset 18", {Replaced(good, 26, 0)}},
        {"object numbers of 9 bytes at offset 19", {Replaced(good, 25, 9)}},
        {"top object that does not exist at offset 28", {Replaced(good, 9, 1)}},
        {"offset table outside the file", {Replaced(good, 8, '\xff'), Replaced(good, 1, 8), Replaced(good, 1, 127)}},
        {"object outside the file at offset 10", {Replaced(good, 33, 7), Replaced(good, 34, 1)}},
        {"unknown kind 0x00 at offset 8", {File({std::string(1, '\0')})}},
        {"of the unknown kind", {File({"\x0f"}), File({"\x80\x01"}), File({"\xc0"}), File({"\x32" + eight})}},
        {"of an unknown size at offset 8", {File({"\x15" + eight + eight + eight + eight}), File({"\x21xy"})}},
        {"more than 64 bits", {File({"\x14" + eight + BigEndian(5, 8)}), File({"\x14" + BigEndian(1, 8) + eight})}},
        {"cut off at offset 8",
         {File({"\x13xyz"}), File({"\x23xyz"}), File({"\x33xyz"}), File({"\x44xyz"}), File({"\x55xyz"}),
          File({"\x62xyz"}), File({"\xa2xyz"}), File({"\xd1xyz"})}},
        {"an object that is cut off",
         {File({"\x5f\x13" + eight}), File({"\x6f\x13" + almostEight}), File({"\xaf\x13" + almostEight}),
          File({"\xdf\x13\x40" + std::string(7, '\0')})}},
        {"a count that is cut off at offset 8", {File({"\x5f\x13xyz"}), File({"\x5f"})}},
        {"no integer at offset 9", {File({"\x5f\x23" + eight})}},
        {"not ASCII at offset 10", {File({"\x52x\xe9"})}},
        {"half a surrogate pair at offset 9",
         {File({std::string("\x61\xd8\x00", 3)}), File({std::string("\x62\xdc\x00\x00x", 5)}),
          File({std::string("\x62\xd8\x00\xd8\x00", 5)})}},
        {"does not exist at offset 9", {File({Container('\xa0', {1})})}},
        {"holds itself", {File({Container('\xa0', {0})}), loop}},
        {"a key that is not a string at offset 9", {File({Container('\xd0', {1, 1}), "\x10\x01"})}},
        {"a key for the second time at offset 11", {keyTwice}},
        {"more than 512 deep", {Tower(513, 1), File(longWay)}},
        {"objects that overlap", {Replaced(Replaced(threeTexts, 33, 15), 35, 15)}}, // all three are the first
        {"more values than the file justifies", {Tower(40, 2), Tower(6, 2000)}},
    };
    for (const auto &[says, files] : refusals)
        for (const std::string &file : files) {
            std::string refusal;
            EXPECT_FALSE(Read(file, false, &refusal) || Read(file, true));
            EXPECT_THAT(refusal, HasSubstr(says));
        }
    EXPECT_TRUE(Read(Tower(512, 1)));
}

TEST(PropertyListParser, MutableContainersAreEachTheirOwn)
{
    // One dictionary in three places, one of them inside another array that is itself in two places.
    const Value read =
        Read(File({Container('\xa0', {1, 2, 2}), Container('\xd0', {3, 4}), Container('\xa0', {1}), "\x51k", "\x51v"}),
             true);
    ASSERT_EQ(Describe(read.get()), "[{\"k\": \"v\"}, [{\"k\": \"v\"}], [{\"k\": \"v\"}]]");
    const Value first = Value::Retain(TQArrayGetValueAtIndex(Cast{read}, 1));
    const Value inFirst = Value::Retain(TQArrayGetValueAtIndex(Cast{first}, 0));
    EXPECT_TRUE(TQDictionarySetValue(Cast{inFirst}, Text("k").get(), Number(5).get()));
    for (const Value &array : {first, read}) EXPECT_TRUE(TQArrayAppendValue(Cast{array}, Number(6).get()));
    EXPECT_EQ(Describe(read.get()), "[{\"k\": \"v\"}, [{\"k\": 5}, 6], [{\"k\": \"v\"}], 6]");
}

TEST(PropertyListParser, NoDamageOfOneByteDoesHarm)
{
    const std::string good = Write(Dictionary({{Text("list"), Array({Number(1), Text("é"), Date(5), Bytes("xy")})},
                                               {Text("more"), Dictionary({{Text("k"), Number(0.5)}})}}));
    for (size_t at = 0; at < good.size(); ++at) {
        EXPECT_FALSE(Read(good.substr(0, at)));
        for (int byte = 0; byte < 256; ++byte) {
            bool accepted = false;
            ASSERT_EQ(Fault(Replaced(good, good.size() - at, static_cast<char>(byte)), accepted), nullptr)
                << "byte " << at << " as " << byte;
        }
    }
}

TEST(PropertyList, CorpusOfTheFuzzerHolds)
{
    int kinds[2] = {}; // hostile and valid
    for (const auto &entry : std::filesystem::directory_iterator(VAULTRY_TESTS_DIRECTORY "/fuzz/corpus/plist")) {
        std::ifstream file(entry.path(), std::ios::binary);
        bool accepted = false;
        const char *fault = Fault({std::istreambuf_iterator<char>(file), {}}, accepted);
        EXPECT_EQ(fault, nullptr) << entry.path() << ": " << fault;
        ++kinds[accepted];
    }
    EXPECT_THAT(kinds, testing::Each(testing::Gt(4)));
}

// Python's plistlib knows the format from elsewhere: it writes what we read, and reads what we write.
TEST(PropertyList, AgreesWithPython)
{
    if (std::system("python3 -c 'import plistlib' 2>/dev/null") != 0)
        GTEST_SKIP() << "python3 with plistlib is not installed";
    const TempDirectory folder;
    std::ofstream(folder / "python.py") << R"(
import plistlib, sys, datetime
value = {
    'integers': [0, 255, 256, 65535, 65536, 1 << 32, (1 << 63) - 1, -1, -(1 << 63), 1 << 63, (1 << 64) - 1],
    'reals': [0.5, -1e300, float('inf'), 1.0], 'truths': [True, False, 1, 0],
    'texts': ['', '14 characters.', '15 characters..', 'é€😀', 'x' * 70000, 'zero\0'], 'data': [b'', b'\xff' * 300],
    'dates': [datetime.datetime(2001, 1, 1), datetime.datetime(2001, 9, 9, 1, 46, 40, 500000), datetime.datetime(1938, 4, 24)],
    'ключ': {}, 'many': {f'key {i}': i * i for i in range(300)}, 'nested': [[[[[['deep']]]]]],
}
def shape(v):
    if isinstance(v, dict): return {k: shape(w) for k, w in v.items()}
    return [shape(w) for w in v] if isinstance(v, list) else type(v).__name__
if sys.argv[1] == 'write':
    plistlib.dump(value, open('theirs', 'wb'), fmt=plistlib.FMT_BINARY, sort_keys=False)
else:
    ours = plistlib.load(open('ours', 'rb'))
    assert ours == value and shape(ours) == shape(value) and list(ours) == list(value), ours
)";
    const std::string python = "cd " + folder.path() + " && python3 python.py ";
    EXPECT_EQ(std::system((python + "write").c_str()), 0);
    std::ifstream theirs(folder / "theirs", std::ios::binary);
    std::string refusal;
    const Value read = Read({std::istreambuf_iterator<char>(theirs), {}}, true, &refusal);
    EXPECT_THAT(refusal, HasSubstr("\"truths\": [true, false, 1, 0]")) << refusal.substr(0, 500);
    std::ofstream(folder / "ours", std::ios::binary) << Write(read);
    EXPECT_EQ(std::system((python + "check").c_str()), 0);
}
