#include "mwctl/writer.h"

#include "mwctl/failure.h"
#include "mwctl/text.h"
#include "mwctl/tree.h"
#include "mwd/misc.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace mwctl
{

std::pair<std::string, std::string> split_assignment(const std::string &text)
{
    size_t equals = text.find('=');
    if (equals == std::string::npos || equals == 0)
        refuse(fmt::format("'{}' is no KEY=VALUE", text));
    return {text.substr(0, equals), text.substr(equals + 1)};
}

const Attribute &attribute_of(Kind kind, std::string_view key)
{
    return attributes(kind)[static_cast<size_t>(attribute_index(kind, key))];
}

/* Whether the value becomes a component of a path. */
static bool names_record(const Attribute &attribute)
{
    return attribute.key == "datastoremember" || attribute.key == "parent";
}

Change check_value(Kind kind, const std::string &key, const std::string &text)
{
    if (attribute_index(kind, key) < 0) {
        std::string keys;
        for (const Attribute &attribute : attributes(kind))
            keys += fmt::format(" {}", attribute.key);
        refuse(fmt::format("a {} has no key '{}'; it has{}", kind_word(kind), key, keys));
    }
    const Attribute &attribute = attribute_of(kind, key);
    if (attribute.need == Need::optional && text.empty())
        return {&attribute, "", std::nullopt};
    std::string why;
    std::optional<std::string> bytes = format_value(attribute, text, why);
    if (bytes && names_record(attribute) && !uuid_usable(text)) {
        bytes.reset();
        why = fmt::format("'{}' cannot name a record", text);
    }
    if (!bytes)
        refuse(fmt::format("{}: {}", key, why));
    return {&attribute, value_text(attribute, parse_value(attribute, *bytes)), bytes};
}

Change initial_value(Kind kind, std::string_view key, const std::string &text)
{
    Change change = check_value(kind, std::string(key), text);
    change.given = false;
    return change;
}

std::string value_text(const Attribute &attribute, const Value &value)
{
    if (attribute.form == Form::number)
        return std::to_string(value_number(attribute, value));
    std::string text = value.text;
    std::replace(text.begin(), text.end(), '\n', ',');
    return text;
}

[[noreturn]] static void failed(const char *what, const std::string &path)
{
    give_up(fmt::format("cannot {} {}: {}; what was done stays, and the same command goes on from there", what, path,
                        strerror(errno)));
}

static void make_one(const std::string &path)
{
    if (mkdir(path.c_str(), 0755) < 0 && errno != EEXIST)
        failed("make", path);
}

void make_root(const Settings &settings)
{
    umask(022);
    make_one(settings.work_directory);
}

HeldRecord::HeldRecord(const Settings &settings, const RecordName &record)
    : root_(settings.work_directory), record_(record), lock_(record.text())
{
    umask(022);
}

std::string HeldRecord::whole(const std::string &entry) const
{
    std::string record = fmt::format("{}/{}", root_, record_.path());
    return entry == "." ? record : fmt::format("{}/{}", record, entry);
}

bool HeldRecord::has(const std::string &entry) const
{
    struct stat st;
    if (lstat(whole(entry).c_str(), &st) == 0)
        return true;
    if (errno != ENOENT && errno != ENOTDIR)
        failed("look at", whole(entry));
    return false;
}

std::vector<std::string> HeldRecord::list(const std::string &directory) const
{
    Directory listing = read_directory(AT_FDCWD, whole(directory));
    if (listing.fault != Fault::none && listing.fault != Fault::missing)
        give_up(fmt::format("cannot list {}: {}", whole(directory), listing.reason));
    std::vector<std::string> names;
    for (const Entry &entry : listing.entries)
        names.push_back(entry.name);
    return names;
}

Value HeldRecord::read(const Attribute &attribute, const std::string &directory) const
{
    return read_value_at(AT_FDCWD, fmt::format("{}/{}", whole(directory), attribute.key), attribute);
}

void HeldRecord::make_directory(const std::string &entry)
{
    if (entry == ".")
        make_one(whole(".").substr(0, whole(".").rfind('/')));
    make_one(whole(entry));
}

/* Writes a new file with the mode and owner of the one whose place it takes. */
static void write_file(const std::string &path, const std::string &bytes, const std::string &model)
{
    Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
    struct stat old, now;
    if (!file || fstat(file.get(), &now) < 0)
        failed("write", path);
    if (lstat(model.c_str(), &old) == 0 && S_ISREG(old.st_mode)) {
        if ((old.st_uid != now.st_uid || old.st_gid != now.st_gid) && fchown(file.get(), old.st_uid, old.st_gid) < 0)
            failed("keep the owner of", model);
        if (fchmod(file.get(), old.st_mode & 07777) < 0)
            failed("keep the mode of", model);
    }
    for (size_t done = 0; done < bytes.size();) {
        ssize_t result = ::write(file.get(), bytes.data() + done, bytes.size() - done);
        if (result < 0 && errno != EINTR)
            failed("write", path);
        done += result < 0 ? 0 : static_cast<size_t>(result);
    }
    if (fsync(file.get()) < 0)
        failed("write", path);
}

/*
 * The daemon passes over files of a record that it does not know, so the new value grows beside the old one and takes
 * its place in one step: neither a reader without the lock nor a kill ever sees half of it.
 */
void HeldRecord::write(const Change &change, const std::string &directory)
{
    std::string key(change.attribute->key);
    if (!change.bytes) {
        remove(directory == "." ? key : fmt::format("{}/{}", directory, key));
        return;
    }
    std::string path = fmt::format("{}/{}", whole(directory), key);
    std::string fresh = fmt::format("{}/.{}.new", whole(directory), key);
    try {
        write_file(fresh, *change.bytes, path);
        if (rename(fresh.c_str(), path.c_str()) < 0)
            failed("write", path);
    } catch (...) {
        unlink(fresh.c_str());
        throw;
    }
}

bool HeldRecord::link(const std::string &entry, const std::string &target)
{
    std::string path = whole(entry);
    if (symlink(target.c_str(), path.c_str()) == 0)
        return true;
    if (errno != EEXIST)
        failed("make the link", path);
    if (read_link(AT_FDCWD, path) != target)
        give_up(
            fmt::format("{} is there already and is not the link to {}: mwctl check says what to do", path, target));
    return false;
}

bool HeldRecord::remove(const std::string &entry)
{
    std::string path = whole(entry);
    if (unlink(path.c_str()) == 0)
        return true;
    if (errno == ENOENT)
        return false;
    if (errno != EISDIR)
        failed("remove", path);
    errno = 0;
    if (rm_fr(path.c_str()) != 0)
        failed("remove", path);
    return true;
}

void HeldRecord::sync(const std::string &directory)
{
    Descriptor dir(open(whole(directory).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir || fsync(dir.get()) < 0)
        failed("bring to the disk", whole(directory));
}

void HeldRecord::remove_record(const std::string &last)
{
    for (const std::string &entry : list("."))
        if (entry != last)
            remove(entry);
    remove(last);
    if (rmdir(whole(".").c_str()) < 0 && errno != ENOENT)
        failed("remove", whole("."));
}

} // namespace mwctl
