/* The frame that every command stands in: global options, output, and the way to add a command. */
#ifndef MWCTL_COMMAND_H
#define MWCTL_COMMAND_H

#include "mwctl/settings.h"
#include "mwctl/text.h"

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace CLI
{
class App;
}

namespace mwctl
{

/* What stands before the command's name. */
struct Options {
    std::optional<std::string> config;
    bool json = false;
    std::string color = "auto";
    std::vector<std::string> behind; /* of `lock`: the words behind --, as they were typed */

    Settings settings() const; /* read_settings of `config` */
    Style style() const;
};

/*
 * Adds a command to the program: its options, its help with an example, and as its callback a call of `run`, which sets
 * the exit status. Every command file exports one such function, and mwctl.cpp lists them.
 */
using Adder = void (*)(CLI::App &app, Options &options, int &status);

void add_status(CLI::App &app, Options &options, int &status);
void add_tables(CLI::App &app, Options &options, int &status); /* nodes, datastores, vdisks */
void add_show(CLI::App &app, Options &options, int &status);
void add_check(CLI::App &app, Options &options, int &status);
void add_locks(CLI::App &app, Options &options, int &status);
void add_config(CLI::App &app, Options &options, int &status);
void add_metrics(CLI::App &app, Options &options, int &status);
void add_graph(CLI::App &app, Options &options, int &status);
void add_wait(CLI::App &app, Options &options, int &status);
void add_watch(CLI::App &app, Options &options, int &status);
void add_publish(CLI::App &app, Options &options, int &status); /* publish, reload */
void add_new(CLI::App &app, Options &options, int &status);
void add_get_set(CLI::App &app, Options &options, int &status);
void add_drop(CLI::App &app, Options &options, int &status);
void add_lock(CLI::App &app, Options &options, int &status);
void add_sniff(CLI::App &app, Options &options, int &status);

/*
 * Prints what may stand for the last of `words`, one a line, as a shell's completion asks for it: those words come
 * behind the program's name, without quotes. A line "/files" stands for the names of files.
 */
void complete(const CLI::App &app, std::vector<std::string> words);

/* Writes to stdout. A closed pipe ends the program silently; any other failure gives up. */
void print(std::string_view text);

/* Prints a document, indented if it is for a terminal, and its newline. "format": 1 is put in. */
void print_json(nlohmann::ordered_json document);
/* The same on one line, flushed, for streams. */
void print_json_line(nlohmann::ordered_json document);

} // namespace mwctl

#endif
