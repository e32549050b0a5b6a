/*
 * Sums of database trees, to tell whether hosts agree: treesum [-l] TREE... prints a line a tree, with -l one a record.
 * Left out is what differs between hosts by nature: when and whence a node was heard, and files of host programs that
 * no message writes.
 */
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>

namespace fs = std::filesystem;

static uint64_t sum_of(const std::string &text)
{
    uint64_t sum = 0xcbf29ce484222325;
    for (char c : text)
        sum = (sum ^ static_cast<unsigned char>(c)) * 0x100000001b3;
    return sum;
}

static std::string content_of(const fs::directory_entry &entry)
{
    if (entry.is_symlink())
        return "-> " + fs::read_symlink(entry).string();
    if (entry.is_directory())
        return "directory";
    std::ifstream file(entry.path(), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/* The sums of the records, each over the paths and contents below it, in whatever order the directories list them. */
static std::map<std::string, uint64_t> records_of(const fs::path &tree)
{
    static const std::set<std::string> left_out = {"lastping", "ipaddr", "transaction_id"};
    std::map<std::string, uint64_t> records;
    std::error_code error;
    for (fs::recursive_directory_iterator at(tree, error), end; !error && at != end; at.increment(error)) {
        if (at.depth() == 0 || left_out.contains(at->path().filename()))
            continue;
        fs::path relative = at->path().lexically_relative(tree);
        auto part = relative.begin();
        std::string record = (*part / *std::next(part)).string();
        records[record] += sum_of(relative.string() + '\0' + content_of(*at));
    }
    return records;
}

int main(int argc, char **argv)
{
    bool list = argc > 1 && strcmp(argv[1], "-l") == 0;
    for (int i = list ? 2 : 1; i < argc; i++) {
        uint64_t whole = 0;
        for (const auto &[record, sum] : records_of(argv[i])) {
            if (list)
                printf("%016llx %s\n", static_cast<unsigned long long>(sum), record.c_str());
            whole += sum * 31 + sum_of(record);
        }
        if (!list)
            printf("%016llx %s\n", static_cast<unsigned long long>(whole), argv[i]);
    }
}
