#include "Runtime/Values.h"
#include "fuzz/PlistRoundTrip.h"

#include <vaultry/url.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

using testing::HasSubstr;

namespace {

std::string BytesOf(const TQData *data)
{
    return {static_cast<const char *>(TQDataGetBytes(data)), TQDataGetLength(data)};
}

// The list's bytes, or the description of the error.
std::string Write(const Value &value)
{
    Ref<TQError> error;
    const auto data = Ref<TQData>::Adopt(TQPropertyListCreateData(value.get(), error.out()));
    return data ? BytesOf(data.get()) : "error: " + Describe(error.get());
}

Value Read(const std::string &bytes, bool mutableContainers = false, std::string *refusal = nullptr)
{
    Ref<TQError> error;
    Value value =
        Own(TQPropertyListCreateWithData(static_cast<TQData *>(Bytes(bytes).get()), mutableContainers, error.out()));
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

// A file of these objects, the first on top, with numbers and offsets of two bytes.
std::string File(const std::vector<std::string> &objects)
{
    std::string file = "bplist00", table;
    for (const std::string &object : objects) {
        table += BigEndian(file.size(), 2);
        file += object;
    }
    const size_t tableOffset = file.size();
    return file + table + std::string(6, '\0') + "\2\2" + BigEndian(objects.size(), 8) + BigEndian(0, 8) +
           BigEndian(tableOffset, 8);
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

Value Everything()
{
    std::vector<std::pair<Value, Value>> many;
    for (int i = 0; i < 300; ++i) many.emplace_back(Text("key " + std::to_string(i)), Number(i * i));
    return Dictionary({
        {Text("integers"),
         Array({Number(0), Number(255), Number(256), Number(65535), Number(65536), Number(int64_t{1} << 32),
                Number(INT64_MAX), Number(-1), Number(INT64_MIN), Number(uint64_t{1} << 63), Number(UINT64_MAX)})},
        {Text("reals"), Array({Number(0.5), Number(-1e300), Number(INFINITY), Number(1.0)})},
        {Text("truths"), Array({Truth(true), Truth(false)})},
        {Text("texts"), Array({Text(""), Text("14 characters."), Text("15 characters.."), Text("é€😀"),
                               Text(std::string(70000, 'x')), Text(std::string("zero\0", 5))})},
        {Text("data"), Array({Bytes(""), Bytes(std::string(300, '\xff'))})},
        {Text("dates"), Array({Date(978307200), Date(1e9 + 0.5), Date(-1e9)})},
        {Text("ключ"), Dictionary({})},
        {Text("many"), Dictionary(many)},
        {Text("nested"), Nested(20)},
    });
}

} // namespace

TEST(PropertyListWriter, RefusesWhatTheFormatHasNot)
{
    const Value key = Text("key");
    const auto loop = Ref<TQDictionary>::Adopt(TQDictionaryCreateMutable());
    TQDictionarySetValue(loop.get(), key.get(), Array({Value::Retain(loop.get())}).get());
    const struct {
        Value value;
        const char *says;
    } rows[] = {
        {Own(TQSetCreateMutable()), "a value of the kind set"},
        {Array({Own(TQURLCreateWithFileSystemPath("/", true))}), "a value of the kind URL"},
        {Array({Own(TQErrorCreate(kTQPOSIXErrorDomain, 1, nullptr))}), "a value of the kind error"},
        {Dictionary({{Number(1), Number(1)}}), "a key of the kind number"},
        {Value::Retain(loop.get()), "holds itself"},
        {Nested(513), "more than 512 deep"},
        {Value(), "null"},
    };
    for (const auto &row : rows) EXPECT_THAT(Write(row.value), HasSubstr(row.says));
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
    EXPECT_TRUE(std::signbit(TQNumberGetDouble(TQArrayGetValueAtIndex(static_cast<TQArray *>(again.get()), 7))));
}

TEST(PropertyListWriter, TakesTheFewestBytes)
{
    const struct {
        Value value;
        std::string object;
    } rows[] = {
        {Number(255), "\x10\xff"},
        {Number(256), std::string("\x11\x01\x00", 3)},
        {Number(65536), "\x12" + BigEndian(65536, 4)},
        {Number(int64_t{1} << 32), "\x13" + BigEndian(1ULL << 32, 8)},
        {Number(-1), "\x13" + std::string(8, '\xff')},
        {Number(UINT64_MAX), "\x14" + std::string(8, '\0') + std::string(8, '\xff')},
        {Number(1.0), "\x23" + BigEndian(0x3ff0000000000000, 8)},
        {Date(978307201), "\x33" + BigEndian(0x3ff0000000000000, 8)},
        {Text("abc"), "\x53"
                      "abc"},
        {Text("é😀"), std::string("\x63\x00\xe9\xd8\x3d\xde\x00", 7)},
    };
    for (const auto &row : rows) {
        const std::string bytes = Write(row.value);
        EXPECT_EQ(bytes.substr(8, row.object.size()), row.object) << Describe(row.value.get());
        EXPECT_EQ(bytes.size(), 8 + row.object.size() + 1 + 32) << Describe(row.value.get());
    }
}

TEST(PropertyList, ComesBackEqual)
{
    for (const Value &value : {Everything(), Number(std::nan("")), Text(""), Truth(false), Nested(512), Date(0.1)}) {
        const std::string bytes = Write(value);
        std::string refusal;
        EXPECT_TRUE(TQEqual(Read(bytes, false, &refusal).get(), value.get())) << refusal;
        EXPECT_TRUE(TQEqual(Read(bytes, true).get(), value.get()));
    }
}

TEST(PropertyListParser, ReadsFormsThatTheWriterDoesNotMake)
{
    const struct {
        std::string object;
        Value value;
    } rows[] = {
        {"\x22" + BigEndian(0x3fc00000, 4), Number(1.5)},     {"\x14" + std::string(16, '\xff'), Number(-1)},
        {"\x14" + std::string(15, '\0') + "\x05", Number(5)}, {"\x11" + BigEndian(7, 2), Number(7)},
        {"\x5f\x13" + BigEndian(2, 8) + "ab", Text("ab")},
    };
    for (const auto &row : rows) {
        std::string refusal;
        EXPECT_TRUE(TQEqual(Read(File({row.object}), false, &refusal).get(), row.value.get())) << refusal;
    }
}

TEST(PropertyListParser, SaysWhatIsWrongAndWhere)
{
    const std::string good = File({"\x10\x05"});
    const std::string eight(8, '\xff');
    const struct {
        const char *what;
        std::string bytes;
        const char *says;
    } rows[] = {
        {"empty", "", "too few bytes at offset 0"},
        {"no trailer", good.substr(0, 39), "too few bytes"},
        {"another version", "bplist01" + good.substr(8), "version 1.0 at offset 0"},
        {"something behind", good + "x", "invalid property list"},
        {"something before the trailer", good.substr(0, 12) + "x" + good.substr(12), "does not fit the offset table"},
        {"offsets of 0 bytes", Replaced(good, 26, 0), "offsets of 0 bytes at offset 18"},
        {"numbers of 9 bytes", Replaced(good, 25, 9), "object numbers of 9 bytes"},
        {"no objects", Replaced(good, 17, 0), "count of objects"},
        {"more objects than offsets", Replaced(good, 24, '\x7f'), "count of objects"},
        {"top does not exist", Replaced(good, 9, 1), "top object that does not exist"},
        {"table far away", Replaced(good, 8, '\xff'), "offset table outside"},
        {"table in the header", Replaced(good, 1, 8), "offset table outside"},
        {"object in the header", Replaced(good, 33, 7), "object outside the file at offset 10"},
        {"object in the table", Replaced(good, 33, 10), "object outside the file"},
        {"null", File({std::string(1, '\0')}), "unknown kind 0x00 at offset 8"},
        {"filler", File({"\x0f"}), "unknown kind 0x0f"},
        {"UID", File({"\x80\x01"}), "unknown kind 0x80"},
        {"set", File({"\xc0"}), "unknown kind 0xc0"},
        {"odd date", File({"\x32" + eight}), "unknown kind 0x32"},
        {"integer of 32 bytes", File({"\x15" + eight + eight + eight + eight}), "unknown size at offset 8"},
        {"integer too large", File({"\x14" + eight + BigEndian(5, 8)}), "more than 64 bits"},
        {"real of 2 bytes",
         File({"\x21"
               "ab"}),
         "unknown size"},
        {"integer cut off",
         File({"\x13"
               "abc"}),
         "cut off at offset 8"},
        {"text cut off",
         File({"\x55"
               "abc"}),
         "cut off"},
        {"UTF-16 cut off",
         File({"\x62"
               "abc"}),
         "cut off"},
        {"array cut off",
         File({"\xa2"
               "abc"}),
         "cut off"},
        {"dictionary cut off",
         File({"\xd1"
               "abc"}),
         "cut off"},
        {"huge text", File({"\x5f\x13" + eight}), "cut off"},
        {"huge UTF-16", File({"\x6f\x13\x7f" + eight.substr(1)}), "cut off"},
        {"huge array", File({"\xaf\x13\x7f" + eight.substr(1)}), "cut off"},
        {"huge dictionary", File({"\xdf\x13\x40" + std::string(7, '\0')}), "cut off"},
        {"count cut off",
         File({"\x5f\x13"
               "abc"}),
         "count that is cut off"},
        {"count missing", File({"\x5f"}), "count that is cut off"},
        {"count is no integer", File({"\x5f\x23" + eight}), "no integer at offset 9"},
        {"not ASCII",
         File({"\x52"
               "a\xe9"}),
         "not ASCII at offset 10"},
        {"half a pair", File({std::string("\x61\xd8\x00", 3)}), "half a surrogate pair at offset 9"},
        {"wrong half", File({std::string("\x62\xdc\x00\x00x", 5)}), "half a surrogate pair"},
        {"two first halves", File({std::string("\x62\xd8\x00\xd8\x00", 5)}), "half a surrogate pair"},
        {"member does not exist", File({Container('\xa0', {1})}), "does not exist at offset 9"},
        {"holds itself", File({Container('\xa0', {0})}), "holds itself at offset 9"},
        {"holds its holder", File({Container('\xa0', {1}), Container('\xd0', {2, 0}), "\x51k"}), "holds itself"},
        {"key is no text", File({Container('\xd0', {1, 1}), "\x10\x01"}), "not a string at offset 9"},
        {"key twice", File({Container('\xd0', {1, 2, 3, 3}), "\x51k", std::string("\x61\x00k", 3), "\x09"}),
         "a key for the second time at offset 11"},
        {"too deep", Tower(513, 1), "more than 512 deep"},
        {"exponential", Tower(40, 2), "more values than the file justifies"},
        {"wide and exponential", Tower(6, 2000), "more values than the file justifies"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        std::string refusal;
        EXPECT_FALSE(Read(row.bytes, false, &refusal));
        EXPECT_THAT(refusal, HasSubstr(row.says));
        EXPECT_FALSE(Read(row.bytes, true));
    }
    EXPECT_TRUE(Read(Tower(512, 1)));
}

TEST(PropertyListParser, RefusesDepthReachedThroughASharedContainer)
{
    // The short way to the tower is read first; the long way then makes it too deep.
    std::vector<std::string> objects = {Container('\xa0', {300, 1})};
    for (unsigned i = 1; i < 600; ++i) objects.push_back(Container('\xa0', {i + 1}));
    objects.push_back("\xa0");
    std::string refusal;
    EXPECT_FALSE(Read(File(objects), false, &refusal));
    EXPECT_THAT(refusal, HasSubstr("more than 512 deep"));
}

TEST(PropertyListParser, RefusesObjectsThatOverlap)
{
    // Hundreds of objects that are all the same kilobyte would need hundreds of times the file's memory.
    std::vector<unsigned> numbers;
    for (unsigned i = 1; i <= 400; ++i) numbers.push_back(i);
    std::string file = "bplist00" + Container('\xa0', numbers);
    const size_t text = file.size();
    file += "\x5f\x11" + BigEndian(1000, 2) + std::string(1000, 'x');
    const size_t table = file.size();
    file += BigEndian(8, 2);
    for (size_t i = 0; i < numbers.size(); ++i) file += BigEndian(text, 2);
    file += std::string(6, '\0') + "\2\2" + BigEndian(401, 8) + BigEndian(0, 8) + BigEndian(table, 8);
    std::string refusal;
    EXPECT_FALSE(Read(file, false, &refusal));
    EXPECT_THAT(refusal, HasSubstr("overlap"));
}

TEST(PropertyListParser, MutableContainersAreEachTheirOwn)
{
    // One dictionary in three places, one of them inside another array that is itself in two places.
    const Value read =
        Read(File({Container('\xa0', {1, 2, 2}), Container('\xd0', {3, 4}), Container('\xa0', {1}), "\x51k", "\x51v"}),
             true);
    auto *top = static_cast<TQArray *>(read.get());
    ASSERT_EQ(Describe(top), "[{\"k\": \"v\"}, [{\"k\": \"v\"}], [{\"k\": \"v\"}]]");
    auto *first = static_cast<TQArray *>(TQArrayGetValueAtIndex(top, 1));
    EXPECT_TRUE(TQDictionarySetValue(static_cast<TQDictionary *>(TQArrayGetValueAtIndex(first, 0)), Text("k").get(),
                                     Number(5).get()));
    EXPECT_TRUE(TQArrayAppendValue(first, Number(6).get()));
    EXPECT_TRUE(TQArrayAppendValue(top, Number(7).get()));
    EXPECT_EQ(Describe(top), "[{\"k\": \"v\"}, [{\"k\": 5}, 6], [{\"k\": \"v\"}], 7]");
}

TEST(PropertyListParser, NoDamageOfOneByteDoesHarm)
{
    const std::string good = Write(Dictionary({{Text("list"), Array({Number(1), Text("é"), Date(5), Bytes("xy")})},
                                               {Text("more"), Dictionary({{Text("k"), Number(0.5)}})}}));
    for (size_t at = 0; at < good.size(); ++at) {
        EXPECT_FALSE(Read(good.substr(0, at)));
        for (int byte = 0; byte < 256; ++byte) {
            std::string damaged = good;
            damaged[at] = static_cast<char>(byte);
            bool accepted = false;
            const char *fault =
                CheckPlistRoundTrip(reinterpret_cast<const uint8_t *>(damaged.data()), damaged.size(), accepted);
            ASSERT_EQ(fault, nullptr) << "byte " << at << " as " << byte;
        }
    }
}

TEST(PropertyList, CorpusOfTheFuzzerHolds)
{
    int valid = 0, hostile = 0;
    for (const auto &entry : std::filesystem::directory_iterator(VAULTRY_TESTS_DIRECTORY "/fuzz/corpus/plist")) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(file), {}};
        bool accepted = false;
        const char *fault =
            CheckPlistRoundTrip(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size(), accepted);
        EXPECT_EQ(fault, nullptr) << entry.path() << ": " << fault;
        ++(accepted ? valid : hostile);
    }
    EXPECT_GT(valid, 4);
    EXPECT_GT(hostile, 4);
}

// Python's plistlib knows the format from elsewhere: it reads what we write, and we read what it writes.
TEST(PropertyList, AgreesWithPython)
{
    if (std::system("python3 -c 'import plistlib' 2>/dev/null") != 0)
        GTEST_SKIP() << "python3 with plistlib is not installed";
    char directory[] = "/tmp/plist_test.XXXXXX";
    ASSERT_NE(mkdtemp(directory), nullptr);
    const std::filesystem::path folder = directory;
    std::ofstream(folder / "ours", std::ios::binary) << Write(Everything());
    std::ofstream(folder / "check.py") << R"(
import plistlib, sys, datetime
nested = []
for _ in range(19): nested = [nested]
expected = {
    'integers': [0, 255, 256, 65535, 65536, 1 << 32, (1 << 63) - 1, -1, -(1 << 63), 1 << 63, (1 << 64) - 1],
    'reals': [0.5, -1e300, float('inf'), 1.0],
    'truths': [True, False],
    'texts': ['', '14 characters.', '15 characters..', 'é€😀', 'x' * 70000, 'zero\0'],
    'data': [b'', b'\xff' * 300],
    'dates': [datetime.datetime(2001, 1, 1), datetime.datetime(2001, 9, 9, 1, 46, 40, 500000),
              datetime.datetime(1938, 4, 24, 22, 13, 20)],
    'ключ': {},
    'many': {f'key {i}': i * i for i in range(300)},
    'nested': nested,
}
def shape(v):
    if isinstance(v, dict): return {k: shape(w) for k, w in v.items()}
    if isinstance(v, list): return [shape(w) for w in v]
    return type(v).__name__
with open(sys.argv[1] + '/ours', 'rb') as file: ours = plistlib.load(file)
assert ours == expected and shape(ours) == shape(expected), ours
assert list(ours) == list(expected)
with open(sys.argv[1] + '/theirs', 'wb') as file: plistlib.dump(expected, file, fmt=plistlib.FMT_BINARY)
)";
    EXPECT_EQ(std::system(("python3 " + (folder / "check.py").string() + " " + folder.string()).c_str()), 0);
    std::ifstream theirs(folder / "theirs", std::ios::binary);
    std::string refusal;
    const Value read = Read({std::istreambuf_iterator<char>(theirs), {}}, true, &refusal);
    EXPECT_TRUE(TQEqual(read.get(), Everything().get())) << refusal.substr(0, 2000);
    std::filesystem::remove_all(folder);
}
