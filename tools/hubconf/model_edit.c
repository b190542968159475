/* hubconf's edits of what trap formats refer to: enterprises, display
 * categories and operator actions.
 *
 *   hubconf add-enterprise NAME OID      hubconf delete-enterprise NAME
 *   hubconf set-category NUMBER NAME     hubconf delete-category NAME
 *   hubconf set-action TITLE WAIT COMMAND [DESCRIPTION]
 *
 * Each is one edit cycle, as set and delete are.  What a trap format still
 * uses is not removed. */
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "hubconf.h"
#include "trapspec_writer.h"
#include "trp_format.h"

#define MAX_WRITTEN_ARCS 100

static int refused(const char *command, const char *what, int kind, const char *text) {
  const char *problem = trapTextProblem(kind, text);
  if (problem == NULL) return 0;
  fprintf(stderr, "hubconf %s: %s %s\n", command, what, problem);
  return 1;
}

static int apply_add_enterprise(const void *data, int *alerts_changed) {
  char *const *args = data;
  ObjectIdEMS oid[MAX_WRITTEN_ARCS + 1];
  unsigned long length = 0;
  enterprise_info *found = NULL;
  size_t dots = 0;
  const char *p;
  (void)alerts_changed;
  for (p = args[1]; *p != '\0'; ++p) dots += *p == '.' || *p == ' ' || *p == ',';
  if (dots > MAX_WRITTEN_ARCS || cname_to_oid(args[1], oid, &length) != 0 || length == 0 ||
      length > MAX_WRITTEN_ARCS) {
    fprintf(stderr, "hubconf add-enterprise: \"%s\" is not a dotted identifier of 1 to %d arcs\n",
            args[1], MAX_WRITTEN_ARCS);
    return 2;
  }
  find_enterprise(oid, length, &found);
  if (found != NULL && found->oid_len == length) {
    if (strcmp(found->enterprise_name, args[0]) == 0) return HUBCONF_UNCHANGED;
    printf("hubconf: enterprise %s renamed %s\n", found->enterprise_name, args[0]);
  }
  insert_enterprise(oid, length, args[0]);
  return 0;
}

static int apply_delete_enterprise(const void *data, int *alerts_changed) {
  char *const *args = data;
  enterprise_info *enterprise;
  (void)alerts_changed;
  if (name_to_enterprise(args[0], &enterprise) != 0) {
    fprintf(stderr, "hubconf delete-enterprise: no enterprise is named \"%s\"\n", args[0]);
    return 1;
  }
  if (delete_enterprise_record(enterprise) != 0) {
    fprintf(stderr, "hubconf delete-enterprise: trap formats of %s remain; delete them first\n",
            args[0]);
    return 1;
  }
  return 0;
}

static int category_slot(const char *name) {
  int slot;
  for (slot = 0; slot < EMS_MAX_CATEGORIES; ++slot)
    if (EMScategories[slot] != NULL && strcmp(EMScategories[slot], name) == 0) return slot;
  return -1;
}

static int apply_set_category(const void *data, int *alerts_changed) {
  char *const *args = data;
  char *end;
  long number = strtol(args[0], &end, 10);
  int same;
  (void)alerts_changed;
  if (end == args[0] || *end != '\0' || number < 0 || number >= EMS_MAX_CATEGORIES) {
    fprintf(stderr, "hubconf set-category: the number is 0 to %d\n", EMS_MAX_CATEGORIES - 1);
    return 2;
  }
  same = category_slot(args[1]);
  if (same == number) return HUBCONF_UNCHANGED;
  if (same >= 0) {
    fprintf(stderr, "hubconf set-category: \"%s\" is already category %d\n", args[1], same);
    return 1;
  }
  doFree(EMScategories[number]);
  EMScategories[number] = doStrdup(args[1]);
  return 0;
}

static int apply_delete_category(const void *data, int *alerts_changed) {
  char *const *args = data;
  int slot = category_slot(args[0]);
  const enterprise_info *enterprise;
  const trap_record *record;
  (void)alerts_changed;
  if (slot < 0) {
    fprintf(stderr, "hubconf delete-category: no display category is named \"%s\"\n", args[0]);
    return 1;
  }
  for (enterprise = enterprise_list_head.next; enterprise != NULL; enterprise = enterprise->next)
    for (record = enterprise->trap_rec_list_head.next; record != NULL; record = record->next)
      if (record->category_number == slot) {
        fprintf(stderr, "hubconf delete-category: trap format %s uses \"%s\"\n", record->name,
                args[0]);
        return 1;
      }
  doFree(EMScategories[slot]);
  EMScategories[slot] = NULL;
  return 0;
}

static int apply_set_action(const void *data, int *alerts_changed) {
  char *const *args = data;
  char *end;
  long wait = strtol(args[1], &end, 10);
  actionCmd *action = NULL;
  int i;
  (void)alerts_changed;
  if (end == args[1] || *end != '\0' || wait < 0 || wait > 86400) {
    fprintf(stderr, "hubconf set-action: WAIT is 0 to 86400 seconds\n");
    return 2;
  }
  for (i = 0; i < numActionCommands && action == NULL; ++i)
    if (strcmp(actionCommands[i].name, args[0]) == 0) action = &actionCommands[i];
  if (action == NULL) {
    actionCommands = doRealloc(actionCommands,
                               (unsigned)sizeof(actionCmd) * (unsigned)(numActionCommands + 1));
    action = &actionCommands[numActionCommands++];
    memset(action, 0, sizeof *action);
  } else {
    freeAction(action);
  }
  action->name = doStrdup(args[0]);
  action->cmd = doStrdup(args[2]);
  action->description = doStrdup(args[3] != NULL ? args[3] : "");
  action->waitTime = (time_t)wait;
  return 0;
}

static const struct model_command {
  const char *name, *usage;
  int min_args, max_args;
  edit_fn edit;
} model_commands[] = {
    {"add-enterprise",
     "usage: hubconf add-enterprise [--force] [--dry-run] NAME OID\n"
     "  Adds the enterprise OID (dotted) under NAME, or renames it.\n",
     2, 2, apply_add_enterprise},
    {"delete-enterprise",
     "usage: hubconf delete-enterprise [--force] [--dry-run] NAME\n"
     "  Removes the enterprise NAME, which must have no trap formats left.\n",
     1, 1, apply_delete_enterprise},
    {"set-category",
     "usage: hubconf set-category [--force] [--dry-run] NUMBER NAME\n"
     "  Names display category NUMBER (0-63); formats of that number follow.\n",
     2, 2, apply_set_category},
    {"delete-category",
     "usage: hubconf delete-category [--force] [--dry-run] NAME\n"
     "  Removes the display category NAME, which no trap format may use.\n",
     1, 1, apply_delete_category},
    {"set-action",
     "usage: hubconf set-action [--force] [--dry-run] TITLE WAIT COMMAND [DESCRIPTION]\n"
     "  Adds the operator action TITLE, or changes it: COMMAND is run, WAIT\n"
     "  seconds are allowed for it.\n",
     3, 4, apply_set_action},
};

/* Checks what the file cannot hold before the cycle locks anything. */
static int texts_refused(const char *command, char *const *args) {
  if (strcmp(command, "add-enterprise") == 0 || strcmp(command, "delete-enterprise") == 0)
    return refused(command, "the name", TRAP_TEXT_ENTERPRISE_NAME, args[0]);
  if (strcmp(command, "set-category") == 0)
    return refused(command, "the name", TRAP_TEXT_CATEGORY, args[1]);
  if (strcmp(command, "delete-category") == 0) return 0;
  return refused(command, "the title", TRAP_TEXT_ACTION_NAME, args[0]) ||
         refused(command, "the command", TRAP_TEXT_ACTION_COMMAND, args[2]) ||
         (args[3] != NULL && refused(command, "the description", TRAP_TEXT_DESCRIPTION, args[3]));
}

int hubconf_model_edit(int argc, char **argv) {
  const struct model_command *command = NULL;
  struct edit_options options = {0, 0};
  char *args[4] = {NULL, NULL, NULL, NULL};
  size_t i;
  int count;
  for (i = 0; i < sizeof model_commands / sizeof model_commands[0]; ++i)
    if (strcmp(argv[0], model_commands[i].name) == 0) command = &model_commands[i];
  if (command == NULL) return 2;
  count = hubconf_edit_args(argc, argv, command->usage, &options);
  if (count <= 0) return -count;
  if (count < command->min_args || count > command->max_args) {
    fputs(command->usage, stderr);
    return 2;
  }
  memcpy(args, argv + argc - count, sizeof(char *) * (size_t)count);
  if (texts_refused(command->name, args)) return 2;
  return hubconf_edit_cycle(command->edit, args, &options);
}
