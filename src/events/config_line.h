// The line routine of the configuration files: hubd.conf, the node
// source-list files it names and the alert mapping file.
#ifndef EVENTS_SRC_CONFIG_LINE_H
#define EVENTS_SRC_CONFIG_LINE_H

#include <cstdio>

namespace events {

// Opens `path` for reading.  Only regular files are taken: a directory
// reads as an empty file and a FIFO blocks until a writer comes, so both
// are refused, and the file is opened without blocking to find out.
// Returns null when the file cannot be opened (errno tells why, as after
// fopen), or when it is refused with the reason in *refused ("Is a
// directory", "Not a regular file"); *refused is null otherwise.
FILE *open_config_file(const char *path, const char **refused);

// Writes "Could not read "PATH": REASON" into errmem (when not null), for
// a file that was opened but cannot be read to its end.  Returns -1.
int read_failure(char *errmem, const char *path, const char *reason);

// Reads the next significant line of `fp` into buf (capacity n bytes):
// leading blanks and tabs are dropped, lines whose first other character
// is "#" are passed over, and the last character (the newline; on a last
// line without one, its last real character) is removed.  Every physical
// line read advances *line_number.  Returns 1 with the text at buf, 0 at
// the end of the file, -1 for a line that does not fit in n - 1 bytes or a
// failed read; then errmem (when not null) gets "Line too long" with the
// line information, or the read_failure text.
int read_config_line(char *buf, int n, FILE *fp, int *line_number, const char *conffile,
                     char *errmem);

}  // namespace events

#endif
