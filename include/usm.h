/* SNMPv3 notifications under the user-based security model (RFC 3414).
 *
 * A usm_table is the receiving SNMP engine: its engine ID, its boots
 * counter and the moment it started, the users it knows with their
 * localized keys, and the usmStats counters.  The caller creates it, fills
 * it, passes it to the decoder and frees it; there is no state outside it.
 * A table serves one thread at a time: decoding uses scratch areas inside
 * it.  Keys live only inside the table and are wiped when their user is
 * removed or the table freed; no function writes a key or passphrase to a
 * log, a trace or a static buffer.
 *
 * Users are bound to an engine ID.  A sender of traps is the authoritative
 * engine of what it sends, so a trap user is bound to the sender's engine
 * ID; the receiver of an inform is authoritative, so an inform user is
 * bound to the local engine (engine_id_len 0 when adding).
 *
 * snmp_parse_notification_v3 checks one SNMPv3 message (security
 * parameters, digest, time window when the local engine is authoritative),
 * decrypts it and translates its SNMPv2-Trap or InformRequest PDU into the
 * SNMPv1 trap record exactly as snmp_parse_notification does for SNMPv2c
 * (snmp.h), with the user name as the community.  usm_build_answer writes
 * what the sender of that message is owed: a Report for discovery, time
 * synchronisation and the other refusals of a reportable message, or the
 * Response to an accepted inform, under the same user and security level.
 *
 * Cryptography is OpenSSL's libcrypto.  DES lives in OpenSSL 3's legacy
 * provider, which is loaded when the first DES user is added. */
#ifndef EVENTS_USM_H
#define EVENTS_USM_H

#include <stdint.h>

#include "events_export.h"
#include "snmp.h"
#include "snmp_call.h"

EVENTS_BEGIN_DECLS

/* Authentication protocols, by net-snmp's names MD5, SHA, SHA-224,
 * SHA-256, SHA-384, SHA-512 (HMAC-96 for the first two, RFC 7860's
 * truncations for the others). */
#define USM_AUTH_NONE 0
#define USM_AUTH_MD5 1
#define USM_AUTH_SHA1 2
#define USM_AUTH_SHA224 3
#define USM_AUTH_SHA256 4
#define USM_AUTH_SHA384 5
#define USM_AUTH_SHA512 6

/* Privacy protocols, by net-snmp's names DES, AES (or AES-128), AES-192,
 * AES-256, AES-192-C, AES-256-C.  AES-192 and AES-256 extend a localized
 * key that is too short as the Blumenthal draft does; the -C variants as
 * the Reeder draft does (the form many vendors' agents use). */
#define USM_PRIV_NONE 0
#define USM_PRIV_DES 1
#define USM_PRIV_AES128 2
#define USM_PRIV_AES192 3
#define USM_PRIV_AES256 4
#define USM_PRIV_AES192_REEDER 5
#define USM_PRIV_AES256_REEDER 6

/* Security levels, as SNMP-FRAMEWORK-MIB numbers them. */
#define USM_NO_AUTH_NO_PRIV 1
#define USM_AUTH_NO_PRIV 2
#define USM_AUTH_PRIV 3

#define USM_ENGINE_ID_MAX 32
#define USM_NAME_MAX 32
#define USM_KEY_MAX 64
#define SNMP_MESSAGE_V3 3
#define SNMP_REPORT_PDU 0xA8

/* Results: the SNMP_NOTIFICATION_ results of snmp.h, and these.  Each of
 * the refusals from USM_UNSUPPORTED_SEC_LEVEL to USM_DECRYPTION_ERROR
 * counts in the usmStats counter of the same name. */
#define USM_OK 0
#define USM_UNSUPPORTED_SEC_LEVEL (-5) /* a level the user does not have */
#define USM_NOT_IN_TIME_WINDOW (-6)    /* stale boots or time: a replay */
#define USM_UNKNOWN_USER (-7)
#define USM_UNKNOWN_ENGINE_ID (-8)     /* also an inform's discovery probe */
#define USM_WRONG_DIGEST (-9)          /* wrong key, or altered on the way */
#define USM_DECRYPTION_ERROR (-10)
#define USM_BAD_ARGUMENT (-11)         /* adding a user: a value out of range */
#define USM_NO_CIPHER (-12)            /* OpenSSL lacks the cipher (DES: legacy provider) */

typedef struct usm_table usm_table;

typedef struct {
  uint32_t unsupported_sec_levels;
  uint32_t not_in_time_windows;
  uint32_t unknown_user_names;
  uint32_t unknown_engine_ids;
  uint32_t wrong_digests;
  uint32_t decryption_errors;
} usm_stats;

/* What an SNMPv3 message said about itself, as far as it could be read. */
typedef struct {
  int32_t version;        /* SNMP_MESSAGE_V3, or the version of another message */
  int32_t pdu_type;       /* 0 until the scoped PDU is read */
  int32_t request_id;
  int32_t msg_id;
  int32_t security_level; /* USM_NO_AUTH_NO_PRIV .. USM_AUTH_PRIV; 0 unread */
  char user[USM_NAME_MAX + 1];  /* zero-terminated */
  unsigned char engine_id[USM_ENGINE_ID_MAX];
  int32_t engine_id_len;
  unsigned char context_engine_id[USM_ENGINE_ID_MAX];
  int32_t context_engine_id_len;
  char context_name[USM_NAME_MAX + 1];  /* zero-terminated */
} usm_notification_info;

/* Creates a table for the local engine engine_id[0..engine_id_len) (5 to
 * 32 octets) in its `boots`th run.  Returns NULL for a bad engine ID or
 * when out of memory. */
EVENTS_EXPORT usm_table *usm_table_new(const unsigned char *engine_id, int engine_id_len,
                                       uint32_t boots);
/* Wipes every key and frees the table; NULL is ignored. */
EVENTS_EXPORT void usm_table_free(usm_table *table);

/* Adds (or replaces) user `name` bound to engine_id[0..engine_id_len), or
 * to the local engine when engine_id_len is 0.  auth_pass is used when
 * auth is not USM_AUTH_NONE, priv_pass when priv is not USM_PRIV_NONE
 * (privacy needs authentication).  Passphrases have at least 8
 * characters.  Returns USM_OK, USM_BAD_ARGUMENT or USM_NO_CIPHER. */
EVENTS_EXPORT int usm_table_add_user(usm_table *table, const unsigned char *engine_id,
                                     int engine_id_len, const char *name, int auth,
                                     const char *auth_pass, int priv, const char *priv_pass);
/* Removes a user and wipes its keys.  Returns USM_OK or USM_UNKNOWN_USER. */
EVENTS_EXPORT int usm_table_remove_user(usm_table *table, const unsigned char *engine_id,
                                        int engine_id_len, const char *name);

/* Replaces the table's users by those of the file `path`, one net-snmp
 * line a user,
 *   createUser [-e ENGINEID] NAME [AUTHPROTO AUTHPASS [PRIVPROTO [PRIVPASS]]]
 * with ENGINEID in hexadecimal (0x optional), a missing PRIVPASS being
 * AUTHPASS, "#" comments and blank lines ignored, a passphrase with blanks
 * in double quotes.  All or nothing: on a failure the table keeps its
 * users.  Returns the number of users, or -1.  `message` (message_size
 * octets, may be 0) receives "PATH:LINE: what is wrong" on failure, or on
 * success a warning when others may read the file, else "". */
EVENTS_EXPORT int usm_table_read_users(usm_table *table, const char *path, char *message,
                                       int message_size);
EVENTS_EXPORT int usm_table_user_count(const usm_table *table);
EVENTS_EXPORT void usm_table_stats(const usm_table *table, usm_stats *stats);

/* Reads the local engine's ID and boots counter from `path`, counts this
 * start as one more boot and writes them back (by rename, mode 0600).  A
 * missing file is created with a new random engine ID and boots 1.
 * REQUIRES: engine_id holds USM_ENGINE_ID_MAX octets.
 * Returns 0, or -1 with "PATH: what is wrong" in `message`. */
EVENTS_EXPORT int usm_engine_boot(const char *path, unsigned char *engine_id,
                                  int *engine_id_len, uint32_t *boots, char *message,
                                  int message_size);

/* Turns a passphrase into the key localized to an engine: RFC 3414 A.2
 * with the authentication protocol's hash (RFC 7860 for SHA-2).  With priv
 * USM_PRIV_NONE the authentication key; otherwise the privacy key, from
 * the same hash, extended or cut to what the cipher takes (16 octets for
 * DES: key and pre-IV).  Passphrases have at least 8 characters.  On
 * input *key_len is the room at key; returns USM_OK with *key_len set, or
 * USM_BAD_ARGUMENT. */
EVENTS_EXPORT int usm_localize_key(int auth, int priv, const char *passphrase,
                                   const unsigned char *engine_id, int engine_id_len,
                                   unsigned char *key, int *key_len);

/* Decodes an SNMPv3 notification; see above.  A message of another
 * version gives SNMP_NOTIFICATION_NOT_NOTIFICATION with about->version
 * set, so a receiver can hand it to snmp_parse_notification.
 * REQUIRES: sti->clen, sti->elen and sti->maxvars hold the capacities. */
EVENTS_EXPORT int snmp_parse_notification_v3(const unsigned char *buf, int len, uint32_t source,
                                             usm_table *table, snmp_trap_infoEMS *sti,
                                             EMSsnmpVarBind *vars, usm_notification_info *about);

/* Writes at out the answer owed to the SNMPv3 message buf[0..len), checked
 * anew against the table without counting again.  On input *out_length is
 * the room at out.  Returns 0 with *out_length set, 1 when nothing is owed
 * (a trap, or a refusal of a message that asked for no report), or -1 when
 * the room is too small or the answer cannot be built. */
EVENTS_EXPORT int usm_build_answer(usm_table *table, const unsigned char *buf, int len,
                                   unsigned char *out, int *out_length);

/* The number of an authentication protocol (privacy 0) or a privacy
 * protocol (privacy 1) by net-snmp's name, in any case; -1 if unknown. */
EVENTS_EXPORT int usm_protocol_by_name(const char *name, int privacy);

/* Names a result of this header or of snmp_notification_error's. */
EVENTS_EXPORT const char *usm_error(int result);
EVENTS_EXPORT const char *usm_level_name(int security_level);

/* A relay that passes an SNMPv3 notification on as an SNMPv1 trap keeps
 * its user and security level in two bindings appended to the trap:
 * usmNotificationUser (1.3.6.1.4.1.49999.6.4.1.0, OCTET STRING) and
 * usmNotificationLevel (1.3.6.1.4.1.49999.6.4.2.0, INTEGER).
 * usm_annotate appends them; returns 0, or -1 when the array is full.
 * usm_annotation finds them; returns the level with the user in
 * user[0..USM_NAME_MAX], or 0 when the trap has none. */
EVENTS_EXPORT int usm_annotate(const usm_notification_info *about, snmp_trap_infoEMS *sti,
                               EMSsnmpVarBind *vars);
EVENTS_EXPORT int usm_annotation(const snmp_trap_infoEMS *sti, const EMSsnmpVarBind *vars,
                                 char user[USM_NAME_MAX + 1]);

/* SNMPv3 requests.
 *
 * A usm_session is one user's security toward one agent, beside a call
 * context of snmp_call.h that gives the socket, agent address, time-out
 * and sends.  With engine_id_len 0 the agent's engine is discovered by the
 * first request (a probe answered by a Report) and kept, with the agent's
 * boots and time, for the session's later requests; the keys are then
 * localized and the passphrases wiped.  An agent's Report of a stale time
 * resynchronises the clock and the request is sent once more.
 *
 * usm_session_new returns NULL for arguments usm_table_add_user would
 * refuse.  usm_request sends `size` bindings (at most SNMPCALL_CHUNK) as
 * one PDU of type `command` (SNMP_GET_REQ, SNMP_GET_NEXT_REQ, SNMP_SET_REQ;
 * get and get-next send NULL values) in context `context` and decodes the
 * response into `out`.  Returns 0, the agent's error-status, an SNMPCALL_
 * code, or USM_AGENT_REPORT when the agent answered with a Report, which
 * usm_session_report names ("usmStatsUnknownUserNames", ...).  The result
 * is also left in sci->response.errstat, as the SNMPv1 calls leave theirs. */
#define USM_AGENT_REPORT (-13)

typedef struct usm_session usm_session;

EVENTS_EXPORT usm_session *usm_session_new(const char *user, int auth, const char *auth_pass,
                                           int priv, const char *priv_pass,
                                           const unsigned char *engine_id, int engine_id_len,
                                           const char *context);
EVENTS_EXPORT void usm_session_free(usm_session *session);
EVENTS_EXPORT int usm_request(snmp_call_info *sci, usm_session *session, int command,
                              SnmpVarBindEMS *in, SnmpVarBindEMS *out, int size);
EVENTS_EXPORT const char *usm_session_report(const usm_session *session);

EVENTS_END_DECLS

#endif
