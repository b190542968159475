/* Encodes a sample trap, prints its octets and decodes them again: the
 * smallest program that links libevents from C. */
#include <stdio.h>
#include <string.h>

#include <libevents/asn1.h>
#include <libevents/snmp.h>

static void print_oid(const ObjectIdEMS *oid, unsigned length) {
  for (unsigned i = 0; i < length; ++i) printf("%s%u", i ? "." : "", oid[i]);
}

int main(void) {
  static const ObjectIdEMS enterprise[] = {1, 3, 6, 1, 4, 1, 49999, 6, 3, 1};
  static const ObjectIdEMS text_name[] = {1, 3, 6, 1, 4, 1, 49999, 6, 3, 1, 1, 3, 0};
  snmp_trap_infoEMS trap;
  EMSsnmpVarBind vars[4];
  unsigned char message[1024];
  int length = sizeof message;

  memset(&trap, 0, sizeof trap);
  memcpy(trap.community, "public", 6);
  trap.clen = 6;
  memcpy(trap.enterprise, enterprise, sizeof enterprise);
  trap.elen = 10;
  trap.agent = (10u << 24) | (1u << 16) | (2u << 8) | 3u; /* 10.1.2.3 */
  trap.gen = 6;
  trap.specific = 17;
  trap.time = 12345;
  trap.vars = 1;
  memcpy(vars[0].oid, text_name, sizeof text_name);
  vars[0].oid_length = 13;
  vars[0].type = ASN_OCTET_STR;
  vars[0].val_len = 8;
  memcpy(vars[0].val.string, "gateway7", 8);

  if (snmpBuildTrapEMS(message, &length, &trap, NULL, vars) != 0) return 1;
  printf("encoded %d octets:", length);
  for (int i = 0; i < length; ++i) printf("%s%02x", i % 16 ? " " : "\n  ", message[i]);
  printf("\n");

  memset(&trap, 0, sizeof trap);
  trap.clen = 127;
  trap.elen = 128;
  trap.maxvars = 4;
  if (snmp_parse_trap(message, length, &trap, NULL, vars) != 0) return 1;
  const unsigned char *agent = (const unsigned char *)&trap.agent;
  printf("decoded: community %s, enterprise ", (char *)trap.community);
  print_oid(trap.enterprise, (unsigned)trap.elen);
  printf(", agent %u.%u.%u.%u, generic %u, specific %u, time %u\n", agent[0], agent[1], agent[2],
         agent[3], trap.gen, trap.specific, trap.time);
  for (int i = 0; i < trap.vars; ++i) {
    printf("  binding ");
    print_oid(vars[i].oid, vars[i].oid_length);
    printf(" = \"%.*s\"\n", (int)vars[i].val_len, (char *)vars[i].val.string);
  }
  return 0;
}
