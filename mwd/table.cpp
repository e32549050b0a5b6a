#include "mwd/table.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>

int table_next_line(FILE *file, char (&line)[TABLE_LINE_LEN], size_t *lineno)
{
    while (fgets(line, sizeof(line), file)) {
        ++*lineno;
        char *newline = strchr(line, '\n');
        if (!newline)
            return -1;
        *newline = '\0';
        if (line[0] != '\0' && line[0] != '#')
            return 1;
    }
    return ferror(file) ? -2 : 0;
}

uint32_t table_node(const char *line)
{
    return static_cast<uint32_t>(strtoul(line, nullptr, 10));
}

int table_host(const char *text, uint16_t port, struct sockaddr_in *sa)
{
    if (strlen(text) >= INET_ADDRSTRLEN)
        return -1;
    *sa = {};
    sa->sin_family = AF_INET;
    sa->sin_port = htons(port);
    return inet_aton(text, &sa->sin_addr) == 0 ? -1 : 0;
}
