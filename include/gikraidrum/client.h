/* The client of cmdbd, the owner daemon: a daemon that wants to change the
 * configuration sends a transaction to cmdbd, which applies all of it or none
 * and answers once the change is durable. Reading needs no daemon: attach to
 * the region with gikraidrum.h as before.
 *
 *   gk_client *c = gk_client_open(NULL);
 *   gk_txn *t = gk_txn_new();
 *   gk_txn_set_text(t, "east", "policy[allow-web]", "comment", "paused");
 *   gk_txn_set_uint(t, "east", "policy[allow-web]", "action", 0);
 *   if (gk_client_commit(c, t, &rev) != 0) fprintf(stderr, "%s\n", gk_client_error(c));
 *   gk_txn_free(t);
 *   gk_client_close(c);
 *
 * Paths name what `cmdbctl` names: OBJECT, TABLE[KEY], TABLE[KEY].CHILD[KEY].
 * A domain of NULL or "global" is the global context. The protocol under these
 * calls is in docs/daemon.md; gk_client_request() sends any request of it.
 *
 * Plain C99; link with -lgikraidrum-client (pkg-config gikraidrum-client, or
 * the CMake target gikraidrum::client). A connection serves one request at a
 * time: use one per thread. No call raises a signal (SIGPIPE included). */
#ifndef GIKRAIDRUM_CLIENT_H
#define GIKRAIDRUM_CLIENT_H

#include <stdint.h>

#if defined(GK_CLIENT_BUILDING)
#define GK_CLIENT_API __attribute__((visibility("default")))
#else
#define GK_CLIENT_API
#endif
#ifdef __cplusplus
#define GK_CLIENT_NOEXCEPT noexcept
extern "C" {
#else
#define GK_CLIENT_NOEXCEPT
#endif

#define GK_CLIENT_DEFAULT_SOCKET "/run/cmdb/cmdbd.sock"

typedef struct gk_client gk_client; /* a connection to cmdbd */
typedef struct gk_txn gk_txn;       /* the operations of one transaction, being built */

/* Connects to cmdbd at `socket_path` (NULL: GK_CLIENT_DEFAULT_SOCKET). Returns
 * the connection, or NULL with errno: ENOENT or ECONNREFUSED when cmdbd is not
 * running, EACCES when this user may not use the socket, ENOMEM. */
GK_CLIENT_API gk_client *gk_client_open(const char *socket_path) GK_CLIENT_NOEXCEPT;
/* Closes the connection and frees it; NULL is ignored. */
GK_CLIENT_API void gk_client_close(gk_client *c) GK_CLIENT_NOEXCEPT;
/* How long to wait for each answer, in ms; 0 (the default) waits without limit. */
GK_CLIENT_API void gk_client_set_timeout(gk_client *c, int timeout_ms) GK_CLIENT_NOEXCEPT;

/* A new, empty transaction, or NULL (ENOMEM). */
GK_CLIENT_API gk_txn *gk_txn_new(void) GK_CLIENT_NOEXCEPT;
GK_CLIENT_API void gk_txn_free(gk_txn *t) GK_CLIENT_NOEXCEPT;
/* Sets attribute `attr` of the object or entry at `path` in `domain`; a
 * missing entry is created from its defaults with the key of the path. Sets of
 * one path in a row become one operation. The text form is what cmdbctl takes
 * (names, dotted IPv4 addresses, numbers as text). 0, or -1 with errno EINVAL
 * (a NULL path, attribute or value) or ENOMEM. */
GK_CLIENT_API int gk_txn_set_text(gk_txn *t, const char *domain, const char *path, const char *attr,
                                  const char *value) GK_CLIENT_NOEXCEPT;
GK_CLIENT_API int gk_txn_set_uint(gk_txn *t, const char *domain, const char *path, const char *attr,
                                  uint64_t value) GK_CLIENT_NOEXCEPT;
/* Deletes the entry at `path` and everything below it. 0, or -1 (EINVAL, ENOMEM). */
GK_CLIENT_API int gk_txn_delete(gk_txn *t, const char *domain, const char *path) GK_CLIENT_NOEXCEPT;
/* Makes every context that `config_json` (a document as `cmdbctl dump` prints
 * it) names equal to it; with `merge` non-zero, changes only what it names.
 * 0, or -1 with EINVAL when the text is not a JSON object, or ENOMEM. */
GK_CLIENT_API int gk_txn_load(gk_txn *t, const char *config_json, int merge) GK_CLIENT_NOEXCEPT;
/* Domains: `id` 0 lets cmdbd choose one. 0, or -1 (EINVAL, ENOMEM). */
GK_CLIENT_API int gk_txn_domain_add(gk_txn *t, const char *name, uint32_t id) GK_CLIENT_NOEXCEPT;
GK_CLIENT_API int gk_txn_domain_rename(gk_txn *t, const char *name, const char *to) GK_CLIENT_NOEXCEPT;
GK_CLIENT_API int gk_txn_domain_remove(gk_txn *t, const char *name) GK_CLIENT_NOEXCEPT;
/* A comment kept with the revision (NULL: none). 0, or -1 (ENOMEM). */
GK_CLIENT_API int gk_txn_comment(gk_txn *t, const char *text) GK_CLIENT_NOEXCEPT;
/* Makes the commit a confirmed one: unless gk_client_confirm() (or another
 * confirmed commit) reaches cmdbd within `seconds` (1 to 86400; 0: an ordinary
 * commit), cmdbd rolls the change back by itself, as a revision of its own.
 * 0, or -1 (EINVAL). */
GK_CLIENT_API int gk_txn_confirm(gk_txn *t, uint32_t seconds) GK_CLIENT_NOEXCEPT;

/* Sends the transaction and waits for cmdbd's answer:
 *    0  committed and durable; *revision (when not NULL) is its revision, or
 *       the current one when nothing changed;
 *    1  refused, nothing changed: gk_client_error() says why, and for a failed
 *       operation gk_client_error_index() and gk_client_error_path() name it;
 *   -1  the exchange failed (errno: ECONNRESET when cmdbd went away, ETIMEDOUT,
 *       EBADMSG, EINVAL for an empty transaction, ENOMEM): whether a request
 *       that was sent got committed is unknown; reconnect before the next one. */
GK_CLIENT_API int gk_client_commit(gk_client *c, const gk_txn *t, uint64_t *revision) GK_CLIENT_NOEXCEPT;
/* The same with the operations as a JSON array text, and an optional comment. */
GK_CLIENT_API int gk_client_commit_json(gk_client *c, const char *operations_json, const char *comment,
                                        uint64_t *revision) GK_CLIENT_NOEXCEPT;
/* Sends any request of the protocol as JSON text and stores the answer's text
 * in *answer (free it with free()). 0 when an answer came, whatever it says;
 * -1 with errno as for gk_client_commit. */
GK_CLIENT_API int gk_client_request(gk_client *c, const char *request_json, char **answer) GK_CLIENT_NOEXCEPT;

/* Revisions (docs/daemon.md). Each stores cmdbd's answer as JSON text in
 * *answer (free it with free()) and returns 0 when an answer came, whatever it
 * says ("ok": false with "error" when refused), or -1 with errno as for
 * gk_client_commit.
 *
 * The newest `limit` revisions (0: all kept), newest first, with who made
 * each and what it changed, and "oldest_kept": how far back show, diff and
 * rollback reach. */
GK_CLIENT_API int gk_client_history(gk_client *c, uint64_t limit, char **answer) GK_CLIENT_NOEXCEPT;
/* The configuration as of `revision` ("config"), or with `path` non-NULL what
 * the path names in `domain` (NULL: the global context) then ("value"). */
GK_CLIENT_API int gk_client_show(gk_client *c, uint64_t revision, const char *domain, const char *path,
                                 char **answer) GK_CLIENT_NOEXCEPT;
/* The field-level differences from revision `from` to `to` ("differences");
 * a negative `from` is the revision before `to`, a negative `to` the last. */
GK_CLIENT_API int gk_client_diff(gk_client *c, int64_t from, int64_t to, char **answer) GK_CLIENT_NOEXCEPT;
/* Makes the configuration that of `revision` again, as a new revision with
 * `comment` (NULL: "rollback to revision N"), all or nothing. Returns as
 * gk_client_commit does. */
GK_CLIENT_API int gk_client_rollback(gk_client *c, uint64_t revision, const char *comment,
                                     uint64_t *new_revision) GK_CLIENT_NOEXCEPT;
/* Confirms the commit that awaits confirmation; *revision (when not NULL) is
 * its revision. Returns as gk_client_commit does: 1 when none awaits (its
 * deadline passed, and cmdbd rolled it back) or when refused.
 *
 * Dry runs, and confirmed or dry-run rollbacks, are flags of the requests
 * ("dry_run", "confirm"): send them with gk_client_request(). */
GK_CLIENT_API int gk_client_confirm(gk_client *c, uint64_t *revision) GK_CLIENT_NOEXCEPT;

/* The text of the last refusal or failure on this connection ("" when none),
 * valid until the next call on it. */
GK_CLIENT_API const char *gk_client_error(const gk_client *c) GK_CLIENT_NOEXCEPT;
/* The index in the transaction of the operation that failed, or -1. */
GK_CLIENT_API int gk_client_error_index(const gk_client *c) GK_CLIENT_NOEXCEPT;
/* The path of the operation that failed, or "". */
GK_CLIENT_API const char *gk_client_error_path(const gk_client *c) GK_CLIENT_NOEXCEPT;

#ifdef __cplusplus
}
#endif
#endif /* GIKRAIDRUM_CLIENT_H */
