/* Renderings that several commands share: records, locks and troubles as JSON, and troubles for people. */
#ifndef MWCTL_RENDER_H
#define MWCTL_RENDER_H

#include "mwctl/cluster.h"
#include "mwctl/text.h"
#include "mwctl/trouble.h"

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace mwctl
{

using Json = nlohmann::ordered_json;

/* A value by its form: a number, a text, a list; null for a faulty one. */
Json value_json(const Attribute &attribute, const Value &value);

/* A record as a document: its own keys, then every attribute that was read under its file's name; null for a faulty
 * one. */
Json node_json(const Cluster &cluster, const Node &node);
Json datastore_json(const Datastore &datastore);
Json vdisk_json(const VDisk &vdisk);
Json daemon_json(const Daemon &daemon);
Json lock_json(const Lock &lock);
Json trouble_json(const Trouble &trouble);

/* A list of documents, made from each element in turn. */
template <typename List, typename Make> Json json_list(const List &list, Make make)
{
    Json result = Json::array();
    for (const auto &element : list)
        result.push_back(make(element));
    return result;
}

/* The text of a value, empty if it has none. */
std::string text_of(const Value &value);

/* The bytes of the PING that the node's VDisks, read whole, come to; nothing if one of them is not there. */
std::optional<size_t> ping_bytes(const Cluster &cluster, const Node &node);

/* "2 errors, 1 warning"; empty if there is none. */
std::string troubles_count(const std::vector<Trouble> &troubles);

/*
 * Each trouble for people: its severity, code and record, what is wrong, and the action, which stays on one line so
 * that it can be copied. Printable.
 */
std::string troubles_text(const std::vector<Trouble> &troubles, const Style &style);

} // namespace mwctl

#endif
