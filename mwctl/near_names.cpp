#include "mwctl/near_names.h"

#include "mwctl/cluster.h"
#include "mwctl/failure.h"
#include "mwctl/tree.h"

#include <algorithm>
#include <fcntl.h>
#include <fmt/format.h>
#include <numeric>

namespace mwctl
{

uint32_t node_number(const std::string &text)
{
    std::optional<uint32_t> uid = uid_from(text);
    if (!uid || *uid == 0)
        refuse(fmt::format("'{}' is no node number from 1 to 4294967295", text));
    return *uid;
}

/* How many bytes have to be put in, taken out or replaced to make one name of the other. */
static size_t edit_distance(std::string_view a, std::string_view b)
{
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), size_t(0));
    for (size_t i = 0; i < a.size(); i++) {
        size_t diagonal = row[0]++;
        for (size_t j = 0; j < b.size(); j++) {
            size_t replaced = diagonal + (tolower(a[i]) == tolower(b[j]) ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

static std::string near_names(const std::string &directory, const std::string &name)
{
    constexpr size_t most = 3, farthest = 2;
    std::vector<std::pair<size_t, std::string>> near;
    for (const Entry &entry : read_directory(AT_FDCWD, directory).entries)
        if (size_t distance = edit_distance(entry.name, name); distance <= farthest && distance < name.size())
            near.emplace_back(distance, entry.name);
    std::sort(near.begin(), near.end());
    near.resize(std::min(near.size(), most));
    std::string text;
    for (const auto &[distance, candidate] : near)
        text += (text.empty() ? "" : ", ") + candidate;
    return text;
}

void give_up_absent(const Settings &settings, const std::string &record)
{
    auto [kind, name] = split_record(record);
    const char *top = kind == "node" ? "Node" : kind == "datastore" ? "Datastore" : "VDisk";
    std::string near = near_names(fmt::format("{}/{}", settings.work_directory, top), name);
    give_up(fmt::format("there is no {} {} in {}; {}", kind, name, settings.work_directory,
                        near.empty() ? fmt::format("mwctl {}s lists all", kind) : "near: " + near));
}

} // namespace mwctl
