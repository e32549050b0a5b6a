/* What the shell may offer for the word that is being typed: commands and options from the program's own definition of
 * them, records from the tree. */
#include "mwctl/command.h"
#include "mwctl/failure.h"
#include "mwctl/tree.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fcntl.h>
#include <fmt/format.h>

namespace mwctl
{

using Words = std::vector<std::string>;

/* What is to be completed, as far as the words before it tell. */
struct Place {
    const CLI::App *command;             /* the innermost one so far */
    const CLI::Option *option = nullptr; /* whose value is being typed */
    Words path;                          /* the words so far that are no options, commands included */
    std::optional<std::string> config;
    bool foreign = false; /* behind "--": words of another program */
};

/* What stands where. "*" is any word; a last "..." any number of them. */
struct Rule {
    const char *path, *offered;
};
static constexpr Rule rules[] = {
    {"show", "node datastore vdisk"},
    {"show node", "<node>"},
    {"show datastore", "<datastore>"},
    {"show vdisk", "<vdisk>"},
    {"wait node", "<node>"},
    {"wait vdisk", "<vdisk>"},
    {"publish", "all datastore vdisk deleted"},
    {"publish datastore", "<node>"},
    {"publish vdisk", "<node>"},
    {"publish vdisk *", "<vdisk>"},
    {"publish deleted", "<node>"},
    {"publish deleted *", "<vdisk>"},
    {"new", "node datastore vdisk"},
    {"new node * ...", "<node=>"},
    {"new datastore * ...", "<datastore=>"},
    {"new vdisk * ...", "<vdisk=> <member=>"},
    {"get", "<record>"},
    {"get *", "<key>"},
    {"set", "<record>"},
    {"set * ...", "<key=>"},
    {"drop", "vdisk"},
    {"drop vdisk", "<vdisk>"},
    {"lock", "<record>"},
};

static Words split(std::string_view text, char separator)
{
    Words words;
    while (!text.empty()) {
        size_t end = std::min(text.find(separator), text.size());
        if (end > 0)
            words.emplace_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return words;
}

static bool applies(const Rule &rule, const Words &path)
{
    Words wanted = split(rule.path, ' ');
    bool open = wanted.back() == "...";
    if (open)
        wanted.pop_back();
    return (open ? path.size() >= wanted.size() : path.size() == wanted.size()) &&
           std::equal(wanted.begin(), wanted.end(), path.begin(),
                      [](const std::string &a, const std::string &b) { return a == "*" || a == b; });
}

/* The entries of a directory of the tree that a terminal can show and a person can type. */
static Words names_in(const Settings &settings, const std::string &directory)
{
    Words names;
    for (const Entry &entry :
         read_directory(AT_FDCWD, fmt::format("{}/{}", settings.work_directory, directory)).entries)
        if (entry.type == 'd' && printable(entry.name) == entry.name)
            names.push_back(entry.name);
    return names;
}

static void add_records(Words &offered, const Settings &settings, const std::string &word)
{
    for (const auto &[kind, top] : {std::pair("node", "Node"), {"datastore", "Datastore"}, {"vdisk", "VDisk"}})
        for (const std::string &name : names_in(settings, top))
            offered.push_back(record_name(kind, name));
    Words parts = split(word, '/');
    if (parts.size() >= 2 && parts[0] == "vdisk" && uuid_usable(parts[1])) /* its member records */
        for (const std::string &name : names_in(settings, fmt::format("VDisk/{}/memberinfo", parts[1])))
            offered.push_back(fmt::format("vdisk/{}/{}", parts[1], name));
}

static void add_keys(Words &offered, Kind kind, const char *suffix)
{
    for (const Attribute &attribute : attributes(kind))
        offered.push_back(std::string(attribute.key) + suffix);
}

static Kind kind_of_record(const std::string &record)
{
    Words parts = split(record, '/');
    std::string first = parts.empty() ? "" : parts[0];
    return first == "node"        ? Kind::node
           : first == "datastore" ? Kind::datastore
           : parts.size() > 2     ? Kind::member
                                  : Kind::vdisk;
}

static void add_offer(Words &offered, const std::string &offer, const Place &place, const std::string &word)
{
    auto names = [&](const char *top) {
        for (const std::string &name : names_in(read_settings(place.config), top))
            offered.push_back(name);
    };
    if (offer == "<node>")
        names("Node");
    else if (offer == "<datastore>")
        names("Datastore");
    else if (offer == "<vdisk>")
        names("VDisk");
    else if (offer == "<record>")
        add_records(offered, read_settings(place.config), word);
    else if (offer == "<key>" || offer == "<key=>")
        add_keys(offered, kind_of_record(place.path[1]), offer == "<key>" ? "" : "=");
    else if (offer == "<node=>")
        add_keys(offered, Kind::node, "=");
    else if (offer == "<datastore=>")
        add_keys(offered, Kind::datastore, "=");
    else if (offer == "<vdisk=>")
        add_keys(offered, Kind::vdisk, "=");
    else if (offer == "<member=>")
        add_keys(offered, Kind::member, "=");
    else
        offered.push_back(offer);
}

/* The option of this name, of the command or of one around it. */
static const CLI::Option *find_option(const CLI::App *command, const std::string &name)
{
    for (; command; command = command->get_parent())
        if (const CLI::Option *option = command->get_option_no_throw(name))
            return option;
    return nullptr;
}

/* Goes along the words before the one that is being typed. */
static Place find_place(const CLI::App &app, const Words &words)
{
    Place place{&app, nullptr, {}, std::nullopt};
    for (const std::string &word : words) {
        if (place.option) {
            if (place.option->check_sname("C"))
                place.config = word;
            place.option = nullptr;
        } else if (word == "--") {
            place.foreign = true;
        } else if (word.size() > 1 && word[0] == '-') {
            const CLI::Option *option = find_option(place.command, word);
            if (option && option->get_items_expected_max() > 0)
                place.option = option;
            else if (word.starts_with("-C"))
                place.config = word.substr(2);
        } else {
            place.path.push_back(word);
            auto named = place.command->get_subcommands([&](const CLI::App *each) { return each->check_name(word); });
            if (!named.empty())
                place.command = named.front();
        }
    }
    return place;
}

/* The values of an option: those that its check lists, or by what its name asks for. */
static void add_values(Words &offered, const CLI::Option &option, const Place &place)
{
    std::string type = option.get_type_name();
    size_t begin = type.find('{'), end = type.find('}');
    if (begin != std::string::npos && end != std::string::npos)
        for (const std::string &value : split(std::string_view(type).substr(begin + 1, end - begin - 1), ','))
            offered.push_back(value);
    else if (option.check_lname("node"))
        add_offer(offered, "<node>", place, "");
    else if (option.check_lname("datastore"))
        add_offer(offered, "<datastore>", place, "");
    else if (option.check_lname("snapshot-of"))
        add_offer(offered, "<vdisk>", place, "");
    else if (type == "FILE")
        offered = {"/files"};
}

static void add_options(Words &offered, const CLI::App *command)
{
    for (; command; command = command->get_fallthrough() ? command->get_parent() : nullptr)
        for (const CLI::Option *option : command->get_options())
            if (option->nonpositional() && !option->get_group().empty()) {
                for (const std::string &name : option->get_lnames())
                    offered.push_back("--" + name);
                for (const std::string &name : option->get_snames())
                    offered.push_back("-" + name);
            }
}

void complete(const CLI::App &app, Words words)
{
    std::string word = words.empty() ? "" : words.back();
    if (!words.empty())
        words.pop_back();
    Place place = find_place(app, words);
    Words offered;
    size_t equals = word.starts_with("--") ? word.find('=') : std::string::npos;
    const CLI::Option *named =
        equals == std::string::npos ? nullptr : find_option(place.command, word.substr(0, equals));
    if (place.foreign) {
        offered = {"/files"};
    } else if (place.option) {
        add_values(offered, *place.option, place);
    } else if (named) {
        add_values(offered, *named, place);
        for (std::string &value : offered)
            value = word.substr(0, equals + 1) + value;
    } else if (word.starts_with("-")) {
        add_options(offered, place.command);
    } else {
        for (const CLI::App *command : place.command->get_subcommands([](const CLI::App *) { return true; }))
            offered.push_back(command->get_name());
        for (const Rule &rule : rules)
            if (applies(rule, place.path))
                for (const std::string &offer : split(rule.offered, ' '))
                    add_offer(offered, offer, place, word);
    }
    std::sort(offered.begin(), offered.end());
    offered.erase(std::unique(offered.begin(), offered.end()), offered.end());
    for (const std::string &candidate : offered)
        if (candidate.starts_with('/') || candidate.starts_with(word))
            print(candidate + "\n");
}

} // namespace mwctl
