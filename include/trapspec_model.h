/* Trap configuration model: hubd.conf in memory, its lookups, inserts and
 * frees.
 *
 * The model is one process-wide set of globals: an ordered list of
 * enterprises, each owning an ordered list of trap formats; up to 64 display
 * categories; an array of operator actions; and one built-in fallback
 * format.  Everything reachable from enterprise_list_head, EMScategories and
 * actionCommands is owned by the model and released by free_all_info; its
 * blocks come from config_memory.h's routines.  Lookups hand out borrowed
 * pointers, valid until the next read or delete.
 *
 * Enterprises are kept in oidcmp order, which puts a longer identifier
 * before its own prefix, so the first enterprise matched from the head is
 * the most specific one.  Within an enterprise trap formats are sorted by
 * generic, then specific number; of one pair, those with a node list come
 * first.
 *
 * The model keeps indexes beside the lists (trap names, exact enterprise
 * identifiers, the first and the last format of each generic/specific
 * pair) so that loading, name and format lookups do not walk the whole
 * model.  They stay in step as long as
 * records enter and leave the model through the routines below: callers
 * walk the lists freely, but link, unlink and rename records only through
 * insert_enterprise, insertMallocTrapRecord, delete_enterprise_record,
 * free_trap_record, free_trap_rec_contents and free_all_info (a caller that
 * unlinks a format releases it with free_trap_record).
 *
 * A format's alert mapping (alert_mapping.h) is released with the format.
 * Not thread-safe. */
#ifndef EVENTS_TRAPSPEC_MODEL_H
#define EVENTS_TRAPSPEC_MODEL_H

#include <stdio.h>
#include <time.h>

#include "asn1.h"
#include "config_memory.h"
#include "events_export.h"
#include "format_compiler.h"

EVENTS_BEGIN_DECLS

/* Bytes of a trap name, terminator included (39 characters are kept). */
#define TRAP_NAME_SIZE 40
/* Bytes of the longest line of hubd.conf, and of the node source-list files
 * it names, terminator included. */
#define TRAPSPEC_LINE_SIZE 51200
/* Display category numbers 0 to EMS_MAX_CATEGORIES - 1. */
#define EMS_MAX_CATEGORIES 64

/* The slot mapping of a trap format: slotVal[i] is the value text of the
 * slot named slotName[i]. */
typedef struct {
  int slotCnt;
  char **slotName;
  char **slotVal;
} wbxSlotMapping;

/* The alert mapping of a trap, read from the alert mapping file. */
struct alert_record;

/* One configured trap format. */
typedef struct trap_record {
  struct trap_record *next;  /* next format of the same enterprise */
  char name[TRAP_NAME_SIZE]; /* unique across the model */
  int nodeCnt;               /* 0: the format applies to every node */
  char **nodeList;           /* node names, or "/path" source-list files */
  char *trapDescription;     /* long description, or NULL */
  int generic_trap;
  int specific_trap;
  char *category_name; /* not owned; never filled by the configuration code */
  int category_number; /* index into EMScategories */
  char source;         /* one-character source code */
  int severity;
  int status;
  int forward; /* non-zero: forward the event */
  trap_element description; /* the event-log format */
  char *exec_prog;          /* never filled by the configuration code */
  trap_element *execargs_ptr;          /* EXEC command, or NULL */
  char *exec_display_prog;             /* never filled by the configuration code */
  trap_element *exec_display_args_ptr; /* DISPLAY message, or NULL */
  char alert_record_name[TRAP_NAME_SIZE];
  struct alert_record *alert_element; /* alert mapping, or NULL */
  char *wbxClassName;                 /* EVENT_CLASS text, or NULL */
  wbxSlotMapping *slotMap;            /* slot mapping, or NULL */
} trap_record;

/* One configured enterprise.  Only trap_rec_list_head.next is used: it is
 * the first trap format of the enterprise. */
typedef struct enterprise_info {
  struct enterprise_info *next;
  char *enterprise_name;
  unsigned long oid_len;
  ObjectIdEMS *enterprise_oid;
  trap_record trap_rec_list_head;
} enterprise_info;

/* One operator action. */
typedef struct {
  char *name;
  char *description;
  time_t waitTime; /* seconds */
  char *cmd;
} actionCmd;

/* The model.  Only enterprise_list_head.next is used.  EMScategories[n]
 * names category n (0 to 63; the 65th slot is never used). */
EVENTS_EXPORT extern enterprise_info enterprise_list_head;
EVENTS_EXPORT extern trap_record default_trap_record;
EVENTS_EXPORT extern char *EMScategories[EMS_MAX_CATEGORIES + 1];
EVENTS_EXPORT extern actionCmd *actionCommands;
EVENTS_EXPORT extern int numActionCommands;

/* File keywords, shared by the reader and the writer.  A host application
 * may point them at other texts (or change the texts in place) before a
 * read; each read takes their lengths anew. */
EVENTS_EXPORT extern char *execKeyword;       /* "EXEC" */
EVENTS_EXPORT extern char *displayKeyword;    /* "DISPLAY" */
EVENTS_EXPORT extern char *forwardKeyword;    /* "FORWARD" */
EVENTS_EXPORT extern char *nodesKeyword;      /* "NODES" */
EVENTS_EXPORT extern char *sdescKeyword;      /* "SDESC" */
EVENTS_EXPORT extern char *edescKeyword;      /* "EDESC" */
EVENTS_EXPORT extern char *actionKeyword;     /* "ACTION" */
EVENTS_EXPORT extern char *categoryKeyword;   /* "CATEGORY" */
EVENTS_EXPORT extern char *eventclassKeyword; /* "EVENT_CLASS" */
EVENTS_EXPORT extern char *smapKeyword;       /* "BEGIN_SLOT_MAPPING" */
EVENTS_EXPORT extern char *emapKeyword;       /* "END_SLOT_MAPPING" */

/* The configuration file name.  getHubdConfFile returns the stored name,
 * building it on first use from the environment variable KZHUBDCONF or
 * "<configuration directory>/C/hubd.conf".  setHubdConfFile stores a copy
 * of `filename` (NULL or "" forgets the stored name).  fopenConfFile opens
 * the file with `access_mode` and stores its name in *conffileptr; NULL
 * and errno on failure. */
EVENTS_EXPORT void setHubdConfFile(const char *filename);
EVENTS_EXPORT const char *getHubdConfFile(void);
EVENTS_EXPORT FILE *fopenConfFile(const char *access_mode, const char **conffileptr);

/* Lookups.
 * find_enterprise: the first enterprise in list order whose identifier is
 *   a prefix of (or equal to) the given one, i.e. the longest configured
 *   prefix; NULL if none.  find_enterprise_relative: the same search
 *   starting at *enterprise_ptr_ptr (inclusive).
 * findExactTrapRecord: the first format of the enterprise with exactly these
 *   numbers whose node list matches `nodename` (NULL matches only formats
 *   without a node list); no wildcard is applied.
 * trapRecNodesMatch: 1 when the format has no node list or `nodename` is in
 *   it (directly or in a "/path" source-list file), else 0.  A source-list
 *   file that cannot be opened ends the search with 0.
 * nameToTrapAndEnterprise: 0 and both pointers set when a format of that
 *   name exists, else -1 and both NULL.  nameToExactTrap: the format or NULL.
 * oid_to_name: the name of find_enterprise(oid) into buf; -1 when buflen is
 *   not positive, nothing matches or the name does not fit (buf is then "").
 * oidcmp: 0 when equal; a longer identifier sorts before its own prefix;
 *   otherwise the difference of the first differing arcs. */
EVENTS_EXPORT void find_enterprise(ObjectIdEMS *enterprise_oid, unsigned long enterprise_oidlen,
                                   enterprise_info **enterprise_ptr_ptr);
EVENTS_EXPORT void find_enterprise_relative(ObjectIdEMS *enterprise_oid,
                                            unsigned long enterprise_oidlen,
                                            enterprise_info **enterprise_ptr_ptr);
EVENTS_EXPORT trap_record *findExactTrapRecord(enterprise_info *enterprise_info_ptr,
                                               int generic_trap, int specific_trap,
                                               const char *nodename);
EVENTS_EXPORT int trapRecNodesMatch(trap_record *trap_rec_ptr, const char *nodename);
EVENTS_EXPORT int nameToTrapAndEnterprise(const char *trapName, trap_record **trap_rec_ptrPtr,
                                          enterprise_info **enterprise_ptrPtr);
EVENTS_EXPORT trap_record *nameToExactTrap(const char *trapName);
EVENTS_EXPORT int oid_to_name(ObjectIdEMS *oid, unsigned long oid_len, char *buf, int buflen);
EVENTS_EXPORT int oidcmp(unsigned *oid1, unsigned *oid2, unsigned long oidlen1,
                         unsigned long oidlen2);

/* Inserts.
 * insert_enterprise adds an enterprise with copies of the identifier and
 *   name at its place in oidcmp order; an identifier already configured
 *   only renames that enterprise.
 * insertMallocTrapRecord adds a trap format, or updates the one of the same
 *   enterprise, numbers and node (see below), and returns it.  A new format
 *   gets a unique name: "name", else "name_1", "name_2", ... cut to fit 39
 *   characters.  Ownership of nodeList (array and strings), rawEventLogMsg,
 *   rawExecCmd, rawDisplayMsg, trapDescription and the strings of slotNames
 *   and slotVals passes to the model (the slotNames and slotVals arrays stay
 *   the caller's); trapname and eventClass are copied.  An update keeps the
 *   record's node list, event class and slot mapping, releases the ones
 *   given, renames the record and recompiles its formats. */
EVENTS_EXPORT void insert_enterprise(ObjectIdEMS *oid, unsigned long oid_len,
                                     const char *enterprise_name);
EVENTS_EXPORT trap_record *insertMallocTrapRecord(
    enterprise_info *enterprise_ptr, char *trapname, int generic, int specific, int nodeCnt,
    char **nodeList, int cat_num, int source_char, char *rawEventLogMsg, char *rawExecCmd,
    char *rawDisplayMsg, char *trapDescription, int severity_flag, int status_flag, int forward,
    char *eventClass, int slotCnt, char **slotNames, char **slotVals);

/* Deletes and frees.
 * delete_enterprise_record: unlinks and releases an enterprise without
 *   formats; -1 (nothing changed) when it has formats or is not listed.
 * free_trap_record: releases a format that the caller has unlinked;
 *   default_trap_record is left alone.  free_trap_rec_contents releases
 *   what a format owns (its alert mapping too) and empties its name;
 *   free_trap_rec_slot_map_data its slot mapping.
 * free_enterprise releases an enterprise with all its formats (the caller
 *   unlinks it).  freeAction releases one action's texts; freeAllActions
 *   every action.  free_all_info empties the whole model (categories and
 *   actions too); default_trap_record survives. */
EVENTS_EXPORT int delete_enterprise_record(enterprise_info *enterprise_ptr);
EVENTS_EXPORT void free_trap_record(trap_record *trap_rec_ptr);
EVENTS_EXPORT void free_trap_rec_contents(trap_record *trap_rec_ptr);
EVENTS_EXPORT void free_trap_rec_slot_map_data(trap_record *trap_rec_ptr);
EVENTS_EXPORT void free_enterprise(enterprise_info *enterprise_ptr);
EVENTS_EXPORT void freeAction(actionCmd *action);
EVENTS_EXPORT void freeAllActions(void);
EVENTS_EXPORT void free_all_info(void);

EVENTS_END_DECLS

#endif
