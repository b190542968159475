/* Trap configuration and trap formatting, all in one include: the memory
 * routines (config_memory.h), the error texts (config_error.h), the
 * format-string compiler (format_compiler.h), the model of hubd.conf
 * (trapspec_model.h), its reader (trapspec_reader.h), the formatter
 * (trap_formatter.h) and the value printers (value_format.h).  Each of
 * those headers opens with its own contract and compiles alone. */
#ifndef EVENTS_TRP_FORMAT_H
#define EVENTS_TRP_FORMAT_H

#include "config_error.h"
#include "config_memory.h"
#include "format_compiler.h"
#include "trap_formatter.h"
#include "trapspec_model.h"
#include "trapspec_reader.h"
#include "value_format.h"

#endif
