/* Linkage and visibility shared by every public header of libevents.
 *
 * The library is built with hidden visibility; only names marked
 * EVENTS_EXPORT are part of its interface.  Every declaration sits inside
 * EVENTS_BEGIN_DECLS / EVENTS_END_DECLS so that C and C++ callers link the
 * same unmangled names. */
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
