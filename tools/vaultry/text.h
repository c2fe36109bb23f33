// Text for people: names that can't harm a terminal, sizes, columns.

#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

// The bytes as text. Control characters, characters that change the writing direction, and bytes that are not UTF-8
// become escapes such as \n, \x1b and \u202e, so that a name can neither move the cursor nor forge a line.
std::string Printable(std::string_view bytes);

// Printable, in double quotes.
std::string Quoted(std::string_view bytes);

// Length of the UTF-8 character at the start of `bytes`; 0 if there is no valid one.
size_t CharacterLength(std::string_view bytes);

// The printable text, cut between characters to at most `width` columns, with "..." if something is missing.
std::string FittedTo(std::string_view text, size_t width);

// The printable path, which loses its first folders if it has more than `width` columns: ".../notes/letter.txt". Its
// last name stays whole, whatever that takes.
std::string PathFittedTo(const std::string &path, size_t width);

// "512 B", "4.0 KiB", "1.2 GiB".
std::string HumanSize(uint64_t bytes);

// An options word, as set takes it: "0x6".
std::string OptionsText(uint64_t options);

// Whether `stream` is a terminal that knows escape sequences; and whether to use colour there.
bool IsTerminal(FILE *stream);
bool UsesColour(FILE *stream);

// Rows under a header, aligned by their width on a terminal. If they are too wide for it, paths are shortened.
class Table {
public:
    enum class Align { Left, Right, Path };
    struct Column {
        std::string title;
        Align align;
    };

    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}
    // One printable cell for each column.
    void AddRow(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
    // Prints nothing if there are no rows; in a pager, if they are many.
    void Print() const;

private:
    std::vector<size_t> Widths() const;
    std::string Line(const std::vector<std::string> &cells, const std::vector<size_t> &widths) const;

    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> rows_;
};
