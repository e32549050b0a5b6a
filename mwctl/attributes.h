/*
 * The one table of the tree's attributes: under which key a value stands, in which form, how wide, and who needs it.
 * Reading, checking, writing and every output go by it.
 */
#ifndef MWCTL_ATTRIBUTES_H
#define MWCTL_ATTRIBUTES_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mwctl
{

enum class Form {
    number,    /* unsigned, decimal; width in bits */
    text,      /* width in bytes */
    address,   /* IPv4, dotted; the width is that of the text */
    version,   /* vMAJOR.MINOR, read back with at most 7 characters */
    snaptime,  /* YY-MM-DD_HH.MM.SS */
    nodes,     /* a list of node numbers, one a line */
    addresses, /* a list of addresses, one a line */
};

enum class Kind { node, datastore, vdisk, member };

/* What the daemon does with a missing or torn value of a record that it publishes or removes. */
enum class Need {
    published, /* a publication reads it */
    removal,   /* a publication and the removal of the VDisk read it */
    applied,   /* reading a peer's report needs it: highest_gen_count */
    optional,  /* may be missing, but not torn: transaction_id, datastoremember */
    unread     /* only other programs read it */
};

enum class Applies { always, plain, snapshot };

struct Attribute {
    std::string_view key;
    Form form;
    unsigned width;
    Need need;
    Applies applies = Applies::always;
    std::string_view initial = ""; /* what a new record gets unless told otherwise; "" is also a text's own default */
};

/* The attributes of a kind of record, in the order in which they are written. */
std::span<const Attribute> attributes(Kind kind);

/* Where `key` stands in attributes(kind), or -1. */
int attribute_index(Kind kind, std::string_view key);

/* Why a value cannot be used. */
enum class Fault : uint8_t {
    none,
    missing,
    unreadable, /* the system refused; Value::text says why */
    no_file,    /* a directory, FIFO, socket or device in the file's place */
    empty,
    oversized, /* more than 255 bytes, or a list longer than any message */
    torn,      /* does not end with a newline */
    no_number,
    too_long, /* more bytes than its width */
    no_address,
    no_version,
    no_time,
    zero_member, /* a line of a list of nodes that names none */
};

/* A value as it was read: its text without the final newline, or what is wrong with it. */
struct Value {
    std::string text;
    Fault fault = Fault::missing;

    bool good() const
    {
        return fault == Fault::none;
    }
    bool missing() const
    {
        return fault == Fault::missing;
    }
};

/* Judges the bytes of an attribute's file as the daemon would. Lists keep their lines, separated by newlines. */
Value parse_value(const Attribute &attribute, std::string_view bytes);

/* A number as the daemon takes it: leading digits, cut to the width. 0 if the value is not good. */
uint64_t value_number(const Attribute &attribute, const Value &value);

/* The lines of a list. */
std::vector<std::string_view> value_lines(const Value &value);

/* The reason in words, such as "does not end with a newline". */
std::string fault_text(const Attribute &attribute, const Value &value);

/*
 * Checks a value that somebody wants to write: form, width and range, more strictly than the daemon reads. Lists come
 * with commas. Returns the bytes of the file, with its newline; or nothing, with the reason in `why`.
 */
std::optional<std::string> format_value(const Attribute &attribute, std::string_view text, std::string &why);

} // namespace mwctl

#endif
