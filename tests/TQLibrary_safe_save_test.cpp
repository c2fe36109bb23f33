#include "support/CapturedLog.h"
#include "support/Tests.h"

namespace {

TEST(SafeSave, IsAnsweredWithNoWhateverIsSaid)
{
    const auto file = FileURL("/d/a"), other = FileURL("/d/b"), none = Ref<TQURL>();
    const auto web = Ref<TQURL>::Adopt(TQURLCreateWithString(String("https://example.com/a").get(), nullptr));
    const std::tuple<const TQURL *, const TQURL *, size_t> rows[] = {
        {file.get(), other.get(), 0}, {file.get(), file.get(), 0}, {web.get(), file.get(), 1},
        {file.get(), web.get(), 1},   {web.get(), web.get(), 1},   {none.get(), file.get(), 1}};
    const CapturedLog log;
    for (const auto &[document, replacement, complaints] : rows) {
        EXPECT_FALSE(TQLibraryDocumentWillSafeSave(document, replacement));
        EXPECT_EQ(CapturedLog::Take(), std::vector<std::string>(complaints, "3 not a file URL"));
        TQLibraryDocumentDidSafeSave(document, replacement);
    }
    TQValue *generations = file.get();
    EXPECT_FALSE(TQLibraryHasGenerationsForPaths(nullptr, Names({"/d/a"}).get(), &generations));
    EXPECT_EQ(generations, nullptr);
    EXPECT_THAT(CapturedLog::Take(), testing::IsEmpty());
}

} // namespace
