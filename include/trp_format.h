/* Trap configuration: the in-memory model of hubd.conf, the format-string
 * compiler and the configuration file reader.
 *
 * The model is one process-wide set of globals: an ordered list of
 * enterprises, each owning an ordered list of trap formats; up to 64 display
 * categories; an array of operator actions; and one built-in fallback
 * format.  Everything reachable from enterprise_list_head, EMScategories and
 * actionCommands is owned by the model and released by free_all_info.
 * Lookups hand out borrowed pointers, valid until the next read or delete.
 *
 * Enterprises are kept in oidcmp order, which puts a longer identifier
 * before its own prefix, so the first enterprise matched from the head is
 * the most specific one.  Within an enterprise trap formats are sorted by
 * generic, then specific number; of one pair, those with a node list come
 * first.
 *
 * The model keeps indexes beside the lists (trap names, exact enterprise
 * identifiers, the last format of each generic/specific pair) so that
 * loading and name lookups do not walk the whole model.  They stay in step as long as
 * records enter and leave the model through the routines below: callers
 * walk the lists freely, but link, unlink and rename records only through
 * insert_enterprise, insertMallocTrapRecord, delete_enterprise_record,
 * free_trap_record, free_trap_rec_contents and free_all_info (a caller that
 * unlinks a format releases it with free_trap_record).
 *
 * Allocation failure anywhere in the configuration code prints
 * "malloc(%d) failed in file %s." on standard error and ends the process
 * with status 1; no routine reports it.  Not thread-safe. */
#ifndef EVENTS_TRP_FORMAT_H
#define EVENTS_TRP_FORMAT_H

#include <stdio.h>
#include <time.h>

#include "asn1.h"
#include "events_export.h"

EVENTS_BEGIN_DECLS

/* Kinds of "$" reference in a format string, in the order of their values. */
typedef enum {
  ARG_A = 0,         /* $A  agent host name */
  ARG_a = 1,         /* $a  agent address */
  ARG_C = 2,         /* $C  community */
  ARG_E = 3,         /* $E  enterprise with names */
  ARG_e = 4,         /* $e  enterprise as numbers */
  ARG_G = 5,         /* $G  generic number */
  ARG_S = 6,         /* $S  specific number */
  ARG_SX = 7,        /* $s  severity */
  ARG_CONTACT = 8,   /* $c  contact */
  ARG_LOCATION = 9,  /* $l  location */
  ARG_DESC = 10,     /* $d  description */
  ARG_T = 11,        /* $T  time-stamp */
  ARG_STAR = 12,     /* $*  every binding */
  ARG_NUM = 13,      /* $n  binding n */
  ARG_NUM_DEF = 14,  /* $-n */
  ARG_NUM_PLUS = 15, /* $+n */
  ARG_NUM_EQ = 16,   /* $=n */
  ARG_NUM_I = 17,    /* $In */
  ARG_NUM_i = 18,    /* $in */
  ARG_NUM_t = 19,    /* $tn */
  ARG_POUND = 20,    /* $#  number of bindings */
  ARG_NUM_L = 21,    /* $Ln */
  ARG_NUM_KWM = 22   /* $%n code-point binding */
} substitute_arg;

/* Most arguments a compiled format records; at most TRAP_MAX_REFERENCES
 * references are compiled, later ones stay literal. */
#define TRAP_MAX_ARGS 80
#define TRAP_MAX_REFERENCES 79
/* Bytes of a trap name, terminator included (39 characters are kept). */
#define TRAP_NAME_SIZE 40
/* Display category numbers 0 to EMS_MAX_CATEGORIES - 1. */
#define EMS_MAX_CATEGORIES 64
/* Size of the reader's error text buffer. */
#define TRAPSPEC_ERROR_SIZE 200

/* One "$" reference: arg_num is the number written after the kind (0 for
 * kinds without one). */
typedef struct {
  int arg_num;
  substitute_arg arg_type;
} trap_arg;

/* A compiled format string.  `format` is the text after escape
 * interpretation with every compiled reference replaced by "%s" and literal
 * percent signs doubled (a percent sign produced by an escape, or copied
 * right after one, stays single); arg_list[i] describes the i-th "%s".
 * `rawstring` is the text as written in the file, or NULL when
 * trpFormatDontMallocRaw was set at compile time. */
typedef struct {
  char *rawstring;
  char *format;
  int num_args;
  trap_arg arg_list[TRAP_MAX_ARGS];
} trap_element;

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

/* Switches.  have_read_hubdconf is set when a read reaches the end of the
 * file without error.  trace_hubdconf: the reader reports its progress on
 * the trace log.  trpFormatDontMallocDesc: trap descriptions are not kept.
 * trpFormatDontMallocRaw: compiled formats do not keep their source text.
 * trpFormatExpandSourceFiles (default 1): a NODES entry "/path" is replaced
 * at read time by the nodes listed in that file; when 0 the path is kept and
 * the file is read at match time. */
EVENTS_EXPORT extern int have_read_hubdconf;
EVENTS_EXPORT extern int trace_hubdconf;
EVENTS_EXPORT extern int trpFormatDontMallocDesc;
EVENTS_EXPORT extern int trpFormatDontMallocRaw;
EVENTS_EXPORT extern int trpFormatExpandSourceFiles;

/* File keywords.  A host application may point them at other texts (or
 * change the texts in place) before a read; each read takes their lengths
 * anew. */
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

/* Default category names.  When the reader leaves the category section it
 * gives exactly one default: the first still empty slot in the order 9, 7,
 * 2, 0, 1, 3, 4, 5 receives its name below. */
EVENTS_EXPORT extern char *threshCatString;     /* slot 0 "Threshold Events" */
EVENTS_EXPORT extern char *nettopCatString;     /* slot 1 "Network Topology Events" */
EVENTS_EXPORT extern char *errorCatString;      /* slot 2 "Error Events" */
EVENTS_EXPORT extern char *statusCatString;     /* slot 3 "Status Events" */
EVENTS_EXPORT extern char *nodeconfCatString;   /* slot 4 "Node Configuration Events" */
EVENTS_EXPORT extern char *applalertCatString;  /* slot 5 "Application Alert Events" */
EVENTS_EXPORT extern char *logOnlyCatString;    /* slot 7 "LOGONLY" */
EVENTS_EXPORT extern char *ignoreCatString;     /* slot 9 "IGNORE" */

/* Memory.  doMalloc returns a zero-filled block; doRealloc does not clear
 * the grown part; doStrdup copies into a block of strlen(s) + 2 bytes;
 * doFree ignores NULL.  None of them returns on allocation failure. */
EVENTS_EXPORT void *doMalloc(unsigned size);
EVENTS_EXPORT void *doRealloc(void *ptr, unsigned size);
EVENTS_EXPORT char *doStrdup(const char *s);
EVENTS_EXPORT void doFree(const void *p);

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
 *   what a format owns and empties its name; free_trap_rec_slot_map_data
 *   its slot mapping.
 * free_enterprise releases an enterprise with all its formats (the caller
 *   unlinks it).  freeTrapElementContents releases a compiled format's
 *   texts; freeOptTrapElement also the element block (NULL is ignored).
 *   freeAction releases one action's texts; freeAllActions every action.
 *   free_all_info empties the whole model (categories and actions too);
 *   default_trap_record survives. */
EVENTS_EXPORT int delete_enterprise_record(enterprise_info *enterprise_ptr);
EVENTS_EXPORT void free_trap_record(trap_record *trap_rec_ptr);
EVENTS_EXPORT void free_trap_rec_contents(trap_record *trap_rec_ptr);
EVENTS_EXPORT void free_trap_rec_slot_map_data(trap_record *trap_rec_ptr);
EVENTS_EXPORT void free_enterprise(enterprise_info *enterprise_ptr);
EVENTS_EXPORT void freeTrapElementContents(trap_element *trap_ele_ptr);
EVENTS_EXPORT void freeOptTrapElement(trap_element *trap_ele_ptr);
EVENTS_EXPORT void freeAction(actionCmd *action);
EVENTS_EXPORT void freeAllActions(void);
EVENTS_EXPORT void free_all_info(void);

/* Format-string compiler.
 * makeFormatString compiles `rawstring` into *trap_ele_ptr and takes
 *   ownership of it (releasing it at once under trpFormatDontMallocRaw).
 *   The element's previous texts are released.  A source longer than 4094
 *   bytes compiles the text "Format string too long" instead.
 * interpret_esc_sequences writes the escape-interpreted text of src_str,
 *   literal percent signs doubled, into dst_str, which must hold
 *   2 * strlen(src_str) + 1 bytes.
 * suck_a_char removes the character (one or two bytes) at c from its
 *   string. */
EVENTS_EXPORT void makeFormatString(char *rawstring, trap_element *trap_ele_ptr);
EVENTS_EXPORT void interpret_esc_sequences(char *src_str, char *dst_str);
EVENTS_EXPORT void suck_a_char(char *c);

/* Reading hubd.conf.
 * read_trapspec_file replaces the model (its categories and actions too,
 *   unless no enterprise was configured) by the contents of
 *   getHubdConfFile().  0 on success; -1 on failure with the reason and the
 *   offending line in the library's error text.  *errstring_ptr always
 *   points to that text (TRAPSPEC_ERROR_SIZE bytes, "" on success), valid
 *   until the next read.  A failed read leaves what was read before the
 *   offending line in the model.
 * augmentTrapspecFile reads another file of the same form on top of the
 *   model; it has its own error text.
 * Both read regular files only, and the source lists named in NODES too: a
 *   directory, a FIFO or a file whose read fails gives "Could not read
 *   "PATH": REASON" without waiting for a writer. */
EVENTS_EXPORT int read_trapspec_file(char **errstring_ptr);
EVENTS_EXPORT int augmentTrapspecFile(char **errstring_ptr, const char *newfile);

/* Steps of the reader, for hosts that read from a stream of their own.
 * The section readers return 0 (line taken), 1 (line belongs to the next
 * section) or a negative value (error text in errmem, which holds
 * TRAPSPEC_ERROR_SIZE bytes).  `rawline` is a line buffer of
 * TRAPSPEC_LINE_SIZE bytes that the trap reader reuses for the lines that
 * follow. */
#define TRAPSPEC_LINE_SIZE 51200
EVENTS_EXPORT int doReadTrapspecFile(FILE *fp, const char *conffile, char *errmem);
EVENTS_EXPORT int readCategory(char *c, const char *conffile, char *errmem, int line_number);
EVENTS_EXPORT int readActions(FILE *fp, char *c, const char *conffile, char *errmem,
                              int *lineNumberPtr);
EVENTS_EXPORT int readEnterprise(char *c, const char *conffile, char *errmem, int line_number);
EVENTS_EXPORT int readTrapSpecInfo(FILE *fp, char *rawline, const char *conffile, char *errmem,
                                   int *lineNumberPtr);
EVENTS_EXPORT int mallocAndReadDescription(char **descriptionPtr, char *rawline, FILE *fp,
                                           const char *conffile, char *errmem,
                                           int *lineNumberPtr);
/* Reads the next significant line into rawline; 0, or -1 at the end of the
 * file (error text naming lastKeyword) or on a line error. */
EVENTS_EXPORT int getNextLine(const char *lastKeyword, char *rawline, int maxinput, FILE *fp,
                              const char *conffile, int *lineNumberPtr, char *errmem);
/* Appends " in line #N of "file":\n<line>.\n" to errmem, within its size. */
EVENTS_EXPORT void appendLineInfo(char *errmem, int line, const char *conffile,
                                  const char *rawline);
/* Appends a copy of `node` to *nodeList, growing it by 20 entries at a time. */
EVENTS_EXPORT void trpFmtAddSourceToList(int *nodeCnt, int *listLen, char ***nodeList,
                                         const char *node);

EVENTS_END_DECLS

#endif
