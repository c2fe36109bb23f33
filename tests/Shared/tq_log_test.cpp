#include "Shared/tq_log.h"
#include "support/CapturedLog.h"
#include "support/Tests.h"

#include <thread>

namespace {

std::string LastLine()
{
    return CapturedLog::Whole().at(CapturedLog::Whole().size() - 1).text;
}

TEST(Log, WritesTheWholeMessageTrimmedAsEachEntryPointDoes)
{
    const CapturedLog log;
    const std::string longer(1024, 'g'), longest(5000, 'h');
    const struct {
        std::string message, fromText, fromString;
    } rows[] = {{longer, longer, longer},
                {longest + " \n", longest, longest},
                {" \n\t\v\f\r", "", ""},
                {"  abc \n\t", "  abc", "abc"}};
    for (const auto &[message, fromText, fromString] : rows) {
        errno = EDOM;
        tq_log_msg(6, "/vaultry/src/Shared/storage_x.ext", 120, "%s", message.c_str());
        EXPECT_EQ(LastLine(), "storage_x.ext:120 " + fromText + " (on )\n");
        _TQLogMsg(4, "/storage_y.ext", 7, String("%@").get(), String(message).get());
        EXPECT_EQ(LastLine(), "storage_y.ext:7 " + fromString + " (on )\n");
        EXPECT_EQ(CapturedLog::Whole().back().level, 4);
        EXPECT_EQ(errno, EDOM);
    }
    TQSetThreadLabel("com.corvane.x.y");
    tq_do_log(2, "name.ext", 1, "finished");
    EXPECT_EQ(LastLine(), "name.ext:1 finished (on x.y)\n");
    TQSetThreadLabel(nullptr);
}

TEST(Log, KeepsWhatFitsWhenMemoryIsShort)
{
    if (kIsSanitized) GTEST_SKIP() << "a sanitizer allocates here";
    const auto logged = [](size_t length, size_t wide = 4000) {
        return InChild(FailAllocation(1), [length, wide](TQError **) {
            char text[4096] = "";
            std::fill_n(text, length, 'a');
            std::copy_n("ä", 2, text + wide);
            tq_log_msg(3, "/f", 1, "%s", text);
            return true;
        });
    };
    const Outcome fits = logged(1023), cut = logged(1024), cutShorter = logged(1024, 1019);
    EXPECT_FALSE(fits.faultFired) << "a message that fits costs no allocation";
    ASSERT_EQ(cut.log.size(), 1U);
    EXPECT_EQ(cut.log[0].text, "f:1 " + std::string(1020, 'a') + "... (on )\n");
    EXPECT_EQ(cutShorter.log.at(0).text, "f:1 " + std::string(1019, 'a') + "... (on )\n") << "half a character";
}

TEST(LogThreshold, BeginsAtNoticeAndTakesAnyValue)
{
    EXPECT_EQ(tq_log_min_priority, 5);
    const CapturedLog log(5);
    for (const auto &[threshold, lines] : {std::pair{5, 1U}, {7, 2U}, {-5, 0U}}) {
        EXPECT_TRUE(tq_log_set_level(threshold));
        EXPECT_EQ(tq_log_min_priority, threshold);
        Log(kLogError).Line("failed");
        Log(kLogDebug).Line("refused");
        EXPECT_EQ(CapturedLog::Take().size(), lines) << threshold;
    }
}

TEST(LogThreshold, ThreadsThatSetItAtOnceEitherDoOrLearnThatTheyDidNot)
{
    const CapturedLog log;
    std::vector<std::thread> threads;
    std::vector<int> stored(4, -1);
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&stored, t] {
            for (int i = 0; i < 5000; ++i)
                if (tq_log_set_level(t * 10000 + i)) stored[static_cast<size_t>(t)] = t * 10000 + i;
        });
    for (auto &thread : threads) thread.join();
    EXPECT_THAT(stored, testing::Contains(tq_log_min_priority));
}

} // namespace
