/* hubconf check's warnings: what the library reads without an error but not
 * as the operator most likely meant it.  The file is read a second time,
 * raw, beside the library's own read; nothing here changes how the library
 * reads a file. */
#define _POSIX_C_SOURCE 200809L /* getline */
#include <errno.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "hubconf.h"
#include "trp_format.h"

enum { kMaxReferences = 79, kMaxReferenceNumber = 80, kMaxFormat = 4094 };

struct lint {
  const char *file; /* or what is checked, with line 0 */
  FILE *report;     /* NULL: count only */
  int line;
  struct lint_findings found;
};

static void warn(struct lint *lint, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
static void warn(struct lint *lint, const char *fmt, ...) {
  va_list args;
  ++lint->found.warnings;
  if (lint->report == NULL) return;
  va_start(args, fmt);
  if (lint->line > 0)
    fprintf(lint->report, "%s:%d: warning: ", lint->file, lint->line);
  else
    fprintf(lint->report, "%s: warning: ", lint->file);
  vfprintf(lint->report, fmt, args);
  fputc('\n', lint->report);
  va_end(args);
}

/* A format text that the compiler replaces by "Format string too long",
 * so that a rewrite of the file loses it. */
static void check_length(struct lint *lint, const char *text) {
  if (strlen(text) <= kMaxFormat) return;
  ++lint->found.replaced_formats;
  warn(lint,
       "the text is longer than %d bytes: it is read as \"Format string too long\", "
       "and a rewrite of the file loses it",
       kMaxFormat);
}

/* The comment lines that the writer itself writes. */
static int written_comment(const char *text) {
  static const char *const own[] = {"#", "###################", "# enterprises:",
                                    "# display categories:", "# Operator Actions:",
                                    "# User added trap formats:"};
  size_t i;
  for (i = 0; i < sizeof own / sizeof own[0]; ++i)
    if (strcmp(text, own[i]) == 0) return 1;
  return strncmp(text, "# Created by qwmtrap at ", 24) == 0;
}

static int starts_with(const char *text, const char *keyword) {
  return strncmp(text, keyword, strlen(keyword)) == 0;
}

/* A whole-line keyword followed by nothing but blanks, which the library
 * then does not take for the keyword. */
static int keyword_with_blanks(const char *text, const char *keyword) {
  size_t length = strlen(keyword);
  return strncmp(text, keyword, length) == 0 && text[length] != '\0' &&
         strspn(text + length, " \t") == strlen(text + length);
}

/* Reads decimal numbers from `text` until `end` (or the first character
 * that cannot start one) and warns about each that does not fit in 32 bits
 * (signed, or unsigned when `arcs`): the library's reading wraps them. */
static void check_numbers(struct lint *lint, const char *text, const char *end, int arcs) {
  while (text < end && *text != '\0') {
    char *after;
    long long value;
    if (strchr("0123456789-+", *text) == NULL) {
      ++text;
      continue;
    }
    errno = 0;
    value = strtoll(text, &after, 10);
    if (after == text) {
      ++text;
      continue;
    }
    if (errno == ERANGE || (arcs ? value < 0 || value > (long long)UINT32_MAX
                                 : value < INT32_MIN || value > INT32_MAX))
      warn(lint, "the number %.*s is outside the 32-bit range and wraps when read",
           (int)(after - text), text);
    text = after;
  }
}

static void check_quote(struct lint *lint, const char *text) {
  const char *open = strchr(text, '"');
  if (open != NULL && strchr(open + 1, '"') == NULL) warn(lint, "the quote is not closed");
}

/* Follows the format compiler over `text` and warns about every "$" it
 * leaves in the text literally. */
static void check_references(struct lint *lint, const char *text) {
  int references = 0;
  const char *dollar;
  for (dollar = strchr(text, '$'); dollar != NULL; dollar = strchr(dollar + 1, '$')) {
    const char *number = dollar + 1, *end;
    long value = 0;
    if (*number == '$') {
      ++dollar;
      continue;
    }
    if (references >= kMaxReferences) {
      warn(lint, "more than %d $ references: \"%.12s\" stays literal", kMaxReferences, dollar);
      return;
    }
    if (*number != '\0' && strchr("AaCEeGSscldT*#", *number) != NULL) {
      ++references;
      continue;
    }
    if (*number == '%' && number[1] == '%') ++number;
    if (*number != '\0' && strchr("-+=IitL%", *number) != NULL) ++number;
    end = number;
    while (*end >= '0' && *end <= '9') ++end;
    if (*number >= '1' && *number <= '9' && end - number <= 3) value = strtol(number, NULL, 10);
    if (value < 1 || value > kMaxReferenceNumber)
      warn(lint, "\"%.*s\" is not a $ reference and stays literal",
           (int)((end > number ? end : number + 1) - dollar), dollar);
    else
      ++references;
  }
}

/* A trap format's name line: name {oid} generic specific source severity
 * status "category". */
static void check_generic(struct lint *lint, int generic) {
  if (generic != -1 && (generic < 0 || generic > 6))
    warn(lint, "generic number %d is neither 0 to 6 nor -1 (any)", generic);
}

static void check_name_line(struct lint *lint, const char *text) {
  const char *close = strchr(text, '}');
  const char *quote = strchr(close, '"');
  int generic;
  check_numbers(lint, strchr(text, '{'), close, 1);
  check_numbers(lint, close + 1, quote != NULL ? quote : close + strlen(close), 0);
  check_quote(lint, close);
  if (sscanf(close + 1, "%d", &generic) == 1) check_generic(lint, generic);
}

int hubconf_lint_value(const char *what, int generic, const char *format, FILE *report) {
  struct lint lint = {what, report, 0, {0, 0, 0}};
  if (format != NULL)
    check_references(&lint, format);
  else
    check_generic(&lint, generic);
  return lint.found.warnings;
}

int hubconf_lint(const char *file, FILE *report, struct lint_findings *findings) {
  struct lint lint = {file, report, 0, {0, 0, 0}};
  FILE *in = fopen(file, "r");
  char *buffer = NULL;
  size_t size = 0;
  ssize_t length;
  int in_description = 0, in_slots = 0, format_next = 0;
  if (in == NULL) { /* the library's read reports it */
    if (findings != NULL) *findings = lint.found;
    return 0;
  }
  while ((length = getline(&buffer, &size, in)) > 0) {
    char *text = buffer + strspn(buffer, " \t");
    ++lint.line;
    if (buffer[length - 1] == '\n') buffer[--length] = '\0';
    if (length > 0 && buffer[length - 1] == '\r') {
      warn(&lint, "the line ends in a carriage return, which becomes part of its text");
      buffer[--length] = '\0';
    }
    if (*text == '#') {
      lint.found.comments += !written_comment(text);
      continue;
    }
    if (in_description) {
      if (strcmp(text, edescKeyword) == 0)
        in_description = 0;
      else if (keyword_with_blanks(text, edescKeyword))
        warn(&lint, "blanks after %s: the line is taken as description text", edescKeyword);
      continue;
    }
    if (in_slots) {
      in_slots = strcmp(text, emapKeyword) != 0;
      continue;
    }
    if (format_next) {
      format_next = 0;
      check_references(&lint, text);
      check_length(&lint, text);
    } else if (strcmp(text, sdescKeyword) == 0) {
      in_description = 1;
    } else if (keyword_with_blanks(text, sdescKeyword)) {
      warn(&lint, "blanks after %s: the line is not taken for the keyword", sdescKeyword);
    } else if (starts_with(text, categoryKeyword) || starts_with(text, actionKeyword)) {
      const char *quote = strchr(text, '"');
      check_numbers(&lint, text, quote != NULL ? quote : text + strlen(text), 0);
      check_quote(&lint, text);
    } else if (starts_with(text, execKeyword) || starts_with(text, displayKeyword)) {
      check_references(&lint, text);
      check_length(&lint, text + strlen(starts_with(text, execKeyword) ? execKeyword
                                                                       : displayKeyword));
    } else if (starts_with(text, smapKeyword)) {
      in_slots = 1;
    } else if (!starts_with(text, nodesKeyword) && !starts_with(text, eventclassKeyword) &&
               strchr(text, '{') != NULL && strchr(text, '}') != NULL) {
      const char *rest = strchr(text, '}') + 1;
      if (rest[strspn(rest, " \t")] == '\0') {
        check_numbers(&lint, strchr(text, '{'), rest, 1);
      } else {
        check_name_line(&lint, text);
        format_next = 1;
      }
    }
  }
  free(buffer);
  fclose(in);
  if (findings != NULL) *findings = lint.found;
  return lint.found.warnings;
}
