/* Reading the configuration by name, for daemons in C: what `cmdbctl get`
 * names, as `cmdbctl get --json` prints it, or as one typed value. Each call
 * takes the region's read lock for its own duration.
 *
 *   gk_reader *r = gk_read_open(NULL);
 *   char host[64];
 *   uint32_t mtu;
 *   if (r == NULL) ...;                      errno says why
 *   if (gk_read_string(r, NULL, "system.hostname", host, sizeof host) != 0 ||
 *       gk_read_u32(r, NULL, "interface[2].mtu", &mtu) != 0)
 *     fprintf(stderr, "%s\n", gk_read_error(r));
 *   gk_read_close(r);
 *
 * A domain of NULL or "global" is the global context. Plain C99; link with
 * -lgikraidrum-client (pkg-config gikraidrum-client). One reader per process
 * at a time; its calls are not for concurrent threads. */
#ifndef GIKRAIDRUM_READ_H
#define GIKRAIDRUM_READ_H

#include <stddef.h>
#include <stdint.h>

#include "gikraidrum/client.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct gk_reader gk_reader;

/* Loads the schema (NULL: the copy beside the region, /dev/cmdb/cmdbctl.schema.json)
 * and attaches the region as a reader, unless this process is attached
 * already (that attachment is then used and left alone). The reader, or NULL
 * with errno: ENOENT (no region or no schema file), EACCES, EINVAL (a schema
 * that does not load), ENOMEM, or EIO (the region cannot be attached). */
GK_CLIENT_API gk_reader *gk_read_open(const char *schema_path) GK_CLIENT_NOEXCEPT;
/* Detaches (when gk_read_open attached) and frees; NULL is ignored. */
GK_CLIENT_API void gk_read_close(gk_reader *r) GK_CLIENT_NOEXCEPT;
/* Why the last call of this reader failed. */
GK_CLIENT_API const char *gk_read_error(const gk_reader *r) GK_CLIENT_NOEXCEPT;

/* What `cmdbctl get --json PATH` prints (an attribute's value, an object or
 * entry, a table's entries), or with a NULL or empty path the dump document
 * of `domain` (of every context when `domain` is NULL). *text is a
 * NUL-terminated string to free() with free(). 0, or -1 with errno: ENOENT (no
 * such entry or domain), EINVAL (a path the schema does not have), EIO (the
 * region is damaged), ENOMEM; gk_read_error() has the text. */
GK_CLIENT_API int gk_read_json(gk_reader *r, const char *domain, const char *path, char **text) GK_CLIENT_NOEXCEPT;

/* One attribute's value (PATH ends in .ATTRIBUTE): numbers within the type's
 * range, text (names, dotted IPv4 addresses) into buf with its NUL, of at
 * most `size` bytes. 0, or -1 with errno as gk_read_json, ERANGE (a number
 * past the type, or text longer than buf), or EDOM (the attribute is not of
 * that kind). */
GK_CLIENT_API int gk_read_u32(gk_reader *r, const char *domain, const char *path, uint32_t *value) GK_CLIENT_NOEXCEPT;
GK_CLIENT_API int gk_read_u64(gk_reader *r, const char *domain, const char *path, uint64_t *value) GK_CLIENT_NOEXCEPT;
GK_CLIENT_API int gk_read_string(gk_reader *r, const char *domain, const char *path, char *buf,
                                 size_t size) GK_CLIENT_NOEXCEPT;

/* Changes as they happen, decoded: registers `process` (1..19 bytes; NULL:
 * "gkwatch<pid>") for the tables and objects named by schema path ("policy",
 * "policy.rule"), with the entries' data, in `domain` only unless NULL. One
 * watch per process at a time; it lives no longer than its reader. NULL with
 * errno EINVAL (a name the schema lacks; gk_read_error says which), EBUSY
 * (another watch is open), or what cmdb_event_init or register_cmdb_event met. */
typedef struct gk_watch gk_watch;
GK_CLIENT_API gk_watch *gk_watch_open(gk_reader *r, const char *process, const char *const *tables, size_t count,
                                      const char *domain) GK_CLIENT_NOEXCEPT;
/* The descriptor that becomes readable when changes arrive, for poll(). */
GK_CLIENT_API int gk_watch_fd(const gk_watch *w) GK_CLIENT_NOEXCEPT;
/* Waits up to `timeout_ms` (-1: without limit) for the next change and gives
 * it as one line of JSON to free() with free():
 *   {"event": "insert"|"update"|"delete"|..., "gid": N, "object": "policy.rule",
 *    "domain": "east", "key": KEY, "old": {fields}, "new": {fields}}
 * ("key", "old", "new" when the event carries them). 1 with *change set, 0 when
 * the time ran out, -1 with errno (EINTR when a signal came). */
GK_CLIENT_API int gk_watch_next(gk_watch *w, int timeout_ms, char **change) GK_CLIENT_NOEXCEPT;
/* Takes the registrations back, removes the socket and frees; NULL is ignored. */
GK_CLIENT_API void gk_watch_close(gk_watch *w) GK_CLIENT_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
