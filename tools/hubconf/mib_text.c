/* Texts from MIB modules for import-mib; see mib_text.h. */
#define _GNU_SOURCE
#include "mib_text.h"

#include <ctype.h>
#include <stdlib.h>
#include <string.h>

/* Longest first sentence taken into a format, in bytes. */
#define SENTENCE_MAX 200

/* A growing text. */
struct text {
  char *data;
  size_t length, capacity;
};

static void append(struct text *text, const char *bytes, size_t count) {
  if (text->length + count + 1 > text->capacity) {
    text->capacity = (text->length + count + 1) * 2;
    text->data = doRealloc(text->data, (unsigned)text->capacity);
  }
  memcpy(text->data + text->length, bytes, count);
  text->length += count;
  text->data[text->length] = '\0';
}

static void append_text(struct text *text, const char *s) { append(text, s, strlen(s)); }

static char *hint_value(const char *rest) {
  const char *end;
  rest += strspn(rest, " \t");
  if (*rest == '"') {
    end = strchr(++rest, '"');
    if (end == NULL) end = rest + strcspn(rest, "\r\n");
  } else {
    end = rest + strcspn(rest, "\r\n");
    while (end > rest && isspace((unsigned char)end[-1])) --end;
  }
  return strndup(rest, (size_t)(end - rest));
}

/* The name of a TRAP-TYPE or NOTIFICATION-TYPE this line begins, or NULL. */
static char *definition_on(const char *line) {
  char first[256], second[64];
  if (sscanf(line, " %255s %63s", first, second) != 2) return NULL;
  if (!islower((unsigned char)first[0]) ||
      (strcmp(second, "TRAP-TYPE") != 0 && strcmp(second, "NOTIFICATION-TYPE") != 0))
    return NULL;
  return strdup(first);
}

void mib_read_hints(FILE *fp, struct hints **list, size_t *count) {
  char line[4096];
  struct hints *current = NULL;
  while (fgets(line, sizeof line, fp) != NULL) {
    const char *hint = line + strspn(line, " \t");
    char *name = definition_on(line);
    if (name != NULL) {
      *list = doRealloc(*list, (unsigned)(sizeof **list * (*count + 1)));
      current = &(*list)[(*count)++];
      memset(current, 0, sizeof *current);
      current->name = name;
      continue;
    }
    if (current == NULL || strncmp(hint, "--#", 3) != 0) continue;
    hint += 3;
    if (strncmp(hint, "SUMMARY", 7) == 0 && current->summary == NULL) {
      current->summary = hint_value(hint + 7);
    } else if (strncmp(hint, "SEVERITY", 8) == 0 && current->severity == NULL) {
      current->severity = hint_value(hint + 8);
    } else if (strncmp(hint, "CATEGORY", 8) == 0 && current->category == NULL) {
      current->category = hint_value(hint + 8);
    } else if (strncmp(hint, "ARGUMENTS", 9) == 0) {
      const char *p = hint + 9;
      current->argument_count = 0;
      while (*p != '\0' && current->argument_count < TRAP_MAX_ARGS) {
        char *end;
        long index;
        p += strcspn(p, "0123456789\r\n");
        if (!isdigit((unsigned char)*p)) break;
        index = strtol(p, &end, 10);
        current->arguments[current->argument_count++] = (int)(index < TRAP_MAX_ARGS ? index : 0);
        p = end;
      }
    }
  }
}

void mib_free_hints(struct hints *list, size_t count) {
  size_t i;
  for (i = 0; i < count; ++i) {
    free(list[i].name);
    free(list[i].summary);
    free(list[i].severity);
    free(list[i].category);
  }
  doFree(list);
}

/* Text for the format line: one line, "$" and "\" kept literal. */
static void append_literal(struct text *format, const char *text, size_t length) {
  size_t i;
  for (i = 0; i < length; ++i) {
    char c = text[i];
    if (c == '$' || c == '\\') append(format, &c, 1);
    if (c == '\n' || c == '\r' || c == '\t') c = ' ';
    if (c == ' ' && format->length > 0 && format->data[format->length - 1] == ' ') continue;
    append(format, &c, 1);
  }
}

/* The first sentence: up to the first period that ends a word. */
static size_t first_sentence(const char *text) {
  size_t length = 0;
  while (text[length] != '\0' && length < SENTENCE_MAX) {
    if (text[length] == '.' &&
        (text[length + 1] == '\0' || isspace((unsigned char)text[length + 1])))
      return length + 1;
    ++length;
  }
  return length;
}

char *mib_format_line(const struct mib_notification *notification, const struct hints *hints) {
  struct text format = {NULL, 0, 0};
  size_t i;
  int listed = 0;
  char reference[16];
  if (hints != NULL && hints->summary != NULL && hints->summary[0] != '\0') {
    /* Each %s takes the next --#ARGUMENTS index, counted from 0. */
    const char *p = hints->summary, *s;
    int next = 0;
    while ((s = strstr(p, "%s")) != NULL && next < hints->argument_count) {
      append_literal(&format, p, (size_t)(s - p));
      snprintf(reference, sizeof reference, "$%d", hints->arguments[next++] + 1);
      append_text(&format, reference);
      p = s + 2;
    }
    append_literal(&format, p, strlen(p));
    listed = hints->argument_count > 0;
  } else if (notification->description != NULL) {
    const char *start = notification->description + strspn(notification->description, " \t\r\n");
    append_literal(&format, start, first_sentence(start));
  }
  /* The reader skips a line that begins with "#" as a comment. */
  if (format.length == 0 || format.data[0] == '#') {
    struct text named = {NULL, 0, 0};
    append_text(&named, notification->name);
    if (format.length > 0) {
      append_text(&named, ": ");
      append_text(&named, format.data);
    }
    doFree(format.data);
    format = named;
  }
  for (i = 0; !listed && i < notification->object_count && i < TRAP_MAX_ARGS; ++i) {
    snprintf(reference, sizeof reference, "=$%zu", i + 1);
    append_text(&format, " ");
    append_literal(&format, notification->objects[i], strlen(notification->objects[i]));
    append_text(&format, reference);
  }
  return format.data;
}

/* The description block: each line without its indentation, no trailing
 * blank lines, and no line the reader would take for a comment or for the
 * end of the block. */
char *mib_description_block(const char *description_text) {
  struct text description = {NULL, 0, 0};
  const char *line = description_text;
  size_t keyword = strlen(edescKeyword);
  if (line == NULL) return NULL;
  while (*line != '\0') {
    size_t length = strcspn(line, "\r\n");
    const char *start = line;
    while (start < line + length && isspace((unsigned char)*start)) ++start;
    length -= (size_t)(start - line);
    while (length > 0 && isspace((unsigned char)start[length - 1])) --length;
    if (length > 0 &&
        (start[0] == '#' || (length == keyword && strncmp(start, edescKeyword, keyword) == 0)))
      append_text(&description, "- ");
    append(&description, start, length);
    append_text(&description, "\n");
    line = start + length;
    line += strcspn(line, "\r\n");
    if (*line == '\r') ++line;
    if (*line == '\n') ++line;
  }
  while (description.length > 0 && description.data[description.length - 1] == '\n')
    description.data[--description.length] = '\0';
  if (description.length == 0) {
    doFree(description.data);
    return NULL;
  }
  return description.data;
}
