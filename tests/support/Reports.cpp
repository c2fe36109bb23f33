#include "support/Reports.h"

#include <cstring>
#include <gmock/gmock.h>
#include <regex>

std::string Plain(std::string text, const std::string &directory)
{
    for (size_t at; !directory.empty() && (at = text.find(directory)) != std::string::npos;)
        text.replace(at, directory.size(), "$");
    static const struct {
        const char *part; // that every match has: looking for it is quicker
        std::regex name;
        const char *star;
    } unique[] = {
        {".vaultry_staging/", std::regex("(\\.vaultry_staging/)(?!XXXXXXX)[A-Za-z0-9]{7}(?![A-Za-z0-9])"), "$1*"},
        {".vaultry_clone.", std::regex("(\\.vaultry_clone\\.)(?!XXXXXXX)[A-Za-z0-9]{7}"), "$1*"},
        {"-tmp.nosync.", std::regex("(-tmp\\.nosync\\.)(?!XXXXXX)[A-Za-z0-9]{6}"), "$1*"},
        {"\"", std::regex("_(?!XXXXXX)[A-Za-z0-9]{6}\""), "_*\""},
        {"->fd", std::regex("0x[0-9a-f]+->fd"), "*->fd"}};
    for (const auto &each : unique)
        if (text.find(each.part) != text.npos) text = std::regex_replace(text, each.name, each.star);
    return text;
}

static void ExpectSays(const Outcome &outcome, const Says &says, const std::string &directory)
{
    std::string text = says.text;
    if (says.error != 0) text += "; error " + std::to_string(says.error) + " (" + strerror(says.error) + ")";
    ASSERT_NE(outcome.fate, Outcome::Fate::Crashed);
    if (!says.onlyLogs) {
        ASSERT_TRUE(outcome.hasError) << (outcome.succeeded ? "it succeeded" : "no error object");
        EXPECT_EQ(Plain(outcome.message, directory), text);
        EXPECT_EQ(outcome.status, says.status == kTQStatusNoSuchAttribute ? kTQStatusInvalidArgument : says.status);
        EXPECT_EQ(outcome.underlying, says.error);
    }
    std::vector<std::string> lines;
    for (const auto &line : outcome.log)
        lines.push_back(std::to_string(line.level) + " " + Plain(line.text, directory));
    const std::string logged = text.substr(0, text.find_last_not_of(" \n") + 1);
    EXPECT_THAT(lines, testing::Contains(testing::AllOf(testing::StartsWith(std::to_string(says.level) + " "),
                                                        testing::HasSubstr(" " + logged))));
}

void ExpectRows(const std::vector<Row> &rows, const std::string &directory)
{
    for (const auto &row : rows) {
        SCOPED_TRACE(row.says.text);
        ExpectSays(InChild(row.run), row.says, directory);
    }
}
