// Durable rewriting of a configuration file in place.  The writers keep the
// file itself (their lock lives on it), so the previous content is saved
// beside it before the file is truncated, and the new content reaches the
// disk before the lock ends.
#ifndef EVENTS_SRC_CONFIG_BACKUP_H
#define EVENTS_SRC_CONFIG_BACKUP_H

#include <cstdio>
#include <string>

namespace events {

// The backup's name: `path` with ".bak" appended.
std::string backup_path(const char *path);

// Copies the whole content of fp (read from its start) to backup_path(path)
// and flushes that copy to disk.  Leaves fp at its start.  0; or -1 after a
// line on standard error naming the backup and the reason.
int save_backup(FILE *fp, const char *path);

// Flushes fp's buffer and then the file to disk.  0, or -1 with errno set
// when a write of the stream or the flush failed.
int flush_to_disk(FILE *fp);

}  // namespace events

#endif
