/* What the rules share: the cluster with the questions that many of them ask, and the list that they add to. */
#ifndef MWCTL_TROUBLE_RULES_H
#define MWCTL_TROUBLE_RULES_H

#include "mwctl/trouble.h"

#include <string_view>
#include <unordered_map>

namespace mwctl
{

class Judge
{
  public:
    explicit Judge(const Cluster &the_cluster);

    const Cluster &cluster;
    std::vector<Trouble> troubles;

    /* Adds a trouble that its own record and file have to confirm. The reference holds until the next one is added. */
    Trouble &add(const char *code, std::string record, std::string file, std::string text, std::string action);

    /* Whether the daemon publishes the node: it is in local_nodes, or may be while that table cannot be read. */
    bool published(const Node &node) const;
    /* Whether the node is this host's own, with or without a record. */
    bool local(uint32_t uid) const;
    /* The nodes with a link to the VDisk, ascending. */
    const std::vector<const Node *> &linked(std::string_view vdisk) const;
    /* Those of them whose PING names the VDisk. */
    std::vector<uint32_t> publishers(const std::string &vdisk) const;
    /*
     * Whether a repair may change or remove the VDisk: no node of this host is in its membership, its member records or
     * linked to it, no transaction is open, and all of that could be read.
     */
    bool peers_only(const VDisk &vdisk) const;
    /* Whether a peer has a share in the VDisk, or nobody is known to. */
    bool reported_by_peers(const VDisk &vdisk) const;

  private:
    std::vector<uint32_t> shareholders(const VDisk &vdisk) const;

    std::unordered_map<std::string_view, std::vector<const Node *>> linked_;
};

/* The rules by subject. */
void judge_daemon(Judge &judge);     /* process, configuration, tables, interface, ports */
void judge_locks(Judge &judge);      /* path locks */
void judge_names(Judge &judge);      /* entries that belong nowhere, or that no message can write */
void judge_nodes(Judge &judge);      /* node records and their PINGs */
void judge_datastores(Judge &judge); /* datastore records and their members */
void judge_vdisks(Judge &judge);     /* VDisk records, member records, transactions */
void judge_links(Judge &judge);      /* links between records */

/* The file in the tree as an operator types it: its whole path, quoted for a shell where it has to be. */
std::string shell_path(const Cluster &cluster, const std::string &file);
/* The word quoted for a shell where it has to be, control characters as $'\x1b'. */
std::string shell_word(std::string_view word);

/* "node 7", "nodes 7, 8 and 9". */
std::string nodes_text(const std::vector<uint32_t> &uids);

/* Faulty files of one record: the first one as a clause, and how many more there are. */
struct Flaws {
    std::vector<std::string> files, reasons; /* "Node/7/vendor", "is missing" */
    bool refused = false;                    /* the system refused one of them: no writing mends that */

    void add(std::string file, std::string reason);
    void add(const std::string &directory, const Attribute &attribute, const Value &value);
    bool empty() const
    {
        return files.empty();
    }
    std::string text() const;
};

} // namespace mwctl

#endif
