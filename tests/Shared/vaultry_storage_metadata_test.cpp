#include "support/Identity.h"
#include "support/Reports.h"

#include <vaultry/collections.h>
#include <vaultry/data.h>
#include <vaultry/metadata.h>
#include <vaultry/number.h>
#include <vaultry/plist.h>

#include <cerrno>
#include <gmock/gmock.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char kInfo[] = "com.corvane.vaultry.info", kDisplayName[] = "com.corvane.vaultry.origdisplayname",
               kOptions[] = "com.corvane.vaultry.gen_options";

// A generation's top item: without write bits, as archiving leaves it.
class Metadata : public AsEach {
protected:
    // From outside: even an ordinary owner must lift the protection first.
    void Store(const char *name, const std::optional<std::string> &value)
    {
        chmod(path, 0644);
        if (value)
            disk::SetAttribute(item, name, *value);
        else
            (void)_SetEAOnGeneration(path, name, nullptr, 0, nullptr);
        chmod(path, 0444);
    }

    TempDirectory directory;
    const std::string item = disk::Write(directory / "item", "", 0444);
    const char *const path = item.c_str();
    const std::string missing = directory / "missing";
};
INSTANTIATE_AS_EACH(Metadata);

TEST_P(Metadata, ProtectionIsLiftedForTheChangeAndPutBack)
{
    const bool immutable = disk::SetFlags(item, FS_IMMUTABLE_FL);
    EXPECT_EQ(immutable, directory.CanSetImmutable());
    const Snapshot before = Snapshot::Of(item, Snapshot::kUntouched);
    if (GetParam() == As::Root && immutable) {
        // Root lifts nothing, and the flag stops root too.
        ExpectRows({{"immutable", System(EPERM, "setxattr(\"$/item\") failed"),
                     [&](TQError **error) { return _SetEAOnGeneration(path, "a", "v", 1, error); }}},
                   directory.path());
        EXPECT_TRUE(Same(before, Snapshot::Of(item, Snapshot::kUntouched)));
        disk::SetFlags(item, 0);
    }
    OwnedError error;
    EXPECT_TRUE(_SetEAOnGeneration(path, "com.example.a", "value", 5, error.out())) << error.description();
    EXPECT_EQ(disk::Attribute(item, "com.example.a"), "value");
    EXPECT_TRUE(_SetEAOnGeneration(path, "com.example.a", "", 0, error.out())) << "no bytes: removed";
    EXPECT_TRUE(_SetEAOnGeneration(path, "com.example.a", nullptr, 5, error.out())) << "absent already";
    EXPECT_EQ(disk::Attribute(item, "com.example.a"), std::nullopt);
    EXPECT_EQ(disk::Mode(item), 0444U);
    EXPECT_EQ(disk::Flags(item), GetParam() == As::Capable && immutable ? FS_IMMUTABLE_FL : 0);
    disk::SetFlags(item, 0);

    const std::string root =
        GetParam() == As::Root ? "setxattr(\"$/missing\") failed" : "Failed to stat generation root at \"$/missing\"";
    ExpectRows({{"nothing there", System(ENOENT, root),
                 [&](TQError **e) { return _SetEAOnGeneration(missing.c_str(), "a", "v", 1, e); }},
                {"a name that can't be", System(ERANGE, "setxattr(\"$/item\") failed"),
                 [&](TQError **e) { return _SetEAOnGeneration(path, std::string(300, 'a').c_str(), "v", 1, e); }},
                {"the same, to be removed", System(ERANGE, "removexattr(\"$/item\") failed"),
                 [&](TQError **e) { return _SetEAOnGeneration(path, std::string(300, 'a').c_str(), nullptr, 0, e); }}},
               directory.path());
    EXPECT_EQ(disk::Mode(item), 0444U);
}

TEST_P(Metadata, OptionsAreKeptOnlyWithABitThatMatters)
{
    const struct {
        uint64_t set;
        bool kept;
    } rows[] = {{3, true}, {0x1e, true}, {0, false}, {~uint64_t{0}, true}, {0x20, false}, {0xffff00000000001c, true},
                {1, false}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.set);
        EXPECT_TRUE(TQSetGenerationOptions(path, row.set, nullptr));
        EXPECT_EQ(disk::Attribute(item, kOptions).has_value(), row.kept);
        EXPECT_EQ(TQGetGenerationOptions(path), row.kept ? row.set : 1U);
    }
    for (const size_t length : {0U, 1U, 7U, 9U}) {
        Store(kOptions, std::string(length, '\1'));
        EXPECT_EQ(TQGetGenerationOptions(path), 0U) << length << " bytes";
    }
    EXPECT_EQ(TQGetGenerationOptions(missing.c_str()), 0U);
    EXPECT_EQ(TQGetGenerationOptions(nullptr), 0U);
}

TEST_P(Metadata, DisplayNameOfUpTo767Bytes)
{
    OwnedError error;
    const std::string longest(767, 'n');
    EXPECT_TRUE(TQSetOriginalDisplayName(path, String(longest).get(), error.out())) << error.description();
    EXPECT_EQ(disk::Attribute(item, kDisplayName), longest) << "without a terminating zero";
    const auto read = [&](TQError **e) { return Ref<TQString>::Adopt(TQCopyOriginalDisplayName(path, e)); };
    EXPECT_EQ(Text(read(nullptr).get()), longest);
    ExpectRows({{"one byte more", Failed(105, "supplied display name was too long"),
                 [&](TQError **e) { return TQSetOriginalDisplayName(path, String(longest + "n").get(), e); }}},
               directory.path());
    EXPECT_EQ(Text(read(nullptr).get()), longest) << "the old one stays";
    for (const Ref<TQString> &none : {Ref<TQString>(), String("")}) {
        EXPECT_TRUE(TQSetOriginalDisplayName(path, none.get(), error.out())) << error.description();
        EXPECT_EQ(disk::Attribute(item, kDisplayName), std::nullopt);
    }

    const struct {
        const char *what;
        std::optional<std::string> stored;
        Says says;
    } rows[] = {
        {"none", std::nullopt, System(ENODATA, "Failed to get original display name xattr")},
        {"longer", std::string(769, 'n'), System(ERANGE, "Failed to get original display name xattr")},
        {"768", std::string(768, 'n'), Failed(101, "Original display name xattr too large (768) at path \"$/item\"")},
        {"empty", "", System(EDOM, "Original display name xattr too short (0) at path \"$/item\"")},
        {"not UTF-8", "\xff",
         Failed(101, "Could not create string from original display name xattr at path \"$/item\"\n")},
    };
    for (const auto &row : rows) {
        Store(kDisplayName, row.stored);
        ExpectRows({{row.what, row.says,
                     [&](TQError **e) {
                         errno = EDOM; // a successful read leaves what was there
                         return static_cast<bool>(read(e));
                     }}},
                   directory.path());
    }
}

TEST_P(Metadata, InfoIsReadChangedAndWrittenBackWhole)
{
    const auto key = String("key"), other = String("other");
    const auto value = Ref<TQNumber>::Adopt(TQNumberCreateInt64(42));
    OwnedError error;
    EXPECT_TRUE(TQSetInfoValue(path, key.get(), value.get(), error.out())) << error.description();
    EXPECT_TRUE(TQSetInfoValue(path, other.get(), key.get(), error.out())) << error.description();
    const std::string stored = disk::Attribute(item, kInfo).value_or("");
    EXPECT_EQ(stored.substr(0, 8), "bplist00");
    const auto both = Ref<TQDictionary>::Adopt(TQCopyMutableInfoDictionary(path, nullptr));
    EXPECT_EQ(TQDictionaryGetCount(both.get()), 2U);
    EXPECT_TRUE(TQDictionaryRemoveValue(both.get(), other.get())) << "and it is mutable";
    EXPECT_TRUE(TQEqual(Ref<TQValue>::Adopt(TQCopyInfoValue(path, key.get(), nullptr)).get(), value.get()));

    const auto unstorable = Ref<TQSet>::Adopt(TQSetCreateMutable());
    const auto copyValue = [&](TQError **e) {
        return static_cast<bool>(Ref<TQValue>::Adopt(TQCopyInfoValue(path, String("none").get(), e)));
    };
    const auto removeValue = [&](TQError **e) { return TQSetInfoValue(path, String("none").get(), nullptr, e); };
    ExpectRows({{"no such key", Refused(112, "property not found"), copyValue},
                {"no such key to remove", Refused(112, "property not found"), removeValue}},
               directory.path());
    const Outcome refused = InChild([&](TQError **e) { return TQSetInfoValue(path, key.get(), unstorable.get(), e); });
    EXPECT_TRUE(refused.hasError);
    EXPECT_EQ(refused.status, 101);
    ExpectSays(refused, Logs(0, "Failed to create property list for new info dictionary for path \"$/item\"; error "),
               directory.path());
    const Outcome full = InChild([&](TQError **e) {
        const auto big = Ref<TQData>::Adopt(TQDataCreate(std::string(70000, 'x').data(), 70000));
        return TQSetInfoValue(path, key.get(), big.get(), e);
    });
    EXPECT_THAT(full.underlying, testing::AnyOf(ENOSPC, E2BIG));
    EXPECT_EQ(disk::Attribute(item, kInfo), stored) << "none of these changed it";

    EXPECT_TRUE(TQSetInfoValue(path, key.get(), nullptr, error.out()));
    EXPECT_TRUE(TQSetInfoValue(path, other.get(), nullptr, error.out()));
    EXPECT_EQ(disk::Attribute(item, kInfo), std::nullopt) << "an empty dictionary is never stored";
    EXPECT_EQ(TQDictionaryGetCount(Ref<TQDictionary>::Adopt(TQCopyMutableInfoDictionary(path, nullptr)).get()), 0U);
    ExpectRows({{"no info at all", Refused(112, "property not found"), copyValue}}, directory.path());
}

TEST_P(Metadata, DamagedInfoIsReportedAsWhatItIs)
{
    const auto read = [&](const std::string &at) {
        return [at](TQError **e) {
            return static_cast<bool>(Ref<TQDictionary>::Adopt(TQCopyMutableInfoDictionary(at.c_str(), e)));
        };
    };
    const std::string invalid =
        std::string("Invalid property list found in attribute ") + kInfo + " at path \"$/item\"";
    for (const std::string &bytes : {std::string("junk"), std::string(), std::string("bplist00")}) {
        Store(kInfo, bytes);
        const Outcome outcome = InChild(read(item));
        EXPECT_TRUE(outcome.hasError && outcome.status == 101) << outcome.message;
        ExpectSays(outcome, Logs(0, invalid), directory.path());
    }
    const auto array = Names({"a"});
    const auto bytes = Ref<TQData>::Adopt(TQPropertyListCreateData(array.get(), nullptr));
    Store(kInfo, std::string(static_cast<const char *>(TQDataGetBytes(bytes.get())), TQDataGetLength(bytes.get())));
    const Outcome outcome = InChild(read(item));
    EXPECT_EQ(outcome.status, 101);
    EXPECT_THAT(outcome.message, testing::HasSubstr("isn't a dictionary"));
    ExpectSays(outcome, Logs(0, outcome.message), "");

    const std::string changed = std::string("Attribute ") + kInfo + " at path \"$/item\" should have size: " +
                                std::to_string(TQDataGetLength(bytes.get())) + "; actual -1\n";
    ExpectRows({{"nothing there", System(ENOENT, "getxattr failed", 7), read(missing)},
                {"no path", System(ENOENT, "getxattr failed", 7), read("")},
                {"changed between two reads", Failed(101, changed), read(item), FailCall(2, EIO, kGetAttribute)}},
               directory.path());
    if (kCanFailAllocations)
        ExpectRows({{"no memory", System(ENOMEM, "malloc failed", 7), read(item), FailAllocation(1)}},
                   directory.path());
}

} // namespace
