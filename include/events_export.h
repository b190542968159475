/* Linkage and visibility shared by every public header of libevents.
 *
 * The library is built with hidden visibility; only names marked
 * EVENTS_EXPORT are part of its interface.  Every declaration sits inside
 * EVENTS_BEGIN_DECLS / EVENTS_END_DECLS so that C and C++ callers link the
 * same unmangled names.
 *
 * Beside net-snmp.  A program that also includes net-snmp's headers
 * defines EVENTS_BESIDE_NETSNMP before including any libevents header.
 * libevents then leaves out the names net-snmp defines too: the type
 * `oid` (net-snmp's is wider; libevents' prototypes use ObjectIdEMS), the
 * ASN_ type-octet macros (net-snmp's have the same values, so include
 * net-snmp's headers as well) and snmp_parse, a function both libraries
 * export with different arguments (see the README on linking both). */
#ifndef EVENTS_EXPORT_H
#define EVENTS_EXPORT_H

#define EVENTS_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
#define EVENTS_BEGIN_DECLS extern "C" {
#define EVENTS_END_DECLS }
#else
#define EVENTS_BEGIN_DECLS
#define EVENTS_END_DECLS
#endif

/* Compile-time check of a record layout, in C11 and C++ alike. */
#ifdef __cplusplus
#define EVENTS_STATIC_ASSERT(cond, message) static_assert(cond, message)
#else
#define EVENTS_STATIC_ASSERT(cond, message) _Static_assert(cond, message)
#endif

#endif
