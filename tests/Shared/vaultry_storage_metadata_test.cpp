#include "support/Tests.h"

namespace {

constexpr char kInfo[] = "com.corvane.vaultry.info", kDisplayName[] = "com.corvane.vaultry.origdisplayname",
               kOptions[] = "com.corvane.vaultry.gen_options";

// A generation's top item: without write bits, as archiving leaves it.
struct Metadata : InDirectory {
    // From outside: even an ordinary owner must lift the protection first.
    void Store(const char *name, const std::optional<std::string> &value)
    {
        (void)_SetEAOnGeneration(path, name, nullptr, 0, nullptr);
        chmod(path, 0644);
        if (value) disk::SetAttribute(item, name, *value);
        chmod(path, 0444);
    }

    const std::string item = File("item", "", 0444), missing = At("missing");
    const char *const path = item.c_str();
};
INSTANTIATE_AS_EACH(Metadata);

TEST_P(Metadata, ProtectionIsLiftedForTheChangeAndPutBack)
{
    const std::string longName(300, 'a');
    EXPECT_EQ(disk::SetFlags(item, FS_IMMUTABLE_FL), canFlag);
    if (isRoot && canFlag) {
        // Root lifts nothing, and the flag stops root too.
        Expect({{System(EPERM, "setxattr(\"$/item\") failed"), CALL(_SetEAOnGeneration(path, "a", "v", 1, why))}});
        disk::SetFlags(item, 0);
    }
    const int flags = disk::Flags(item);
    OwnedError error;
    EXPECT_TRUE(_SetEAOnGeneration(path, "a", "value", 5, error.out())) << error.description();
    EXPECT_EQ(disk::Attribute(item, "a"), "value");
    for (const char *nothing : {"", static_cast<const char *>(nullptr)})
        EXPECT_TRUE(_SetEAOnGeneration(path, "a", nothing, nothing ? 0 : 5, error.out())) << "removed, and once more";
    EXPECT_EQ(disk::Attribute(item, "a"), std::nullopt);
    Expect({{System(ERANGE, "removexattr(\"$/item\") failed"),
             CALL(_SetEAOnGeneration(path, longName.c_str(), nullptr, 0, why))}});
    EXPECT_EQ(disk::Mode(item), 0444U);
    EXPECT_EQ(disk::Flags(item), flags);
}

TEST_P(Metadata, OptionsAreKeptOnlyWithABitThatMatters)
{
    const std::pair<uint64_t, bool> rows[] = {{3, true}, {0x21, false}, {0xffff000000000010, true}, {0, false}};
    for (const auto &[word, kept] : rows) {
        EXPECT_TRUE(TQSetGenerationOptions(path, word, nullptr));
        EXPECT_EQ(disk::Attribute(item, kOptions).has_value(), kept) << word;
        EXPECT_EQ(TQGetGenerationOptions(path), kept ? word : 1U);
    }
    for (const size_t length : {0U, 7U, 9U}) {
        Store(kOptions, std::string(length, '\1'));
        EXPECT_EQ(TQGetGenerationOptions(path), 0U) << length << " bytes";
    }
    EXPECT_EQ(TQGetGenerationOptions(missing.c_str()) + TQGetGenerationOptions(nullptr), 0U);
}

TEST_P(Metadata, DisplayNameOfUpTo767Bytes)
{
    const std::string longest(767, 'n'), failed = "Failed to get original display name xattr",
                                         is = "Original display name xattr too ";
    OwnedError error;
    EXPECT_TRUE(TQSetOriginalDisplayName(path, String(longest).get(), error.out())) << error.description();
    Expect({{Failed(105, "supplied display name was too long"),
             CALL(TQSetOriginalDisplayName(path, String(longest + "n").get(), why))}});
    EXPECT_EQ(disk::Attribute(item, kDisplayName), longest) << "without a terminating zero";
    EXPECT_EQ(Text(Ref<TQString>::Adopt(TQCopyOriginalDisplayName(path, nullptr)).get()), longest);
    for (const Ref<TQString> &none : {Ref<TQString>(), String("")}) {
        EXPECT_TRUE(TQSetOriginalDisplayName(path, none.get(), error.out())) << error.description();
        EXPECT_EQ(disk::Attribute(item, kDisplayName), std::nullopt);
    }
    const std::pair<std::optional<std::string>, Says> rows[] = {
        {std::nullopt, System(ENODATA, failed)},
        {std::string(769, 'n'), System(ERANGE, failed)},
        {std::string(768, 'n'), Failed(101, is + "large (768) at path \"$/item\"")},
        {"", System(EDOM, is + "short (0) at path \"$/item\"")}, // a successful read leaves what errno was
        {"\xff", Failed(101, "Could not create string from original display name xattr at path \"$/item\"\n")}};
    for (const auto &[stored, says] : rows) {
        Store(kDisplayName, stored);
        Expect({{says, CALL((errno = EDOM) && TQCopyOriginalDisplayName(path, why))}});
    }
}

TEST_P(Metadata, InfoIsReadChangedAndWrittenBackWhole)
{
    const auto key = String("key"), other = String("other"), none = String("none");
    const auto value = Ref<TQNumber>::Adopt(TQNumberCreateInt64(42));
    OwnedError error;
    EXPECT_TRUE(TQSetInfoValue(path, key.get(), value.get(), error.out())) << error.description();
    EXPECT_TRUE(TQSetInfoValue(path, other.get(), key.get(), error.out())) << error.description();
    const std::string stored = disk::Attribute(item, kInfo).value_or("");
    EXPECT_EQ(stored.substr(0, 8), "bplist00");
    const auto both = Ref<TQDictionary>::Adopt(TQCopyMutableInfoDictionary(path, nullptr));
    EXPECT_TRUE(TQDictionaryGetCount(both.get()) == 2 && TQDictionaryRemoveValue(both.get(), other.get()));
    EXPECT_TRUE(TQEqual(Ref<TQValue>::Adopt(TQCopyInfoValue(path, key.get(), nullptr)).get(), value.get()));

    const auto unstorable = Ref<TQSet>::Adopt(TQSetCreateMutable());
    const Operation copyNone = CALL(TQCopyInfoValue(path, none.get(), why));
    Expect({{Refused(112, "property not found"), copyNone},
            {Refused(112, "property not found"), CALL(TQSetInfoValue(path, none.get(), nullptr, why))},
            {Logs(0, "Failed to create property list for new info dictionary for path \"$/item\"; error "),
             CALL(!TQSetInfoValue(path, key.get(), unstorable.get(), why) && TQErrorGetStatus(*why) == 101)}});
    EXPECT_EQ(disk::Attribute(item, kInfo), stored) << "none of these changed it";

    for (const auto &each : {key, other}) EXPECT_TRUE(TQSetInfoValue(path, each.get(), nullptr, error.out()));
    EXPECT_EQ(disk::Attribute(item, kInfo), std::nullopt) << "an empty dictionary is never stored";
    Expect({{Refused(112, "property not found"), copyNone}});
}

TEST_P(Metadata, DamagedInfoIsReportedAsWhatItIs)
{
    const std::string attribute = std::string("attribute ") + kInfo + " at path \"$/item\"";
    const Operation read = CALL(TQCopyMutableInfoDictionary(path, why));
    for (const char *bytes : {"junk", ""}) {
        Store(kInfo, bytes);
        const Outcome outcome = InChild(read);
        EXPECT_EQ(outcome.status, 101) << outcome.message;
        ExpectSays(outcome, Logs(0, "Invalid property list found in " + attribute), directory.path());
    }
    const auto array = Names({"a"});
    const auto bytes = Ref<TQData>::Adopt(TQPropertyListCreateData(array.get(), nullptr));
    Store(kInfo, std::string(static_cast<const char *>(TQDataGetBytes(bytes.get())), TQDataGetLength(bytes.get())));
    Expect({{Failed(101, "Property list in " + attribute + " isn't a dictionary"), read},
            {System(ENOENT, "getxattr failed", 7), CALL(TQCopyMutableInfoDictionary(missing.c_str(), why))}});
}

} // namespace
