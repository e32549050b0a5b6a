/* config: what is in force, and where it comes from. */
#include "mwctl/command.h"
#include "mwctl/failure.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace mwctl
{

static void print_text(const Settings &settings, const Style &style)
{
    Table table({"KEY", "VALUE", "ORIGIN"});
    for (const ConfigEntry &entry : settings.values)
        table.add({entry.key, entry.text, entry.origin});
    print(table.render(style));
}

static nlohmann::ordered_json to_json(const Settings &settings)
{
    nlohmann::ordered_json values = nlohmann::ordered_json::object();
    for (const ConfigEntry &entry : settings.values) {
        nlohmann::ordered_json &value = values[entry.key];
        if (entry.numeric)
            value["value"] = std::stol(entry.text);
        else
            value["value"] = utf8(entry.text);
        value["origin"] = utf8(entry.origin);
    }
    return {{"file", utf8(settings.file)}, {"values", values}};
}

static int run_config(const Options &options)
{
    Settings settings = options.settings();
    if (options.json)
        print_json(to_json(settings));
    else
        print_text(settings, options.style());
    return settings.config_faults.empty() && settings.table_faults.empty() ? STATUS_DONE : STATUS_TROUBLE;
}

void add_config(CLI::App &app, Options &options, int &status)
{
    CLI::App *command = app.add_subcommand("config", "The configuration in force, with the origin of every value");
    command->footer("Example:\n  mwctl -C /etc/mwd/mwd.conf config");
    command->callback([&] { status = run_config(options); });
}

} // namespace mwctl
