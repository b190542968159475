// The line routine of the configuration files: hubd.conf, the node
// source-list files it names and the alert mapping file.
#ifndef EVENTS_SRC_CONFIG_LINE_H
#define EVENTS_SRC_CONFIG_LINE_H

#include <cstdio>

namespace events {

// Reads the next significant line of `fp` into buf (capacity n bytes):
// leading blanks and tabs are dropped, lines whose first other character
// is "#" are passed over, and the last character (the newline; on a last
// line without one, its last real character) is removed.  Every physical
// line read advances *line_number.  Returns 1 with the text at buf, 0 at
// the end of the file, -1 for a line that does not fit in n - 1 bytes; then
// errmem (when not null) gets "Line too long" with the line information.
int read_config_line(char *buf, int n, FILE *fp, int *line_number, const char *conffile,
                     char *errmem);

}  // namespace events

#endif
