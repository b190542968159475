/* Which configuration a tool reads: the files the library resolves from
 * the environment, or, when the user asks for them, the bundled examples
 * installed beside the tool.  C and C++ tools share it.
 *
 * The library resolves each file itself (hubd.conf from KZHUBDCONF, else
 * KZ_CONF_DIR/C/hubd.conf; vorad.conf from VORAD_CONF, else KZ_CONF_DIR;
 * the MIB labels from KZ_MIB_FILE, else KZ_CONF_DIR/mib.labels; the OID
 * names from KZ_CONF_DIR/oid_to_label).  A tool never substitutes a path
 * of its own for one the environment leaves unset. */
#ifndef TOOLS_CONFIG_FILES_H
#define TOOLS_CONFIG_FILES_H

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Points every configuration variable at the examples installed under
 * share/libevents/examples beside the tool's bin directory, overriding
 * the environment.  The examples' node lists name the platform's paths, so
 * they are read when a trap is matched rather than when the file loads.
 * Returns 0, or -1 after a message on standard error when the examples
 * are not installed there. */
int config_use_examples(void);

/* Writes one line per configuration file to `out`: its role, its path, what
 * named it, and "(missing)" when it cannot be read.  Every line starts with
 * the tool's name. */
void config_report(FILE *out);

#ifdef __cplusplus
}
#endif

#endif
