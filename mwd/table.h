/*
 * The lines of the table files local_nodes and unicast_hosts, as the daemon and the operator's tool both read them. A
 * line ends with a newline; an empty one, and one that begins with "#", says nothing.
 */
#ifndef MWD_TABLE_H
#define MWD_TABLE_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <netinet/in.h>

constexpr size_t TABLE_LINE_LEN = 256;

/*
 * Reads up to the next line that says something, without its newline, and adds the lines it read to *lineno. Returns 1;
 * 0 at the end of the file; -1 for a line that is too long or lacks its newline; -2 for a read error.
 */
int table_next_line(FILE *file, char (&line)[TABLE_LINE_LEN], size_t *lineno);

/* The node's number in a line: its leading digits, cut to 32 bits. 0 if it names none. */
uint32_t table_node(const char *line);

/* The address `text` with `port` in *sa. Returns 0, or -1 if it is longer than 15 characters or no address. */
int table_host(const char *text, uint16_t port, struct sockaddr_in *sa);

#endif
