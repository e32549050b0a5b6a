#include "mwctl/steps.h"

#include "mwctl/failure.h"
#include "mwctl/render.h"

namespace mwctl
{

int print_steps(const Options &options, const std::string &record, const std::vector<std::string> &steps)
{
    if (options.json) {
        print_json({{"record", record.empty() ? Json() : Json(utf8(record))},
                    {"steps", json_list(steps, [](const std::string &step) { return utf8(step); })}});
        return STATUS_DONE;
    }
    for (const std::string &step : steps)
        print(printable(step) + "\n");
    return STATUS_DONE;
}

} // namespace mwctl
