#include "support/Reports.h"

#include <cstring>
#include <gmock/gmock.h>
#include <regex>

std::string Plain(std::string text, const std::string &directory)
{
    for (size_t at; !directory.empty() && (at = text.find(directory)) != std::string::npos;)
        text.replace(at, directory.size(), "$");
    static const std::regex unique("(\\.vaultry_staging/)(?!XXXXXXX)[A-Za-z0-9]{7}(?![A-Za-z0-9])");
    static const std::regex temporary("_(?!XXXXXX)[A-Za-z0-9]{6}\"");
    static const std::regex address("0x[0-9a-f]+->fd");
    text = std::regex_replace(std::regex_replace(text, unique, "$1*"), temporary, "_*\"");
    return std::regex_replace(text, address, "*->fd");
}

static std::string WithoutNewline(std::string text)
{
    while (!text.empty() && isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
    return text;
}

void ExpectSays(const Outcome &outcome, const Says &says, const std::string &directory)
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
    EXPECT_THAT(lines, testing::Contains(testing::AllOf(testing::StartsWith(std::to_string(says.level) + " "),
                                                        testing::HasSubstr(" " + WithoutNewline(text)))));
}

void ExpectRows(const std::vector<Row> &rows, const std::string &directory)
{
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what + ": " + row.says.text);
        const Outcome outcome = InChild(row.fault, row.run);
        EXPECT_EQ(outcome.faultFired, row.fault.act != Fault::Act::None);
        ExpectSays(outcome, row.says, directory);
    }
}

std::map<std::string, Outcome> Sweep(const std::function<Fault(int nth)> &fault,
                                     const std::function<Outcome(const Fault &, std::string *directory)> &round)
{
    std::map<std::string, Outcome> reported;
    // Of several with one message the one that the fault itself gave.
    const auto keep = [&](const std::string &text, const Outcome &outcome, int error) {
        const auto [kept, isNew] = reported.try_emplace(text.substr(0, text.find("; error ")), outcome);
        if (!isNew && kept->second.underlying != error) kept->second = outcome;
    };
    for (int nth = 1; nth < 2000; ++nth) {
        SCOPED_TRACE("call " + std::to_string(nth));
        std::string directory;
        const Fault injected = fault(nth);
        const Outcome outcome = round(injected, &directory);
        EXPECT_NE(outcome.fate, Outcome::Fate::Crashed);
        EXPECT_TRUE(outcome.succeeded || outcome.faultFired) << outcome.message;
        if (!outcome.faultFired) return reported;
        if (outcome.hasError) keep(Plain(outcome.message, directory), outcome, injected.error);
        for (const auto &line : outcome.log) {
            // "file.cpp:12 message (on label)"
            const std::string text = Plain(line.text.substr(0, line.text.rfind(" (on ")), directory);
            keep(std::to_string(line.level) + " " + text.substr(text.find(' ') + 1), outcome, injected.error);
        }
    }
    ADD_FAILURE() << "the operation never ends";
    return reported;
}

void ExpectReported(const std::map<std::string, Outcome> &sweep, int error, const std::vector<std::string> &errors,
                    const std::vector<std::string> &lines)
{
    std::vector<std::string> all;
    for (const auto &[text, outcome] : sweep) all.push_back(text);
    for (const auto &text : errors) {
        SCOPED_TRACE(text);
        const auto found = sweep.find(text);
        if (found == sweep.end()) {
            ADD_FAILURE() << "no failing call gives it; those given: " << testing::PrintToString(all);
            continue;
        }
        EXPECT_EQ(found->second.status, TQGetStatusForErrno(error));
        EXPECT_EQ(found->second.underlying, error);
        EXPECT_EQ(sweep.count("3 " + text), 1U) << "no line at level 3";
    }
    for (const auto &text : lines) EXPECT_THAT(all, testing::Contains(text));
}
