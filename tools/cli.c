#include "cli.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const char *program = "tool";

void cli_init(const char *argv0) {
  const char *slash;
  if (argv0 == NULL || *argv0 == '\0') return;
  slash = strrchr(argv0, '/');
  program = slash != NULL ? slash + 1 : argv0;
}

const char *cli_name(void) { return program; }

void cli_print_version(void) { printf("%s (libevents) %s\n", program, EVENTS_VERSION); }

void cli_usage_error(const char *fmt, ...) {
  va_list args;
  fprintf(stderr, "%s: ", program);
  va_start(args, fmt);
  vfprintf(stderr, fmt, args);
  va_end(args);
  fprintf(stderr, "\nTry '%s --help' for more information.\n", program);
  exit(2);
}
