// See text.h.

#include "text.h"

#include "pager.h"

#include <algorithm>
#include <cstdlib>
#include <cwchar>
#include <cwctype>
#include <numeric>
#include <unistd.h>

// The code point of a valid character of `length` bytes.
static uint32_t _Decode(std::string_view bytes, size_t length)
{
    const auto lead = static_cast<unsigned char>(bytes[0]);
    uint32_t point = length == 1 ? lead : lead & (0xffu >> (length + 1));
    for (size_t i = 1; i < length; ++i) point = point << 6 | (static_cast<unsigned char>(bytes[i]) & 0x3fu);
    return point;
}

size_t CharacterLength(std::string_view bytes)
{
    if (bytes.empty()) return 0;
    const auto lead = static_cast<unsigned char>(bytes[0]);
    const size_t length = lead < 0x80 ? 1 : lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if ((lead >= 0x80 && lead < 0xc2) || lead > 0xf4 || bytes.size() < length) return 0;
    for (size_t i = 1; i < length; ++i)
        if ((static_cast<unsigned char>(bytes[i]) & 0xc0) != 0x80) return 0;
    const uint32_t point = _Decode(bytes, length);
    const bool overlong = (length == 3 && point < 0x800) || (length == 4 && point < 0x10000);
    return overlong || (point >= 0xd800 && point < 0xe000) || point > 0x10ffff ? 0 : length;
}

static bool _IsHarmless(uint32_t point)
{
    const bool control = point < 0x20 || (point >= 0x7f && point < 0xa0);
    const bool line = point == 0x2028 || point == 0x2029;
    const bool direction = point == 0x61c || point == 0x200e || point == 0x200f ||
                           (point >= 0x202a && point <= 0x202e) || (point >= 0x2066 && point <= 0x2069);
    return !control && !line && !direction;
}

std::string Printable(std::string_view bytes)
{
    std::string text;
    char escape[16];
    while (!bytes.empty()) {
        const size_t length = CharacterLength(bytes);
        const uint32_t point = length ? _Decode(bytes, length) : static_cast<unsigned char>(bytes[0]);
        if (length && _IsHarmless(point)) {
            text += bytes.substr(0, length);
        } else if (point == '\n' || point == '\t') {
            text += point == '\n' ? "\\n" : "\\t";
        } else {
            snprintf(escape, sizeof escape, length > 1 ? "\\u%04x" : "\\x%02x", point);
            text += escape;
        }
        bytes.remove_prefix(std::max<size_t>(length, 1));
    }
    return text;
}

std::string Quoted(std::string_view bytes)
{
    return std::string(1, '"').append(Printable(bytes)).append(1, '"');
}

// The columns of the first character of `text`, which must not be empty, and its bytes.
static size_t _FirstCharacterWidth(std::string_view text, size_t *length)
{
    *length = std::max<size_t>(CharacterLength(text), 1);
    const int columns = wcwidth(static_cast<wchar_t>(_Decode(text, *length)));
    return columns < 0 ? 1 : static_cast<size_t>(columns);
}

static size_t _DisplayWidth(std::string_view text)
{
    size_t width = 0;
    for (size_t length = 0; !text.empty(); text.remove_prefix(length)) width += _FirstCharacterWidth(text, &length);
    return width;
}

std::string FittedTo(std::string_view text, size_t width)
{
    if (_DisplayWidth(text) <= width) return std::string(text);
    if (width <= 3) return std::string(width, '.');
    std::string fitted;
    size_t used = 0;
    for (size_t length = 0; !text.empty(); text.remove_prefix(length)) {
        used += _FirstCharacterWidth(text, &length);
        if (used > width - 3) break;
        fitted += text.substr(0, length);
    }
    return fitted + "...";
}

std::string HumanSize(uint64_t bytes)
{
    char text[32];
    if (bytes < 1024) {
        snprintf(text, sizeof text, "%d B", static_cast<int>(bytes));
        return text;
    }
    static const char *const units[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    double value = static_cast<double>(bytes) / 1024;
    size_t unit = 0;
    // A figure that would be printed as 1024 belongs to the next unit.
    for (; value >= 1023.5 && unit + 1 < std::size(units); ++unit) value /= 1024;
    snprintf(text, sizeof text, value < 9.95 ? "%.1f %s" : "%.0f %s", value, units[unit]);
    return text;
}

std::string OptionsText(uint64_t options)
{
    char text[32];
    snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(options));
    return text;
}

bool IsTerminal(FILE *stream)
{
    const char *term = getenv("TERM");
    return isatty(fileno(stream)) && term && *term && std::string_view(term) != "dumb";
}

bool UsesColour(FILE *stream)
{
    const char *noColour = getenv("NO_COLOR");
    return IsTerminal(stream) && !(noColour && *noColour);
}

std::string PathFittedTo(const std::string &path, size_t width)
{
    static constexpr char kGap[] = "...";
    if (_DisplayWidth(path) <= width) return path;
    for (size_t slash = path.find('/', 1); slash != path.npos; slash = path.find('/', slash + 1)) {
        const bool isLast = path.find('/', slash + 1) == path.npos;
        const std::string shortened = kGap + path.substr(slash);
        if (isLast || _DisplayWidth(shortened) <= width) return shortened;
    }
    return path;
}

std::string Table::Line(const std::vector<std::string> &cells, const std::vector<size_t> &widths) const
{
    std::string line;
    for (size_t i = 0; i < cells.size(); ++i) {
        const bool isPath = columns_[i].align == Align::Path;
        const std::string cell = isPath ? PathFittedTo(cells[i], widths[i]) : cells[i];
        const size_t width = _DisplayWidth(cell);
        const std::string padding(widths[i] > width ? widths[i] - width : 0, ' ');
        if (i > 0) line += "  ";
        if (columns_[i].align == Align::Right)
            line += padding + cell;
        else
            line += i + 1 < cells.size() ? cell + padding : cell;
    }
    return line;
}

// Paths take what the others leave of the screen.
std::vector<size_t> Table::Widths() const
{
    std::vector<size_t> widths;
    for (const Column &column : columns_) widths.push_back(_DisplayWidth(column.title));
    for (const auto &row : rows_)
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], _DisplayWidth(row[i]));
    const std::optional<Screen> screen = ScreenOfOutput();
    if (!screen) return widths;
    const size_t gaps = 2 * (widths.size() - 1), total = std::accumulate(widths.begin(), widths.end(), gaps);
    for (size_t i = 0; i < widths.size() && total > screen->columns; ++i)
        if (columns_[i].align == Align::Path) widths[i] -= std::min(widths[i], total - screen->columns);
    return widths;
}

void Table::Print() const
{
    if (rows_.empty()) return;
    const std::vector<size_t> widths = Widths();
    std::vector<std::string> titles, lines;
    for (const Column &column : columns_) titles.push_back(column.title);
    const bool isBold = UsesColour(stdout) && !Pager::IsFor(rows_.size() + 1);
    lines.push_back(isBold ? "\x1b[1m" + Line(titles, widths) + "\x1b[0m" : Line(titles, widths));
    for (const auto &row : rows_) lines.push_back(Line(row, widths));
    PrintLines(lines);
}
