/*
 * Values as people and programs read them. Names come from the network, so nothing of the tree reaches a terminal but
 * through `printable`, and nothing a JSON document but through `utf8`.
 */
#ifndef MWCTL_TEXT_H
#define MWCTL_TEXT_H

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace mwctl
{

/* The text with control characters, direction overrides and what is not UTF-8 as \xNN. Safe on any terminal. */
std::string printable(std::string_view text);

/* The text with what is not UTF-8 as \xNN, for JSON, which escapes control characters itself. */
std::string utf8(std::string_view text);

/* Columns that `text`, printable, takes on a terminal. */
size_t display_width(std::string_view text);

/* Columns of the terminal on stdout; 0 if it is none, where a line may be of any length. */
size_t terminal_width();

/* The text, printable already, in lines of at most `width` columns, broken at blanks; 0 for one line. Every line but
 * the first stands behind `indent` blanks, and the first one is taken to begin there too. */
std::string wrap(std::string_view text, size_t width, size_t indent);

/* "1 node", "2 nodes". */
std::string count_of(size_t count, std::string_view noun);

/* Bytes in binary units with three digits: "0 B", "12.5 GiB". */
std::string human_size(uint64_t bytes);

/* Seconds as people say them: "3 s", "5 min", "2 h 10 min", "4 d". */
std::string human_age(double seconds);

/* ISO 8601 in UTC: "2031-04-05T06:07:08Z". */
std::string iso_time(time_t when);

/* Colours of a terminal; all empty unless colour is on. */
struct Style {
    const char *bold = "", *red = "", *yellow = "", *green = "", *dim = "", *reset = "";
};

/* `when` is auto, always or never. auto: stdout is a terminal that is not dumb, and NO_COLOR is unset or empty. */
Style make_style(const std::string &when);

/* A table that sets its columns as wide as their widest cell. Numbers stand at the right of their column. */
class Table
{
  public:
    explicit Table(std::vector<std::string> headings);
    void add(std::vector<std::string> cells);
    bool empty() const;
    /* The rows as lines, each behind `indent`; every cell made printable. */
    std::string render(const Style &style, std::string_view indent = "") const;

  private:
    std::vector<std::string> headings_;
    std::vector<std::vector<std::string>> rows_;
};

} // namespace mwctl

#endif
