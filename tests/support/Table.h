// Test tables that consist only of words, kept as files: a line is a row, two or more spaces separate its columns, and
// a line that begins with "#" is for the reader.

#pragma once

#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

// The rows of a file below tests/. A row ends with its line: a missing column is an empty text.
struct TableRow {
    std::vector<std::string> columns;
    std::string operator[](size_t i) const { return i < columns.size() ? columns[i] : ""; }
};

inline std::vector<TableRow> ReadTable(const std::string &name)
{
    static const std::regex gap("  +");
    std::ifstream file(VAULTRY_TESTS_DIRECTORY "/" + name);
    std::vector<TableRow> rows;
    for (std::string line; std::getline(file, line);)
        if (!line.empty() && line[0] != '#')
            rows.push_back({{std::sregex_token_iterator(line.begin(), line.end(), gap, -1), {}}});
    EXPECT_FALSE(rows.empty()) << name;
    return rows;
}
