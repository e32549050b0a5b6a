#include "mwctl/attributes.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cstdio>
#include <fmt/format.h>

namespace mwctl
{

/* Sizes beyond which the daemon refuses a file, and beyond which a list fits no message. */
constexpr size_t VALUE_MAX = 255;
constexpr size_t LIST_MAX = size_t(1) << 20;

static constexpr Attribute node_attributes[] = {
    {"version", Form::version, 7, Need::published, Applies::always, "v1.8"},
    {"uuid", Form::number, 32, Need::unread},
    {"status", Form::number, 32, Need::unread, Applies::always, "1"},
    {"nodestatus", Form::number, 8, Need::published, Applies::always, "0"},
    {"vendor", Form::text, 32, Need::published},
    {"model", Form::text, 32, Need::published},
    {"freespace", Form::number, 32, Need::published, Applies::always, "0"},
    {"utilization", Form::number, 32, Need::published, Applies::always, "0"},
    {"revision", Form::text, 24, Need::published},
    {"serial", Form::text, 64, Need::published},
    {"hbtl", Form::text, 32, Need::published},
    {"performance", Form::number, 8, Need::published, Applies::always, "0"},
    {"hostid", Form::number, 16, Need::published, Applies::always, "0"},
    {"size", Form::number, 32, Need::published, Applies::always, "0"},
    {"backupchannel", Form::address, 15, Need::published, Applies::always, "0.0.0.0"},
    {"ipaddr", Form::address, 15, Need::unread},
    {"lastping", Form::number, 64, Need::unread},
    {"allocatedspace", Form::number, 32, Need::published, Applies::always, "0"},
    {"curvdisks", Form::number, 32, Need::published, Applies::always, "0"},
    {"curvdisksforctrl", Form::number, 32, Need::published, Applies::always, "0"},
    {"maxvdisksforctrl", Form::number, 32, Need::published, Applies::always, "0"},
    {"memtotal", Form::number, 32, Need::published, Applies::always, "0"},
    {"memavail", Form::number, 32, Need::published, Applies::always, "0"},
    {"datastoremember", Form::text, 14, Need::optional},
};

static constexpr Attribute datastore_attributes[] = {
    {"uuid", Form::text, 14, Need::published},
    {"name", Form::text, 32, Need::published},
    {"description", Form::text, 32, Need::published},
    {"sector_size", Form::number, 32, Need::published, Applies::always, "512"},
    {"replicas", Form::number, 16, Need::published, Applies::always, "1"},
    {"stripes", Form::number, 16, Need::published, Applies::always, "1"},
    {"overcommit", Form::number, 8, Need::published, Applies::always, "0"},
};

static constexpr Attribute vdisk_attributes[] = {
    {"uuid", Form::text, 14, Need::removal},
    {"name", Form::text, 28, Need::removal},
    {"sector_size", Form::number, 32, Need::removal, Applies::always, "512"},
    {"sectors", Form::number, 64, Need::removal, Applies::always, "2097152"},
    {"replicas", Form::number, 16, Need::removal, Applies::always, "1"},
    {"st_mems", Form::number, 8, Need::removal, Applies::always, "1"},
    {"st_size", Form::number, 16, Need::removal, Applies::always, "0"},
    {"snapshot", Form::number, 16, Need::removal, Applies::always, "0"},
    {"parent", Form::text, 14, Need::removal, Applies::snapshot},
    {"snaptime", Form::snaptime, 31, Need::removal, Applies::snapshot},
    {"description", Form::text, 32, Need::removal, Applies::plain},
    {"highest_gen_count", Form::number, 16, Need::applied, Applies::always, "0"},
    {"membership", Form::nodes, 32, Need::published},
    {"transaction_id", Form::number, 32, Need::optional},
};

static constexpr Attribute member_attributes[] = {
    {"membership_gen_count", Form::number, 16, Need::published, Applies::always, "0"},
    {"numkeys", Form::number, 64, Need::published, Applies::always, "0"},
    {"seqno", Form::number, 64, Need::published, Applies::always, "0"},
    {"status", Form::number, 8, Need::published, Applies::always, "0"},
    {"port", Form::number, 16, Need::published, Applies::always, "0"},
    {"st_mem", Form::number, 8, Need::published, Applies::always, "0"},
    {"snap_limit", Form::number, 32, Need::unread, Applies::plain, "10"},
    {"frontend", Form::addresses, 15, Need::published},
};

std::span<const Attribute> attributes(Kind kind)
{
    switch (kind) {
    case Kind::node:
        return node_attributes;
    case Kind::datastore:
        return datastore_attributes;
    case Kind::vdisk:
        return vdisk_attributes;
    case Kind::member:
        return member_attributes;
    }
    return {};
}

int attribute_index(Kind kind, std::string_view key)
{
    auto table = attributes(kind);
    auto found = std::find_if(table.begin(), table.end(), [&](const Attribute &a) { return a.key == key; });
    return found == table.end() ? -1 : static_cast<int>(found - table.begin());
}

/* The number at the start of a text, as strtoull reads it. */
static std::optional<uint64_t> leading_number(const std::string &text)
{
    char *end;
    uint64_t number = strtoull(text.c_str(), &end, 10);
    if (end == text.c_str())
        return std::nullopt;
    return number;
}

static bool canonical_address(std::string_view line)
{
    std::string text(line);
    struct in_addr address;
    char printed[INET_ADDRSTRLEN];
    return inet_pton(AF_INET, text.c_str(), &address) == 1 &&
           text == inet_ntop(AF_INET, &address, printed, sizeof(printed));
}

static Fault judge_list(const Attribute &attribute, const Value &value)
{
    for (std::string_view line : value_lines(value)) {
        if (attribute.form == Form::addresses && !canonical_address(line))
            return Fault::no_address;
        if (attribute.form == Form::nodes && static_cast<uint32_t>(leading_number(std::string(line)).value_or(0)) == 0)
            return Fault::zero_member;
    }
    return Fault::none;
}

static Fault judge_text(const Attribute &attribute, const std::string &text)
{
    int part[6];
    switch (attribute.form) {
    case Form::number:
        return leading_number(text) ? Fault::none : Fault::no_number;
    case Form::version:
        if (text.size() > attribute.width)
            return Fault::too_long;
        return sscanf(text.c_str(), "v%d.%d", &part[0], &part[1]) == 2 ? Fault::none : Fault::no_version;
    case Form::snaptime:
        if (text.size() > attribute.width)
            return Fault::too_long;
        return sscanf(text.c_str(), "%d-%d-%d_%d.%d.%d", &part[0], &part[1], &part[2], &part[3], &part[4], &part[5]) ==
                       6
                   ? Fault::none
                   : Fault::no_time;
    default:
        return text.size() > attribute.width ? Fault::too_long : Fault::none;
    }
}

static bool is_list(Form form)
{
    return form == Form::nodes || form == Form::addresses;
}

Value parse_value(const Attribute &attribute, std::string_view bytes)
{
    Value value{{}, Fault::none};
    bool list = is_list(attribute.form);
    if (bytes.empty()) {
        bool fine = list || attribute.form == Form::text || attribute.form == Form::address;
        value.fault = fine ? Fault::none : attribute.form == Form::number ? Fault::empty : judge_text(attribute, "");
        return value;
    }
    if (bytes.size() > (list ? LIST_MAX : VALUE_MAX)) {
        value.fault = Fault::oversized;
        return value;
    }
    value.text = bytes;
    if (bytes.back() != '\n') {
        value.fault = Fault::torn;
        return value;
    }
    value.text.pop_back();
    value.fault = list ? judge_list(attribute, value) : judge_text(attribute, value.text);
    return value;
}

uint64_t value_number(const Attribute &attribute, const Value &value)
{
    uint64_t number = value.good() ? leading_number(value.text).value_or(0) : 0;
    return attribute.width >= 64 ? number : number & ((uint64_t(1) << attribute.width) - 1);
}

std::vector<std::string_view> value_lines(const Value &value)
{
    std::vector<std::string_view> lines;
    std::string_view rest = value.text;
    while (!rest.empty()) {
        size_t end = std::min(rest.find('\n'), rest.size());
        lines.push_back(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return lines;
}

std::string fault_text(const Attribute &attribute, const Value &value)
{
    switch (value.fault) {
    case Fault::none:
        return "is good";
    case Fault::missing:
        return "is missing";
    case Fault::unreadable:
        return fmt::format("cannot be read: {}", value.text);
    case Fault::no_file:
        return "is no file";
    case Fault::empty:
        return "is empty";
    case Fault::oversized:
        return is_list(attribute.form) ? "is longer than any message" : "has more than 255 bytes";
    case Fault::torn:
        return "does not end with a newline";
    case Fault::no_number:
        return "holds no number";
    case Fault::too_long:
        return fmt::format("has more than {} bytes", attribute.width);
    case Fault::no_address:
        return "holds a line that is no IPv4 address in its plain form";
    case Fault::no_version:
        return "is no version such as v1.8";
    case Fault::no_time:
        return "is no time such as 31-04-05_06.07.08";
    case Fault::zero_member:
        return "holds a line that names no node";
    }
    return "";
}

/* A number in plain digits within the width, or nothing. */
static std::optional<uint64_t> plain_number(std::string_view text, unsigned width)
{
    uint64_t number = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (text.empty() || error != std::errc() || end != text.data() + text.size() ||
        (width < 64 && number >> width != 0))
        return std::nullopt;
    return number;
}

/* The pieces of a text between separators: one more than there are separators. */
static std::vector<std::string_view> split(std::string_view text, std::string_view separators)
{
    std::vector<std::string_view> pieces;
    for (;;) {
        size_t end = std::min(text.find_first_of(separators), text.size());
        pieces.push_back(text.substr(0, end));
        if (end == text.size())
            return pieces;
        text.remove_prefix(end + 1);
    }
}

static std::optional<std::string> format_list(const Attribute &attribute, std::string_view text, std::string &why)
{
    std::string bytes;
    if (text.empty())
        return bytes;
    for (std::string_view element : split(text, ",")) {
        if (attribute.form == Form::nodes) {
            uint64_t uid = plain_number(element, 32).value_or(0);
            if (uid == 0) {
                why = fmt::format("'{}' is no node number from 1 to 4294967295", element);
                return std::nullopt;
            }
            bytes += fmt::format("{}\n", uid);
            continue;
        }
        if (!canonical_address(element)) {
            why = fmt::format("'{}' is no IPv4 address in its plain form", element);
            return std::nullopt;
        }
        bytes += fmt::format("{}\n", element);
    }
    return bytes;
}

/* Whether the text is a "v", and two numbers that fit their bytes of a message. */
static bool plain_version(std::string_view text)
{
    if (!text.starts_with('v'))
        return false;
    std::vector<std::string_view> parts = split(text.substr(1), ".");
    return parts.size() == 2 && plain_number(parts[0], 8) && plain_number(parts[1], 8);
}

/* Whether the text is a time as the daemon writes it, each part within its width of a message. */
static bool plain_time(std::string_view text)
{
    static constexpr std::string_view separators = "--_..";
    static constexpr unsigned widths[] = {8, 8, 16, 8, 8, 8};
    std::vector<std::string_view> parts = split(text, "-_.");
    size_t at = 0;
    for (size_t i = 0; i < parts.size(); i++) {
        if (i >= std::size(widths) || parts[i].size() < 2 || !plain_number(parts[i], widths[i]))
            return false;
        at += parts[i].size();
        if (i < separators.size() && (at >= text.size() || text[at++] != separators[i]))
            return false;
    }
    return parts.size() == std::size(widths);
}

std::optional<std::string> format_value(const Attribute &attribute, std::string_view text, std::string &why)
{
    if (is_list(attribute.form))
        return format_list(attribute, text, why);
    if (text.find('\n') != std::string_view::npos || text.find('\0') != std::string_view::npos) {
        why = "a value is one line";
        return std::nullopt;
    }
    Value value{std::string(text), Fault::none};
    value.fault = judge_text(attribute, value.text);
    if (attribute.form == Form::number) {
        auto number = plain_number(text, attribute.width);
        if (!number) {
            uint64_t largest = attribute.width >= 64 ? UINT64_MAX : (uint64_t(1) << attribute.width) - 1;
            why = fmt::format("'{}' is no number from 0 to {}", text, largest);
            return std::nullopt;
        }
        return fmt::format("{}\n", *number);
    }
    if (attribute.form == Form::address && !canonical_address(text))
        value.fault = Fault::no_address;
    else if (attribute.form == Form::version && value.good() && !plain_version(text))
        value.fault = Fault::no_version;
    else if (attribute.form == Form::snaptime && value.good() && !plain_time(text))
        value.fault = Fault::no_time;
    if (!value.good()) {
        why = fmt::format("'{}' {}", text, fault_text(attribute, value));
        return std::nullopt;
    }
    return fmt::format("{}\n", text);
}

} // namespace mwctl
