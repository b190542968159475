#include "config_files.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "alert_mapping.h"
#include "cli.h"
#include "kz_mib.h"
#include "kz_platform.h"
#include "trp_format.h"

/* EXAMPLES_FROM_BINDIR is the examples' directory relative to the installed
 * bin directory; the build tree mirrors that layout. */
static int examples_dir(char dir[PATH_MAX]) {
  char exe[PATH_MAX], joined[2 * PATH_MAX];
  ssize_t length = readlink("/proc/self/exe", exe, sizeof exe - 1);
  char *slash;
  if (length <= 0) return -1;
  exe[length] = '\0';
  slash = strrchr(exe, '/');
  if (slash == NULL) return -1;
  *slash = '\0';
  snprintf(joined, sizeof joined, "%s/%s", exe, EXAMPLES_FROM_BINDIR);
  return realpath(joined, dir) != NULL && access(dir, R_OK | X_OK) == 0 ? 0 : -1;
}

static void set_path(const char *variable, const char *dir, const char *name) {
  char path[PATH_MAX + 32];
  snprintf(path, sizeof path, "%s/%s", dir, name);
  setenv(variable, path, 1);
}

int config_use_examples(void) {
  char dir[PATH_MAX];
  if (examples_dir(dir) != 0) {
    fprintf(stderr, "%s: --examples: the bundled examples are not installed beside this program\n",
            cli_name());
    return -1;
  }
  setenv("KZ_CONF_DIR", dir, 1);
  set_path("KZHUBDCONF", dir, "hubd.conf");
  set_path("VORAD_CONF", dir, "vorad.conf");
  set_path("KZ_MIB_FILE", dir, "mib.labels");
  setHubdConfFile(NULL);
  trpFormatExpandSourceFiles = 0;
  return 0;
}

/* What named `path`: the variable that holds it, else the configuration
 * directory (and whether that came from KZ_CONF_DIR). */
static const char *origin(const char *path, const char *variable) {
  const char *value = variable != NULL ? getenv(variable) : NULL;
  if (value != NULL && *value != '\0' && strcmp(value, path) == 0) return variable;
  if (strncmp(path, _KZconfDirName(), strlen(_KZconfDirName())) != 0) return "given";
  return getenv("KZ_CONF_DIR") != NULL ? "KZ_CONF_DIR" : "default directory";
}

static void report_file(FILE *out, const char *role, const char *path, const char *variable) {
  fprintf(out, "%s: %-11s %s (%s)%s\n", cli_name(), role, path, origin(path, variable),
          access(path, R_OK) == 0 ? "" : " (missing)");
}

void config_report(FILE *out) {
  report_file(out, "hubd.conf", getHubdConfFile(), "KZHUBDCONF");
  report_file(out, "vorad.conf", getVoradConfFile(), "VORAD_CONF");
  report_file(out, "MIB labels", KZmib_get_mib_filename(), "KZ_MIB_FILE");
  report_file(out, "OID names", getOidToLabelFile(), NULL);
}
