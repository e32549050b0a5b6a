/*
 * The one place that writes records. It knows the form, width and range of every key; it holds the record's lock for as
 * long as it can write; values appear whole or not at all, whenever the program ends.
 */
#ifndef MWCTL_WRITER_H
#define MWCTL_WRITER_H

#include "mwctl/attributes.h"
#include "mwctl/cluster.h"
#include "mwctl/record_lock.h"
#include "mwctl/record_name.h"

#include <optional>
#include <string>
#include <vector>

namespace mwctl
{

/* A value that is to be written. */
struct Change {
    const Attribute *attribute;
    std::string text;                 /* as people write it, lists with commas */
    std::optional<std::string> bytes; /* of the file; nothing: the file goes */
    bool given = true;                /* somebody asked for this very value */
};

/* "KEY=VALUE" taken apart. Refuses what has no "=". */
std::pair<std::string, std::string> split_assignment(const std::string &text);

/* The value checked: form, width, range, and whether it can name a record if it has to. Refuses it otherwise. */
Change check_value(Kind kind, const std::string &key, const std::string &text);

/* A value that nobody asked for, and which is good. */
Change initial_value(Kind kind, std::string_view key, const std::string &text);

/* A value as people write it: a number cut to its width, a list with commas. */
std::string value_text(const Attribute &attribute, const Value &value);

const Attribute &attribute_of(Kind kind, std::string_view key);

/* Makes the root of the tree if it is missing, as the daemon does at its start. */
void make_root(const Settings &settings);

/*
 * A node, datastore or VDisk under its lock. Entries are paths relative to the record: "vdisks", "memberinfo/7". Every
 * operation gives up with status 3 if the system refuses it; what was written before stays, and to do all of it again
 * does no harm.
 */
class HeldRecord
{
  public:
    /* Takes the lock, or gives up and says who holds it. The record need not exist. */
    HeldRecord(const Settings &settings, const RecordName &record);

    bool has(const std::string &entry = ".") const;
    /* Names of the directory, none if it does not exist. */
    std::vector<std::string> list(const std::string &directory) const;
    Value read(const Attribute &attribute, const std::string &directory = ".") const;

    /* Makes a directory unless it exists; the record's own comes first and brings the one above it along. */
    void make_directory(const std::string &entry = ".");
    /* Writes or removes a value in one step, with the mode and owner that it had. */
    void write(const Change &change, const std::string &directory = ".");
    /* Makes the link unless it is there; gives up if anything else has its name. Returns whether it was made. */
    bool link(const std::string &entry, const std::string &target);
    /* Removes a file, link or directory with all that is in it. Returns whether it was there. */
    bool remove(const std::string &entry);
    /* Brings the directory to the disk. */
    void sync(const std::string &directory = ".");
    /* Removes the record, `last` last of its entries. */
    void remove_record(const std::string &last);

  private:
    std::string whole(const std::string &entry) const;

    std::string root_;
    RecordName record_;
    RecordLock lock_;
};

} // namespace mwctl

#endif
