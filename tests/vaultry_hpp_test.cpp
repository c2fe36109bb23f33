#include "support/Store.h"

#include <vaultry/vaultry.hpp>

#include <gmock/gmock.h>

using namespace std::literals;

namespace vaultry {

TEST(Version, IsThatOfTheHeaders)
{
    static_assert(VAULTRY_CHECK_VERSION(VAULTRY_VERSION_MAJOR, VAULTRY_VERSION_MINOR, VAULTRY_VERSION_PATCH) &&
                  !VAULTRY_CHECK_VERSION(VAULTRY_VERSION_MAJOR, VAULTRY_VERSION_MINOR, VAULTRY_VERSION_PATCH + 1));
    EXPECT_EQ(TQVaultryVersion(), VAULTRY_VERSION_NUMBER);
    EXPECT_STREQ(TQVaultryVersionText(), VAULTRY_VERSION);
}

TEST(Handles, TheLastOneFreesAndNoneBefore)
{
    int freed = 0;
    TQAllocatorContext context{};
    context.info = &freed;
    context.deallocate = [](void *, void *info) { ++*static_cast<int *>(info); };
    const Handle<TQAllocator> allocator(TQAllocatorCreate(nullptr, &context), adopt);
    {
        Data data(TQDataCreateNoCopy(nullptr, context.info, 1, allocator.get()), adopt);
        const Array array = Array::of({data, data});
        Value value = data, moved = std::move(data);
        for (const Value &one : array) EXPECT_TRUE(!data && one == value.as<Data>() && value == moved);
        moved = value = nullptr;
        EXPECT_EQ(freed, 0);
    }
    EXPECT_EQ(freed, 1);
}

TEST(Values, GoThereAndBack)
{
    const auto now = std::chrono::system_clock::now();
    const auto all = Dictionary::of({{"text", "a\0b"sv}, {"big", ~0ULL}, {"yes", true}});
    EXPECT_EQ(all["text"].as<String>().str(), "a\0b"sv);
    EXPECT_EQ(all["big"].as<Number>().to_uint64(), ~0ULL);
    EXPECT_TRUE(all["yes"].as<Number>().is_boolean() && !all["big"].as<Number>().is_boolean());
    EXPECT_TRUE(!all["none"] && !all["text"].as<Array>() && !String("\xff") && !Array::of({nullptr}));
    EXPECT_EQ(Data(std::vector<char16_t>{1, 2}).bytes().size(), 4U);
    EXPECT_LT(std::chrono::abs(Date(now).time() - now), 1us);
    EXPECT_EQ(Date(TQDateCreate(1e300), adopt).time(), Date::Clock::time_point::max());
    EXPECT_EQ(URL::of_path("a").path(), std::filesystem::current_path() / "a");
}

TEST(StoreInCpp, DoesWhatTheFunctionsDo)
{
    TestStore test(TestStore::Document::File);
    const std::string document = test.document(), before = disk::Read(document);
    EXPECT_TRUE(*Store::is_one(test.root()) && !*Store::is_one(test.path()) && !*Store::is_one(document));
    EXPECT_FALSE(Store::is_one(std::string(5000, 'x')));
    const Store store = *Store::open(test.root()), same = store;
    ASSERT_TRUE(store.add("1.txt", document, 6) && same.add("2", document) && store.set_display_name("1.txt", "One") &&
                store.set_info("1.txt", Dictionary::of({{document_key, Data(document)}, {"x", 0}})) &&
                store.remove_info("1.txt", "x") && store.set_options("1.txt", 0x8000'0000'0000'0006));
    const auto found = store.query({{}, 1ULL << 63, 8, {{"com.corvane.nimbusync"}}}).value();
    for (const Record &record : {found.at(0), *store.record("1.txt")})
        EXPECT_TRUE(record.name == "1.txt" && record.options == 0x8000'0000'0000'0006 && record.info.size() == 1 &&
                    record.path == *store.path_of("1.txt") && record.display_name == "One" &&
                    record.document() == document && !record.time());
    EXPECT_EQ(disk::Read(store.copy_out("1.txt")->path()), before);
    EXPECT_THAT(disk::List(test.Staging()), testing::IsEmpty());
    disk::Write(document, "changed");
    ASSERT_TRUE(store.restore("1.txt", document, "3.txt") && disk::Read(document) == before);
    const std::string folder = test / "d", file = disk::Write(disk::MakeDirectory(folder) + "/in", "in");
    EXPECT_TRUE(store.add("d", folder) && symlink("in", (folder + "/link").c_str()) == 0);
    EXPECT_FALSE(store.add_with("e", folder, AddRequest{}));
    ASSERT_TRUE(store.add_with("e", folder, {.keep_links = true, .base = "d", .size_key = "n"}) &&
                store.restore_with("d", folder, {.backup = "f", .keep_links = true, .base = "e", .size_key = "n"}));
    EXPECT_TRUE(*store.info("e", "n") == Value(2) && *store.info("f", "n") == Value(2) &&
                !disk::Exists(folder + "/link"));
    EXPECT_TRUE(store.add_with("g", folder, {.move = true}) && store.remove({"d", "e", "f", "g"}) &&
                !disk::Exists(folder));
    ASSERT_TRUE(store.copy("3.txt", test / "copy") && disk::Read(test / "copy") == "changed");
    ASSERT_TRUE(store.remove(std::vector{"3.txt"sv}) && store.add_by_moving("4", document) && !disk::Exists(document));
    EXPECT_THAT(*store.names(), testing::UnorderedElementsAre("1.txt", "2", "4"));
    chmod(test.root().c_str(), 0755);
    EXPECT_EQ(symlink("2", (test.root() + "/link").c_str()), 0);
    const Clone clone = store.clone(test / "clone").value();
    EXPECT_TRUE(clone.generations == 3 && clone.items == 3 && clone.bytes == 3 * before.size() && clone.links == 0 &&
                clone.failures.at(0).name == "link" && !clone.failures[0].kept && clone.failures.size() == 1 &&
                clone.failures[0].reason.description() == "No generation is a link" &&
                *Store::open(test / "clone")->info("1.txt", document_key) == Value(Data(document)));
    EXPECT_TRUE(store.clone(test / "clone").error().status() == kTQStatusExists &&
                unlink((test.root() + "/link").c_str()) == 0);
    EXPECT_TRUE(Store::findings(test.root(), /*repair=*/true)->at(0).mended && Store::findings(test.root())->empty());
    EXPECT_TRUE(Store::destroy(test.root()) && !disk::Exists(test.root()));
}

TEST(StoreInCpp, TextThatCannotBeConvertedIsNeverTakenForNone)
{
    TestStore test(TestStore::Document::File);
    Store from = *Store::open(test.root());
    const Store store = std::move(from);
    ASSERT_TRUE(store.add("a", test.document()) && store.set_info("a", "k", 0) && store.set_display_name("a", "A"));
    const Snapshot before = Snapshot::Of(test.path());
    for (const auto &refused : {store.set_info("a", "k", "\xff"), store.set_display_name("a", "\xff"),
                                store.restore("a", test.document(), "\xff"), store.remove({"a", "\xff"}),
                                store.set_options("a\0b"sv, 2), from.remove({"a"})})
        EXPECT_EQ(refused.error().status(), kTQStatusInvalidArgument) << refused.error().description();
    EXPECT_EQ(store.set_display_name("a", "a\0b"sv).error().description(), "supplied display name holds a zero byte");
    EXPECT_EQ(store.record("a\0b"sv).error().status(), kTQStatusInvalidArgument);
    EXPECT_EQ(Store::destroy(test.root() + "\0"s).error().status(), kTQStatusBadPath);
    EXPECT_EQ(store.set_info("a", "k", Data(std::vector<char>(1 << 20))).error().underlying().code(), E2BIG);
    EXPECT_EQ(store.remove_info("a", "x").error().status(), kTQStatusFailed);
    EXPECT_EQ(store.options("b").value_or(9), 9U);
    EXPECT_THROW(store.copy("a", test.document()).value(), Failure);
    EXPECT_TRUE(Same(before, Snapshot::Of(test.path())));
}

TEST(ProgressInCpp, IsSeenAndCancelsWhereItIsCurrent)
{
    TestStore test(TestStore::Document::File);
    std::pair<std::int64_t, std::int64_t> seen;
    Progress watching, throwing, cancelled;
    watching.observe([&](auto... units) { seen = {units...}; });
    throwing.observe([](auto...) { throw 1; });
    cancelled.cancel();
    for (const auto *progress : {&throwing, &cancelled, &watching}) {
        const auto scope = progress->make_current();
        EXPECT_EQ(bool(Store::open(test.root())->add("kept", test.document())), progress == &watching);
        const auto cloned = Store::open(test.root())->clone(test / "clone");
        EXPECT_EQ(bool(cloned), progress == &watching);
        EXPECT_TRUE(cloned || cloned.error().underlying().code() == ECANCELED);
    }
    EXPECT_TRUE(seen.first > 0 && seen.first == seen.second && !TQProgressGetCurrent());
}

} // namespace vaultry
