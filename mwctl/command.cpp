#include "mwctl/command.h"

#include "mwctl/failure.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace mwctl
{

Settings Options::settings() const
{
    return read_settings(config);
}

Style Options::style() const
{
    return make_style(color);
}

void print(std::string_view text)
{
    while (!text.empty()) {
        ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written >= 0)
            text.remove_prefix(static_cast<size_t>(written));
        else if (errno == EPIPE)
            _exit(STATUS_DONE);
        else if (errno != EINTR)
            give_up(fmt::format("cannot write the output: {}", strerror(errno)));
    }
}

/* All but ASCII as \u, so that no character of a name can move a terminal's cursor. */
static std::string serialise(nlohmann::ordered_json &document, int indent)
{
    nlohmann::ordered_json framed = {{"format", 1}};
    framed.update(document);
    return framed.dump(indent, ' ', true) + "\n";
}

void print_json(nlohmann::ordered_json document)
{
    print(serialise(document, isatty(STDOUT_FILENO) ? 2 : -1));
}

void print_json_line(nlohmann::ordered_json document)
{
    print(serialise(document, -1));
}

} // namespace mwctl
