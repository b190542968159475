// Rewriting a configuration file in place without losing it.  The writers
// keep the file itself (their lock lives on its open file description), so
// the file is not replaced by another one: its previous content is first
// saved beside it as a backup (a new file renamed over the old backup), and
// the new content is then written over the old in an order that leaves,
// after an interruption at any point, either the previous content or a file
// that the readers refuse as incomplete.
#ifndef EVENTS_SRC_CONFIG_BACKUP_H
#define EVENTS_SRC_CONFIG_BACKUP_H

#include <cstdio>
#include <functional>
#include <string>

namespace events {

// The first byte of a file whose rewriting has begun and not ended.  No
// configuration can begin with it: its first line would be empty.
constexpr char kIncompleteMark = '\0';

// The backup's name: `path` with ".bak" appended.
std::string backup_path(const char *path);

// Replaces the content of the file fp is open on (fp may be write-only)
// with `content`.  `configured` is the name the caller knows the file by;
// the backup goes beside that name when fp is open on that file, and beside
// the file fp is open on otherwise.  A regular, non-empty file is first
// saved to its backup; a symbolic link in the backup's place is refused.
// Something that is not a regular file (a pipe, a terminal) just receives
// the content.  fp stays open.  0; or -1 after one line on standard error
// that says what happened and where the previous content is.
int replace_content(FILE *fp, const char *configured, const std::string &content);

// The local time as both writers put it on their "Created by" line.
std::string creation_time();

// The text that `write` writes to the stream it is given.
std::string text_written_by(const std::function<void(FILE *)> &write);

// Whether the stream, at its start, holds a file whose rewriting never
// ended.  Leaves the stream where it was.
bool rewrite_incomplete(FILE *fp);

}  // namespace events

#endif
