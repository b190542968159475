/* A second process on the event channel, for the JetStream tests and the
 * channel benchmark: it must not be a fork of a process whose NATS client
 * already runs threads.  URL is a nats:// URL, or else the path of a hub's
 * Unix socket.
 *   jetstream_peer send URL COUNT     sends the sample trap COUNT times,
 *                                     numbered 0 to COUNT-1, then closes
 *   jetstream_peer take URL COUNT     takes COUNT numbered traps, prints
 *                                     their numbers, and dies by SIGKILL
 *                                     without closing */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "event.h"

static event_infoEMS open_stream(const char *url) {
  event_infoEMS ei;
  int attempts = 0;
  memset(&ei, 0, sizeof ei);
  int trans = strncmp(url, "nats://", 7) == 0 ? EVENT_TRANS_JETSTREAM : EVENT_TRANS_UNIX;
  while (open_event(&ei, 13, url, trans) < 0) {
    if (++attempts == 100) exit(1);
    usleep(200000);
  }
  return ei;
}

static void sample(snmp_trap_infoEMS *trap, SnmpVarBindEMS *var, uint32_t number) {
  static const ObjectIdEMS enterprise[] = {1, 3, 6, 1, 4, 1, 49999, 6, 3, 2};
  memset(trap, 0, sizeof *trap);
  memset(var, 0, sizeof *var);
  memcpy(trap->community, "public", 6);
  trap->clen = 6;
  memcpy(trap->enterprise, enterprise, sizeof enterprise);
  trap->elen = 10;
  trap->gen = 6;
  trap->specific = number;
  trap->vars = 1;
  trap->maxvars = 1;
  memcpy(var->oid, enterprise, sizeof enterprise);
  var->oid_length = 10;
  var->type = 0x02;
  var->val.integer = (int32_t)number;
  var->val_len = 4;
}

int main(int argc, char **argv) {
  long count;
  if (argc != 4) return 2;
  count = atol(argv[3]);
  event_infoEMS ei = open_stream(argv[2]);
  if (strcmp(argv[1], "send") == 0) {
    snmp_trap_infoEMS trap;
    SnmpVarBindEMS var;
    for (long i = 0; i < count; ++i) {
      sample(&trap, &var, (uint32_t)i);
      while (send_trap(&ei, &trap, &var) != 0) usleep(10000);
    }
    close_event(&ei);
    return 0;
  }
  for (long taken = 0; taken < count;) {
    snmp_trap_infoEMS trap;
    SnmpVarBindEMS vars[4];
    snmp_trap_reset_capacities(&trap, 4);
    if (recv_event(&ei, &trap, vars) <= 0) return 1;
    if (trap.elen != 10 || trap.enterprise[9] != 2) continue;
    printf("%u\n", trap.specific);
    ++taken;
  }
  fflush(stdout);
  usleep(300000); /* the acknowledgements leave the process */
  kill(getpid(), SIGKILL);
  return 1;
}
