/* Format-string compiler: a configured format ("Port $1 down on $A")
 * becomes a template with one "%s" per "$" reference and the list of trap
 * data the placeholders stand for, so that formatting a trap is one
 * left-to-right fill.
 *
 * A compiled format owns its texts; they come from config_memory.h's
 * routines and are released by freeTrapElementContents.  The compiler calls
 * nothing above the memory routines and the message catalog.
 * Not thread-safe. */
#ifndef EVENTS_FORMAT_COMPILER_H
#define EVENTS_FORMAT_COMPILER_H

#include "config_memory.h"
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

/* Non-zero: compiled formats do not keep their source text. */
EVENTS_EXPORT extern int trpFormatDontMallocRaw;

/* makeFormatString compiles `rawstring` into *trap_ele_ptr and takes
 *   ownership of it (releasing it at once under trpFormatDontMallocRaw).
 *   The element's previous texts are released.  A source longer than 4094
 *   bytes compiles the text "Format string too long" instead.
 * interpret_esc_sequences writes the escape-interpreted text of src_str,
 *   literal percent signs doubled, into dst_str.
 * suck_a_char removes the character (one or two bytes) at c from its
 *   string.
 * freeTrapElementContents releases a compiled format's texts;
 *   freeOptTrapElement also the element block (NULL is ignored).
 * REQUIRES: rawstring (when not NULL) is a block of config_memory.h's;
 *   dst_str holds 2 * strlen(src_str) + 1 bytes. */
EVENTS_EXPORT void makeFormatString(char *rawstring, trap_element *trap_ele_ptr);
EVENTS_EXPORT void interpret_esc_sequences(char *src_str, char *dst_str);
EVENTS_EXPORT void suck_a_char(char *c);
EVENTS_EXPORT void freeTrapElementContents(trap_element *trap_ele_ptr);
EVENTS_EXPORT void freeOptTrapElement(trap_element *trap_ele_ptr);

EVENTS_END_DECLS

#endif
