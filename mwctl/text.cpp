#include "mwctl/text.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace mwctl
{

/* The bytes of the well-formed UTF-8 character at the start of `text`, 0 if there is none; its number in *code. */
static size_t utf8_character(std::string_view text, uint32_t *code)
{
    auto byte = [&](size_t i) {
        return static_cast<unsigned char>(text[i]);
    };
    if (byte(0) < 0x80) {
        *code = byte(0);
        return 1;
    }
    size_t length = byte(0) >= 0xf0 ? 4 : byte(0) >= 0xe0 ? 3 : 2;
    if (byte(0) < 0xc2 || byte(0) > 0xf4 || text.size() < length)
        return 0;
    *code = byte(0) & (0x7fU >> length);
    for (size_t i = 1; i < length; i++) {
        if ((byte(i) & 0xc0) != 0x80)
            return 0;
        *code = (*code << 6) | (byte(i) & 0x3fU);
    }
    constexpr uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    bool surrogate = *code >= 0xd800 && *code <= 0xdfff;
    return *code < smallest[length] || *code > 0x10ffff || surrogate ? 0 : length;
}

/* Characters that move the cursor, start an escape sequence, or turn the direction of what stands around them. */
static bool harmful(uint32_t code)
{
    return code < 0x20 || (code >= 0x7f && code <= 0x9f) || code == 0x061c || (code >= 0x200b && code <= 0x200f) ||
           (code >= 0x2028 && code <= 0x202e) || (code >= 0x2060 && code <= 0x206f) || code == 0xfeff;
}

static std::string escape(std::string_view text, bool controls)
{
    std::string result;
    while (!text.empty()) {
        uint32_t code;
        size_t length = utf8_character(text, &code);
        if (length > 0 && !(controls && harmful(code))) {
            result.append(text.substr(0, length));
        } else {
            length = std::max<size_t>(length, 1);
            for (char c : text.substr(0, length))
                result += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
        }
        text.remove_prefix(length);
    }
    return result;
}

std::string printable(std::string_view text)
{
    return escape(text, true);
}

std::string utf8(std::string_view text)
{
    return escape(text, false);
}

size_t display_width(std::string_view text)
{
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; }));
}

size_t terminal_width()
{
    struct winsize size;
    return isatty(STDOUT_FILENO) && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

std::string wrap(std::string_view text, size_t width, size_t indent)
{
    std::string result;
    size_t column = indent;
    while (!text.empty()) {
        std::string_view word = text.substr(0, text.find(' '));
        text.remove_prefix(std::min(word.size() + 1, text.size()));
        bool first = result.empty();
        if (!first && width > 0 && column + 1 + display_width(word) > width) {
            result += "\n" + std::string(indent, ' ');
            column = indent;
        } else if (!first) {
            result += ' ';
            column++;
        }
        result += word;
        column += display_width(word);
    }
    return result;
}

std::string count_of(size_t count, std::string_view noun)
{
    return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

std::string human_size(uint64_t bytes)
{
    static constexpr const char *units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024)
        return fmt::format("{} B", bytes);
    double size = static_cast<double>(bytes);
    size_t unit = 0;
    while (size >= 1023.5 && unit + 1 < std::size(units)) {
        size /= 1024;
        unit++;
    }
    return fmt::format("{:.{}f} {}", size, size < 9.995 ? 2 : size < 99.95 ? 1 : 0, units[unit]);
}

std::string human_age(double seconds)
{
    if (seconds < 0)
        return fmt::format("{} ahead", human_age(-seconds));
    auto whole = static_cast<uint64_t>(seconds);
    if (whole < 60)
        return fmt::format("{} s", whole);
    if (whole < 3600)
        return fmt::format("{} min", whole / 60);
    if (whole < 86400)
        return whole % 3600 < 60 ? fmt::format("{} h", whole / 3600)
                                 : fmt::format("{} h {} min", whole / 3600, whole % 3600 / 60);
    return fmt::format("{} d", whole / 86400);
}

std::string iso_time(time_t when)
{
    struct tm parts;
    if (!gmtime_r(&when, &parts))
        return std::to_string(when);
    return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", parts);
}

Style make_style(const std::string &when)
{
    auto environment = [](const char *name) {
        const char *value = getenv(name);
        return std::string(value ? value : "");
    };
    if (when == "never" || (when == "auto" && (!isatty(STDOUT_FILENO) || !environment("NO_COLOR").empty() ||
                                               environment("TERM") == "dumb")))
        return {};
    return {"\033[1m", "\033[31m", "\033[33m", "\033[32m", "\033[2m", "\033[0m"};
}

Table::Table(std::vector<std::string> headings) : headings_(std::move(headings))
{
}

void Table::add(std::vector<std::string> cells)
{
    for (std::string &cell : cells)
        cell = printable(cell);
    cells.resize(headings_.size());
    rows_.push_back(std::move(cells));
}

bool Table::empty() const
{
    return rows_.empty();
}

/* A number, with a unit behind it if need be, or nothing. Names and addresses may begin with a digit too. */
static bool numeric_cell(std::string_view cell)
{
    std::string_view word = cell.substr(0, cell.find_first_of(" +"));
    bool digits = std::all_of(word.begin(), word.end(), [](char c) { return (c >= '0' && c <= '9') || c == '.'; });
    return cell == "-" || (digits && std::count(word.begin(), word.end(), '.') <= 1);
}

std::string Table::render(const Style &style, std::string_view indent) const
{
    std::vector<size_t> widths(headings_.size());
    std::vector<bool> numeric(headings_.size(), true);
    for (size_t i = 0; i < headings_.size(); i++) {
        widths[i] = display_width(headings_[i]);
        for (const auto &row : rows_) {
            widths[i] = std::max(widths[i], display_width(row[i]));
            numeric[i] = numeric[i] && numeric_cell(row[i]);
        }
    }
    auto line = [&](const std::vector<std::string> &cells) {
        std::string text(indent);
        for (size_t i = 0; i < cells.size(); i++) {
            std::string pad(widths[i] - display_width(cells[i]), ' ');
            text += numeric[i] ? pad + cells[i] : cells[i] + pad;
            text += "  ";
        }
        text.erase(text.find_last_not_of(' ') + 1);
        return text;
    };
    std::string result = fmt::format("{}{}{}\n", style.bold, line(headings_), style.reset);
    for (const auto &row : rows_)
        result += line(row) + "\n";
    return result;
}

} // namespace mwctl
