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
 * identifiers, the first and the last format of each generic/specific
 * pair) so that loading, name and format lookups do not walk the whole
 * model.  They stay in step as long as
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
#include "snmp.h"

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
  ARG_SX = 7,        /* $s  specific number in hexadecimal */
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

/* Trap formatting: a received trap becomes display text by its configured
 * format, laid out as lines for the kind of application that asks.
 *
 * On first use trp_format loads the MIB labels, hubd.conf and the OID name
 * tree ("oid_to_label" in the configuration directory); the notices that
 * the format file (50790438) or the MIB (50790439) changed make the next
 * call load them again.  Templates are data: the compiled format is filled
 * by the library's own substitution, never used as a printf format.  Host
 * names of agents and IpAddress values come from the resolver through a
 * cache of answers, found and not found (KZ_HOST_CACHE_TTL seconds, default
 * 300; 0 asks the resolver every time).  Not thread-safe. */
typedef enum {
  QMWEVENT_USER = 0, /* the operator's event display */
  HUBD_USER = 1,     /* the trap daemon's log */
  RQV_USER = 2,      /* the event-log adapter */
  ZXEVENTS_USER = 3, /* the product's own event display */
  WBX_USER = 4       /* the enterprise console adapter */
} rtrap_user;

/* Load flags of the formatter; clearing one makes the next trp_format load
 * that part again.  getOidToLabelFile returns the path of the OID name file
 * the formatter loads, as the environment names it now (static text, valid
 * until the next call); the MIB label file is KZmib_get_mib_filename's. */
EVENTS_EXPORT extern int have_read_mibtxt;
EVENTS_EXPORT extern int have_read_mappings;
EVENTS_EXPORT const char *getOidToLabelFile(void);

/* trp_format appends the lines of one trap to the NUL-terminated text in
 * `buffer` (max_buffer_len bytes in all), points *host_name at the host
 * text (a static buffer, overwritten by the next call) and returns the
 * trap's category; -1 when the trap is not shown to this kind of
 * application; -2 when the buffer ran out of room (the lines written so far
 * stay); 2 when the MIB or the configuration cannot be loaded (the reason
 * replaces the text in `buffer`).  A non-zero logTime replaces the current
 * time in the lines.
 * REQUIRES: `vars` holds sti_ptr->vars bindings; sti_ptr->maxvars is the
 * array's capacity (a reference to the binding just past the last one reads
 * that slot only when it lies within the capacity). */
EVENTS_EXPORT int trp_format(rtrap_user user_module, snmp_trap_infoEMS *sti_ptr, char *buffer,
                             int max_buffer_len, SnmpVarBindEMS *vars, char **host_name,
                             time_t logTime);

/* trap_sprintf fills a compiled format into `buf` (`size` bytes): each "%s"
 * of the template takes the next argument text, "%%" becomes "%", anything
 * else is copied as it stands.  A text of `size` bytes or more is replaced
 * by a size error.  format_arg renders one binding argument (arg_num counts
 * from 1) into `buffer`.  contact, location and description may be NULL. */
EVENTS_EXPORT void trap_sprintf(char *buf, int size, trap_element *trap_ele_ptr,
                                snmp_trap_infoEMS *sti_ptr, SnmpVarBindEMS *vars, char *contact,
                                char *location, char *description);
EVENTS_EXPORT void format_arg(int arg_num, substitute_arg arg_type, snmp_trap_infoEMS *sti_ptr,
                              char *buffer, int buflen, SnmpVarBindEMS *vars);

/* find_trap_format picks the format of a trap: the exact format of the most
 * specific configured enterprise, else that enterprise's wildcard formats
 * (generic number -1) whose node list matches `hostname`, then the same in
 * each less specific enterprise; default_trap_record with a NULL enterprise
 * when nothing matches. */
EVENTS_EXPORT void find_trap_format(ObjectIdEMS *enterprise_oid, unsigned int enterprise_oidlen,
                                    unsigned int generic_trap, unsigned int specific_trap,
                                    trap_record **trap_rec_ptr_ptr,
                                    enterprise_info **enterprise_ptr_ptr, char *hostname);

/* Enterprise tests on the leading arcs of an enterprise identifier; each is
 * 0 for NULL.  isTrapJQ: a platform event (enterprise-specific trap of the
 * platform's event enterprise with bit 25 of `specific` set or `specific`
 * in 1001 to 2000).
 * REQUIRES: a non-null identifier holds at least the arcs compared (9 for
 * isTrapJQ and isZXEnterprise, 8 for isDKREnterprise, 7 for
 * isFVNEnterprise). */
EVENTS_EXPORT int isTrapJQ(int generic, unsigned int specific, ObjectIdEMS *enterprise);
EVENTS_EXPORT int isZXEnterprise(ObjectIdEMS *oid);
EVENTS_EXPORT int isDKREnterprise(ObjectIdEMS *oid);
EVENTS_EXPORT int isFVNEnterprise(ObjectIdEMS *oid);

/* Value printers.  Each writes a NUL-terminated text into a buffer of
 * `buflen` bytes (terminator included), never more, and never fails: a
 * value that does not fit is shortened or left out.
 * formatValue: a binding's value (enumeration name from the OID name tree,
 *   number, text, host name, label path).  formatKind: its type name
 *   (empty when buflen < 30).  formatOctetString: text, or "0x" and
 *   hexadecimal pairs when the string is mostly unprintable (any
 *   unprintable character with strictHex set).  formatCommunity: the trap's
 *   community by the same rule.
 * formatObjectID appends an identifier at *buf_ptr, advancing it and
 *   lowering *buflenptr: with printName a label path without the
 *   ".iso.org.dod.internet." part (the last 50 characters at most), else
 *   the configured enterprise name and the remaining arcs, else dotted
 *   numbers.
 * formatEnterprise: the trap's enterprise by name (as_string) or number.
 * stringToSeverity / severityToString: severities 0 "Cleared" to
 *   5 "Major"; an unknown name gives 0, an unknown number "Unknown".
 * trpFmtSprintNodes: the node list of a format on one line, cut with
 *   "..." when it does not fit; trpAllSourcesStr when it has none. */
EVENTS_EXPORT extern int strictHex;
EVENTS_EXPORT extern char *trpAllSourcesStr;
EVENTS_EXPORT void formatValue(char *buf, int buflen, SnmpVarBindEMS *var);
EVENTS_EXPORT void formatKind(char *buf, int buflen, SnmpVarBindEMS *var);
EVENTS_EXPORT void formatOctetString(char *buf, int buflen, unsigned char *oct, int len);
EVENTS_EXPORT void formatCommunity(char *buf, int buflen, snmp_trap_infoEMS *sti_ptr);
EVENTS_EXPORT void formatObjectID(char **buf_ptr, int *buflenptr, ObjectIdEMS *obj,
                                  unsigned int len, long printName);
EVENTS_EXPORT void formatEnterprise(char *buf, int buflen, snmp_trap_infoEMS *sti_ptr,
                                    int as_string);
EVENTS_EXPORT int stringToSeverity(const char *severityString);
EVENTS_EXPORT char *severityToString(int severity);
EVENTS_EXPORT void trpFmtSprintNodes(trap_record *trap_rec_ptr, char *sourceBuf, int sourceBufLen);

EVENTS_END_DECLS

#endif
