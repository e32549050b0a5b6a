/* The peer tables: which nodes this host publishes, and whom its messages go to. */
#include "mwd/controller_internal.h"

#include "mwd/config.h"
#include "mwd/syslog.h"
#include "mwd/table.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

struct NodeList *local_nodes;
struct HostList *unicast_hosts;
struct HostList *multicast_groups;

/* Announces the load of a table file and opens it, as `op`. Returns null after an error line. */
static FILE *table_open(const char *op, const char *path)
{
    log_notice_as(op, "Loading %s", path);
    FILE *file = fopen(path, "r");
    if (!file)
        log_error_as(op, "fopen(%s): %s", path, strerror(errno));
    return file;
}

/* As table_next_line, with a line for a failure. Returns 1, 0 at the end of the file, or -1. */
static int next_line(const char *op, const char *path, FILE *file, char (&line)[TABLE_LINE_LEN])
{
    size_t lineno = 0;
    int result = table_next_line(file, line, &lineno);
    if (result == -1)
        log_error_as(op, "Malformed file %s", path);
    else if (result < 0)
        log_error_as(op, "Error reading %s", path);
    return result < 0 ? -1 : result;
}

static int add_local_node(const char *op, struct NodeList *nodes, const char *ln)
{
    uint32_t nodeid = table_node(ln);
    if (nodeid == 0) {
        log_error_as(op, "Malformed file %s", cfg_local_nodes);
        return -1;
    }
    struct Node *node = nullptr;
    if (NodeAlloc(&node) < 0)
        return -1;
    snprintf(node->nodeuuid, sizeof(node->nodeuuid), "%u", nodeid);
    node->nodeid = nodeid;
    log_debug_as(op, "LOCAL_NODE: %u (%s)", nodeid, ln);
    TAILQ_INSERT_TAIL(nodes, node, entries);
    return 0;
}

void load_local_nodes()
{
    FILE *file = table_open(__func__, cfg_local_nodes);
    if (!file)
        return;
    struct NodeList *tmp_local_nodes = nullptr;
    int result = NodeListAlloc(&tmp_local_nodes) < 0 ? -1 : 1;
    char ln[TABLE_LINE_LEN];
    while (result > 0) {
        result = next_line(__func__, cfg_local_nodes, file, ln);
        if (result > 0 && add_local_node(__func__, tmp_local_nodes, ln) < 0)
            result = -1;
    }
    fclose(file);
    if (result == 0) {
        NodeListFree(local_nodes);
        local_nodes = tmp_local_nodes;
    } else if (tmp_local_nodes) {
        NodeListFree(tmp_local_nodes);
    }
}

void dump_local_nodes()
{
    int n = 0, i = 0;
    struct Node *node;
    TAILQ_FOREACH(node, local_nodes, entries)
        n++;
    TAILQ_FOREACH(node, local_nodes, entries)
        log_notice("[%d/%d] %u", ++i, n, node->nodeid);
}

/* Fills the host from the address `text`. Returns 0, or -1 if that is too long or no address. */
static int host_parse(struct Host *host, const char *text)
{
    if (table_host(text, static_cast<uint16_t>(cfg_bind_port), &host->sa) < 0)
        return -1;
    memcpy(host->ipaddr, text, strlen(text) + 1);
    return 0;
}

/* `kind` is the address's in the failure line, `label` the record's in the debug line. */
static int add_host(const char *op, struct HostList *hosts, const char *text, const char *kind, const char *label)
{
    struct Host *host = nullptr;
    if (HostAlloc(&host) < 0)
        return -1;
    if (host_parse(host, text) < 0) {
        log_error_as(op, "Malformed %s address: %s", kind, text);
        HostFree(host);
        return -1;
    }
    log_debug_as(op, "%s: %s:%u (%s)", label, host->ipaddr, ntohs(host->sa.sin_port), text);
    TAILQ_INSERT_TAIL(hosts, host, entries);
    return 0;
}

void load_unicast_hosts()
{
    FILE *file = table_open(__func__, cfg_unicast_hosts);
    if (!file)
        return;
    struct HostList *tmp_unicast_hosts = nullptr;
    int result = HostListAlloc(&tmp_unicast_hosts) < 0 ? -1 : 1;
    char ln[TABLE_LINE_LEN];
    while (result > 0) {
        result = next_line(__func__, cfg_unicast_hosts, file, ln);
        if (result > 0 && add_host(__func__, tmp_unicast_hosts, ln, "unicast", "UNICAST_HOST") < 0)
            result = -1;
    }
    fclose(file);
    if (result == 0) {
        HostListFree(unicast_hosts);
        unicast_hosts = tmp_unicast_hosts;
    } else if (tmp_unicast_hosts) {
        HostListFree(tmp_unicast_hosts);
    }
}

void dump_unicast_hosts()
{
    int n = 0, i = 0;
    struct Host *host;
    TAILQ_FOREACH(host, unicast_hosts, entries)
        n++;
    TAILQ_FOREACH(host, unicast_hosts, entries)
        log_notice("[%d/%d] %s", ++i, n, host->ipaddr);
}

int parse_mcast_groups()
{
    char *list = strdup(cfg_multicast_address);
    if (!list) {
        log_error("strdup(%s): %s", cfg_multicast_address, strerror(errno));
        return -1;
    }
    int result = 0;
    char *rest = nullptr;
    for (char *token = strtok_r(list, ", ", &rest); token && result == 0; token = strtok_r(nullptr, ", ", &rest))
        result = add_host(__func__, multicast_groups, token, "multicast", "MULTICAST_GROUP");
    free(list);
    return result;
}

int join_mcast_groups(int so, const struct sockaddr_in *if_addr)
{
    struct Host *group;
    TAILQ_FOREACH(group, multicast_groups, entries)
        if (add_mcast_membership(so, group->ipaddr, if_addr) < 0)
            return -1;
    return 0;
}
