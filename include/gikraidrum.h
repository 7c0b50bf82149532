/*
 * gikraidrum: the core library of the cmdb shared-memory configuration database.
 *
 * One owner process creates the region under "/dev/cmdb/" from a schema and is
 * the only one that allocates in it; every other process attaches, reads under
 * the cross-process reader/writer lock, hears of changes through AF_UNIX
 * datagrams and shares a few status words. Every layout below is shared between
 * processes: little-endian, fixed offsets, natural x86-64 C alignment.
 *
 * Conventions of every call:
 * - Results: 0 or a non-negative value on success; -1 or another small negative
 *   code on failure, as each call lists. Pointers are null and handles 0 on
 *   failure. Lookups fail quietly; walks stop at the first failure and roll
 *   nothing back. errno means something only where a call says so.
 * - Locking: "REQUIRES: read lock" is the main lock (cmf_shm_read_lock) held
 *   across the call and every use of what it returns; "write lock" the same held
 *   exclusive (cmf_shm_write_lock). The library takes a lock itself only where a
 *   call says it does. Addresses into the region die with the lock: blocks move
 *   when they grow, so translate handles afresh after taking it.
 * - Threads: the process's state (the `cmdb` record, the page map, the lock
 *   descriptors, the event receiver) has no lock: one thread at a time attaches,
 *   allocates, translates and handles events. Read-lock nesting and the path
 *   buffer for "/dev/cmdb/" are per thread.
 * - fork: a child keeps the parent's mappings and descriptors and the forking
 *   thread's read-lock depth, but no semaphore unit and no record lock: fork with
 *   no lock held. cleanup_cmdb_app_core then init_cmdb_app_core re-attaches.
 * - Fatal: a semaphore step that fails for a reason other than EINTR logs at
 *   level 2 and ends the process with exit(-1) (the set was removed or changed
 *   under it); a page file that the page table lists but that cannot be opened or
 *   mapped, or a slab page without its header, ends it with abort(). Nothing else
 *   ends a process.
 * - Ownership: each process owns its mappings, descriptors and heap blocks and
 *   gives them back in cleanup_cmdb_app_core and cmf_lock_cleanup. Shared blocks
 *   belong to the region; only the owner frees them. Semaphores, lock files and
 *   event sockets outlive every process until the teardown calls remove them.
 *
 * Valid C99 and C++11 or later, -pedantic included. Nothing here allocates on
 * behalf of the caller unless said.
 */
#ifndef GIKRAIDRUM_H
#define GIKRAIDRUM_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>

#if defined(GIKRAIDRUM_BUILDING)
#define GK_API __attribute__((visibility("default")))
#else
#define GK_API
#endif

#ifdef __cplusplus
#define GK_NOEXCEPT noexcept
/* The shared layouts end in C99 flexible array members, which C++ compilers
 * accept as an extension; -pedantic C++ hosts would see a warning for each. */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
extern "C" {
#else
#define GK_NOEXCEPT
#endif

/* Flexible array members end the variable-length shared records; C++ takes them
 * as an extension, which -pedantic would report in every host that includes this. */
#if defined(__cplusplus) && defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wc99-extensions"
#endif
#endif

/* ------------------------------------------------------------------------ */
/* Vocabulary: the codes and sizes of the shared formats                     */
/* ------------------------------------------------------------------------ */

#define CMDB_DIR "/dev/cmdb/"
#define CMDB_MAX_GID 1861          /* gids run 1..1861 */
#define CMDB_NODE_INDEX_SLOTS 1861 /* cmdb_node_index: slots 0..1860, so gid 1861 has none */
#define CMDB_HEADER_NODES 1603     /* schema constant in the header; not read */
#define CMDB_SQL_NODES 85          /* records of cmdb_sql_node */
#define CMDB_DATASOURCE_PAIRS 328  /* reference pairs cmdb_datasource has room for */
#define CMDB_LOG_LEVEL_DEFAULT 3   /* the header's log_level at creation */
#define CMDB_DOMAIN_GID 91         /* the domain table; its size limit is the domain capacity */
#define CMDB_RWLOCK_FULL 32767
#define CMDB_SEM_KEY 230236253 /* main lock */
#define DBGZ_SEM_KEY 230236254 /* debug-zone lock 0; lock 1 is DBGZ_SEM_KEY + 1 */
#define CMDB_HEADER_MAGIC 0x00E0E71Cu

/* `cmdb.flags` bits */
#define CMDB_FLAG_DEBUG 0x01u
#define CMDB_FLAG_INITIALIZED 0x02u
#define CMDB_FLAG_ATTACHED 0x04u
#define CMDB_FLAG_OWNER 0x10u

/* Start-up modes of init_cmdb_app_core. */
enum {
  CMDB_MODE_INIT = 0,   /* daemon_status only (the init process) */
  CMDB_MODE_READER = 1, /* data read-only, shared status read-write; sets CMDB_FLAG_ATTACHED */
  CMDB_MODE_OWNER = 2,  /* everything read-write; sets CMDB_FLAG_OWNER; the only mode that allocates */
  CMDB_MODE_QUIET = 3   /* as CMDB_MODE_READER, without the flag */
};

/* Schema node kinds (cmdb_node_t.kind). The library gives them these traits and no others. */
enum {
  CMDB_KIND_TABLE = 2,    /* first child is the entry node; default block; a table-limits record */
  CMDB_KIND_SUBTABLE = 3, /* a table without a table-limits record */
  CMDB_KIND_OBJECT = 4,   /* default block; an instance block and a child slot of its own */
  CMDB_KIND_ATTR = 5,     /* a value in the parent's data part */
  CMDB_KIND_LIST = 6,     /* with CMDB_TYPE_LIST: an instance block and a child slot of its own */
  CMDB_KIND_DEFAULTS = 8, /* a default block only */
  CMDB_KIND_OPAQUE = 10   /* recorded, but the builder does not descend into its children */
};

/* Value types (cmdb_node_t.type). Strings are NUL-terminated in a field of `size`
 * bytes and compare in version order; every other type is an unsigned little-endian
 * integer of `size` bytes. Other numbers mean what the writing hosts make them mean. */
enum {
  CMDB_TYPE_STRING = 2, /* case folds under CMDB_NODE_NOCASE in filters */
  CMDB_TYPE_TEXT = 5,   /* never case folds */
  CMDB_TYPE_REF = 12,   /* refers to up to four nodes (cmdb_datasource) */
  CMDB_TYPE_LIST = 13   /* a string list held outside the data part (kind 6) */
};
#define CMDB_STRING_TYPES ((1u << CMDB_TYPE_STRING) | (1u << CMDB_TYPE_TEXT) | (1u << CMDB_TYPE_LIST))

/* cmdb_node_t.scope bits */
#define CMDB_SCOPE_GLOBAL_TOO 0x01u /* a per-domain element also found in domain 0 */
#define CMDB_SCOPE_DOMAIN 0x02u     /* the element exists once per domain */

/* cmdb_node_t.flags bits; FLAG0, FLAG2 and FLAG3 are the hosts' and carried as they are. */
#define CMDB_NODE_FLAG0 0x01u
#define CMDB_NODE_SQL 0x02u    /* has a cmdb_sql_node record (ds_index) */
#define CMDB_NODE_FLAG2 0x04u
#define CMDB_NODE_FLAG3 0x08u
#define CMDB_NODE_NOCASE 0x10u /* string filters on this table ignore case */

/* Node descriptor bytes (cmdb_node_desc_t) and the node flag each becomes. */
#define CMDB_DESC_NIBBLE 0x0Fu     /* kind: low bits of `kind`; type: low bits of type_scope */
#define CMDB_DESC_SCOPE_SHIFT 4    /* scope: bits 4-5 of type_scope */
#define CMDB_DESC_SCOPE_MASK 0x03u
#define CMDB_DESC_A_FLAG2 0x01u    /* flags_a -> CMDB_NODE_FLAG2 */
#define CMDB_DESC_A_FLAG3 0x02u    /* flags_a -> CMDB_NODE_FLAG3 */
#define CMDB_DESC_B_SQL 0x01u      /* flags_b -> CMDB_NODE_SQL; `source` is a cmdb_sql_desc_t */
#define CMDB_DESC_B_FLAG0 0x04u    /* flags_b -> CMDB_NODE_FLAG0 */
#define CMDB_DESC_C_NOCASE 0x10u   /* flags_c -> CMDB_NODE_NOCASE */

/* ------------------------------------------------------------------------ */
/* Region handle and header                                                 */
/* ------------------------------------------------------------------------ */

/* Head of the sub-region `cmdb_global_rw` (CMDB_GLOBAL_RW_SIZE bytes), which every
 * attached process maps read-write. Words read without a lock are single loads. */
typedef struct cmdb_header {
  uint32_t magic;     /* CMDB_HEADER_MAGIC, written at creation, never tested */
  uint32_t log_level; /* dbg_cmdb drops messages above this level; any process may change it */
  uint16_t nodes;     /* CMDB_HEADER_NODES */
  uint16_t max_gid;   /* CMDB_MAX_GID */
  uint16_t sql;       /* CMDB_SQL_NODES */
  uint8_t reserved0[2];
  uint32_t version;   /* +1 on every set_cmdb_nxt_update, under the write lock */
  uint8_t reserved1[4];
  uint32_t owner;     /* pid of the last caller of set_cmdb_nxt_update */
  /* 0x1C-0x2B and 0x30-0x37 are zero at creation and never touched by the
   * library's core calls; the tools and the owner daemon keep them. */
  uint32_t ext_flags;  /* CMDB_EXT_*: how the region was set up, before anyone attached */
  uint32_t write_gid;  /* with CMDB_EXT_RESTRICTED: the group that may attach (cmf_shm_restrict) */
  uint32_t change_pid; /* a writer with a change in progress, under the write lock; 0: none.
                          Still set after the write lock is free: that writer died mid-change */
  uint32_t reserved2;
  uint32_t platform;  /* platform index the region was sized for */
  uint8_t reserved3[4];
  uint32_t revision;  /* with CMDB_EXT_MANAGED: the owner daemon's store revision the region holds */
  /* 0x38: the stat_global area runs to the end of the sub-region */
} cmdb_header_t;

/* `cmdb_header_t.ext_flags` bits */
#define CMDB_EXT_RESTRICTED 0x01u /* files, semaphores and lock files closed to all but root and write_gid */
#define CMDB_EXT_MANAGED 0x02u    /* an owner daemon keeps this region: other writers go through it */

#define CMDB_HEADER_STAT_GLOBAL sizeof(cmdb_header_t)
#define CMDB_GLOBAL_RW_SIZE 32840

/* The process's handle on the region: this process's base of each mapped
 * sub-region (null: not mapped) and pointers derived from them. Nothing in it is
 * shared. init_cmdb_app_core fills it, cleanup_cmdb_app_core zeroes it. */
typedef struct cmdb_record {
  uint32_t flags;       /* CMDB_FLAG_* */
  uint32_t platform;    /* set by the creating host before cmf_shm_create */
  int32_t page_map_len; /* length of this process's mapping of `page` */
  void *page;
  void *page_maps;      /* private page map (heap) */
  void *domain;
  void *domname_index;
  void *domid_index;
  void *daemon_status;
  uint32_t host_total;  /* set by the creating host; printed only */
  void *cmdb_node_index;
  void *cmdb_sql_node;
  void *cmdb_node;
  void *schema;         /* root node descriptor, set by the creating host */
  const void *service_table; /* 35424 bytes, set by the creating host */
  void *cmdb_datasource;
  void *cmdb_global_rw;
  cmdb_header_t *header; /* == cmdb_global_rw */
  void *stat_global;     /* cmdb_global_rw + CMDB_HEADER_STAT_GLOBAL */
  void *cmdb_global;     /* a cmdb_global_t; the next four point into it */
  void *slab_caches;     /* &caches */
  uint32_t *index_roots; /* &locators_ready, the locator shmids following it */
  void *table_limits;    /* &table_limits */
  void *services;        /* &services */
  void *cmdb_event;
  void *devices;
  void *debug_zone;
  void *admin_login_status;
  uint8_t statistics[72]; /* host-owned; the library only hands out its address */
} cmdb_record_t;

extern GK_API cmdb_record_t cmdb; /* this process's handle */
/* cmdb.debug_zone, set by init_cmdb_app_core and left as it was by cleanup: not to
 * be used between a cleanup and the next init. */
extern GK_API void *nCfg_debug_zone;

/* Accessors. No lock, no check: null (or 0) while the sub-region is not mapped. */
GK_API cmdb_header_t *get_cmdb_header(void) GK_NOEXCEPT; /* cmdb.header */
GK_API void *get_cmdb_stat_global(void) GK_NOEXCEPT;     /* the header's stat_global area */
GK_API void *get_cmdb_dzone(void) GK_NOEXCEPT;           /* cmdb.debug_zone */
GK_API void *get_shmtree_root(void) GK_NOEXCEPT;         /* cmdb.cmdb_node */
GK_API void set_shmtree_root(void *root) GK_NOEXCEPT;    /* stores root in cmdb.cmdb_node */
/* The header's change counter (the two are one). */
GK_API uint32_t get_cmdb_updatetime(void) GK_NOEXCEPT;
GK_API uint32_t cmdb_get_version(void) GK_NOEXCEPT;
/* Pid of the last caller of set_cmdb_nxt_update. */
GK_API uint32_t cmdb_get_owner(void) GK_NOEXCEPT;
/* Remembers the counter in this process, for cmdb_version_changed. */
GK_API void cmdb_save_version(void) GK_NOEXCEPT;
/* 1 when any writer has run set_cmdb_nxt_update since cmdb_save_version, else 0. */
GK_API int cmdb_version_changed(void) GK_NOEXCEPT;
/* Records getpid() as the owner and adds 1 to the counter (wrapping); the old
 * counter, 0 without a header. REQUIRES: write lock. */
GK_API uint32_t set_cmdb_nxt_update(void) GK_NOEXCEPT;
/* Address of cmdb.statistics, the host's 72 bytes: whether or not anything is attached. */
GK_API void *cmf_shm_statistics(void) GK_NOEXCEPT;
/* The debug zone's copy of the mail mode (set_init0_mail_mode); 0 without a debug zone. */
GK_API uint32_t orv_mail_mode(void) GK_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Var lists (named sub-regions) and the region lifecycle                   */
/* ------------------------------------------------------------------------ */

/* Head of a growable var list (admin_login_status); `capacity` x `unit` bytes of
 * entries follow it. */
typedef struct cmdb_var_list_head {
  uint32_t used;     /* kept by the programs that store entries */
  uint32_t capacity; /* grows by CMDB_VAR_LIST_STEP under debug-zone lock 1, never shrinks */
  uint32_t unit;     /* entry size; 0 until cmf_var_list_set_unit */
  uint32_t reserved;
} cmdb_var_list_head_t;
#define CMDB_VAR_LIST_STEP 64 /* entries a growable var list gains at a time */

/* Sets the entry size of the growable var list at base; nothing when either is 0. */
GK_API void cmf_var_list_set_unit(void *base, uint32_t unit) GK_NOEXCEPT;
/* Remaps admin_login_status (pfield = &cmdb.admin_login_status) up to the capacity
 * another process grew it to, under debug-zone lock 1 shared; a failed remap is
 * logged and leaves the old mapping. 0; -1 pfield null or not that field; -2 no
 * base, or unit 0. */
GK_API int cmf_var_list_update(void **pfield) GK_NOEXCEPT;
/* Makes room for one more entry in the named growable var list: when capacity <=
 * used, CMDB_VAR_LIST_STEP entries more, file and mapping, under debug-zone lock 1
 * exclusive. 0 (also after a logged failed remap: no room then); -1 null or an
 * unknown or non-growable name; -2 cmf_var_list_update failed; -3 no base, or unit 0. */
GK_API int cmf_var_list_alloc(const char *name) GK_NOEXCEPT;

/* Attaches this process once (CMDB_MODE_*): opens the lock files and semaphores,
 * maps the mode's sub-regions, sets nCfg_debug_zone, the debug flag from the debug
 * zone and the page map. A second call, even after a failure, returns 0 and does
 * nothing until cleanup_cmdb_app_core. Modes other than 2 zero `cmdb` first; the
 * owner (2) keeps what the host filled in. An unknown mode maps nothing and
 * returns 0. 0; -1 lock files or debug-zone semaphores missing; -4 a sub-region
 * cannot be attached (those before it stay mapped). */
GK_API int init_cmdb_app_core(int mode) GK_NOEXCEPT;
/* Unmaps every page and sub-region, zeroes `cmdb`, closes the lock files. */
GK_API void cleanup_cmdb_app_core(void) GK_NOEXCEPT;
/* The owner lays out every sub-region but daemon_status from the host's `cmdb`
 * fields platform, schema, service_table and host_total, prints the creation
 * summary on standard output, and creates the lock files and semaphore sets; it
 * keeps nothing mapped (attach with init_cmdb_app_core(CMDB_MODE_OWNER) next).
 * Existing files are emptied. 0; -1 no schema; -3 a file cannot be created (later
 * ones are created empty); -4 a sub-region cannot be filled; -11 a gid above
 * CMDB_MAX_GID; -13 the node sub-regions cannot be mapped; -14 the schema
 * overflows a side table (table limits, SQL records, reference pairs); -21, -22
 * the domain table or an index cannot be mapped. Nothing is rolled back. */
GK_API int cmf_shm_create(void) GK_NOEXCEPT;
/* The init process creates daemon_status (zero). 0; -3 the file cannot be created. */
GK_API int cmf_shm_create_init(void) GK_NOEXCEPT;
/* Maps daemon_status read-write into `cmdb` (mode 0 of init_cmdb_app_core, without
 * the locks). 0; -4 it cannot be mapped. */
GK_API int attach_cmfshm_for_init(void) GK_NOEXCEPT;
/* Unmaps daemon_status if mapped. 0; -3 its file is gone (it stays mapped). */
GK_API int detach_cmfshm_for_init(void) GK_NOEXCEPT;
/* Removes the files of every sub-region but daemon_status; mappings, `cmdb`, page
 * files and lock files stay. 0; -3 a file cannot be removed (logged; later ones stay). */
GK_API int cmf_shm_destroy(void) GK_NOEXCEPT;
/* Restricted mode, chosen by the creator after cmf_shm_create and before anyone
 * attaches: records CMDB_EXT_RESTRICTED and write_gid in the header, gives every
 * file of the region the group write_gid and mode 0640 (0660 for the sub-regions
 * every attacher maps read-write, and daemon_status), the lock files and the
 * restore lock (created now) 0660, the semaphore sets 0660; page files the owner
 * makes later get 0640 as they are made. Members of the group attach (reading
 * what only the owner writes) and lock; other users cannot open, lock or change a
 * thing. Owners stay as they are: run it as root. 0; -1 write_gid is (uint32_t)-1
 * (errno EINVAL) or there is no region's header to map; -2 a region or page file,
 * -3 a lock file, -4 a semaphore set cannot be changed (logged with its errno). */
GK_API int cmf_shm_restrict(uint32_t write_gid) GK_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Locks                                                                     */
/* ------------------------------------------------------------------------ */

/* One record per process that ever took the main lock; records are never freed. */
typedef struct cmdb_lock_stat {
  uint32_t pid;         /* 0: free; claimed by the process's first lock request */
  uint32_t read_count;  /* outermost read requests */
  uint32_t write_count; /* write requests */
  uint32_t reserved;
  int64_t last_time;    /* time() of the last request, taken before waiting */
} cmdb_lock_stat_t;

#define CMDB_DZ_READERS 256       /* reader_pids slots and lock_stats records */
#define CMDB_DZ_DOMAIN_RECORD 276 /* bytes of each per-domain record after the zone's head */

/* Head of the shared `debug_zone` sub-region; (D + 1) per-domain records of
 * CMDB_DZ_DOMAIN_RECORD bytes follow it, D being the domain capacity. Every
 * attached process maps it read-write; none of it is guarded by a lock. */
typedef struct cmdb_debug_zone {
  uint32_t event_switch; /* events are sent only while 0; the library never writes it */
  uint32_t reserved0;
  uint32_t mail_mode;    /* copy kept by set_init0_mail_mode for orv_mail_mode */
  uint8_t reserved1[0x240 - 12];
  uint8_t debug;         /* bit 0: init_cmdb_app_core sets CMDB_FLAG_DEBUG */
  uint8_t reserved2[0xCE8 - 0x241];
  uint8_t reader_slot_next; /* next reader_pids slot; an atomic byte increment, wraps */
  uint8_t reserved3[3];
  uint32_t reader_pids[CMDB_DZ_READERS]; /* pid read-locking the main lock through the slot; 0 free */
  uint8_t reserved4[4];
  cmdb_lock_stat_t lock_stats[CMDB_DZ_READERS];
  uint8_t reserved5[0x5520 - 0x28F0];
  int32_t event_log_level; /* dbg_cmdb_event writes messages of levels below it */
  uint8_t reserved6[300940 - 0x5524];
  uint32_t domain_slots;   /* D + 1, written at creation */
  uint8_t reserved7[16];
} cmdb_debug_zone_t;

/* Bytes of a debug zone with `slots` (D + 1) per-domain records. */
#define CMDB_DZ_SIZE(slots) (sizeof(cmdb_debug_zone_t) + (size_t)(slots) * CMDB_DZ_DOMAIN_RECORD)

/* The main lock, one System V semaphore (key CMDB_SEM_KEY) at CMDB_RWLOCK_FULL
 * when free: a reader takes one unit, a writer all of them, each step with
 * SEM_UNDO, so the kernel gives back what a dying holder had. It guards the
 * configuration in the region; the library never takes it itself. Every step is
 * a no-op in a process whose semaphore is not attached. A step that fails other
 * than by EINTR is fatal (exit(-1) after a level-2 line): the set was removed,
 * or an unlock had no lock. Outermost requests are counted in the debug zone.
 * Read locks nest per thread (only the outermost takes a unit); the write lock
 * neither nests nor upgrades: a thread holding a read lock that asks for it
 * waits for ever. No writer preference. */
GK_API void cmf_shm_read_lock(void) GK_NOEXCEPT;
GK_API void cmf_shm_read_unlock(void) GK_NOEXCEPT;
GK_API void cmf_shm_write_lock(void) GK_NOEXCEPT;
GK_API void cmf_shm_write_unlock(void) GK_NOEXCEPT;
/* The two debug-zone locks (keys DBGZ_SEM_KEY and DBGZ_SEM_KEY + 1), idx 0 or 1;
 * any other index does nothing. Same semaphore steps as the main lock, without
 * nesting or bookkeeping. The library takes lock 1 around the growth of
 * admin_login_status; lock 0 is the hosts'. */
GK_API void dbgz_rlock(int idx) GK_NOEXCEPT;
GK_API void dbgz_runlock(int idx) GK_NOEXCEPT;
GK_API void dbgz_wlock(int idx) GK_NOEXCEPT;
GK_API void dbgz_wunlock(int idx) GK_NOEXCEPT;
/* REQUIRES: a read lock on idx; waits until the caller is the only reader, so two
 * readers must never convert at once. Returns holding the write lock. */
GK_API void dbgz_rlock_to_wlock(int idx) GK_NOEXCEPT;
/* REQUIRES: the write lock on idx. Returns holding one read lock. */
GK_API void dbgz_wlock_to_rlock(int idx) GK_NOEXCEPT;
/* The main semaphore's value: CMDB_RWLOCK_FULL free, lower while held; -1 when
 * this process has not attached it. */
GK_API int cmf_shm_lock_val(void) GK_NOEXCEPT;
/* Attaches the debug-zone semaphore sets (init_cmdb_app_core runs it). 0; -2 the
 * first set is missing; -3 the second (the first stays attached). */
GK_API int debug_zone_rwlock_init(void) GK_NOEXCEPT;

/* Record locks on one byte: the event table lock (byte 1 of "/tmp/cmdb_lock") and
 * the hosts' byte-range locks (byte pos of "/tmp/shm_lock"). They belong to the
 * process, not the thread: a second request by the process replaces the first,
 * one unlock releases it, and closing any descriptor of the file (cmf_lock_init,
 * cmf_lock_cleanup) drops them all. Locks wait without a time limit; a signal or
 * a deadlock the kernel sees ends the wait with -1. 0, or -1 after a "lockerr"
 * line on standard error (also for a file never opened). The event table lock is
 * taken alone: no other lock of the library is held with it. */
GK_API int cmdb_event_read_lock(void) GK_NOEXCEPT;
GK_API int cmdb_event_write_lock(void) GK_NOEXCEPT;
GK_API int cmdb_event_read_unlock(void) GK_NOEXCEPT;
GK_API int cmdb_event_write_unlock(void) GK_NOEXCEPT;
GK_API int cmf_shm_read_file_lock(int pos) GK_NOEXCEPT;
GK_API int cmf_shm_write_file_lock(int pos) GK_NOEXCEPT;
GK_API int cmf_shm_read_file_unlock(int pos) GK_NOEXCEPT;
GK_API int cmf_shm_write_file_unlock(int pos) GK_NOEXCEPT;
/* Reopens "/tmp/shm_lock" when the byte-range lock descriptor was closed behind the
 * library's back (a failure goes to the host's message log); the two
 * cmf_shm_*_file_lock calls run it first. */
GK_API void valid_shm_lock_file(void) GK_NOEXCEPT;
/* The restore lock: an exclusive flock on "/tmp/cmdb_restore_lock" (created 0666
 * when missing), without waiting. A descriptor holding it, which the caller owns
 * and closes; -1 when another holder has it, the file cannot be opened, or it is
 * not root's while the caller is root (logged). */
GK_API int cmf_get_restore_lock(void) GK_NOEXCEPT;
/* Releases the restore lock held through fd (ignores fd < 0); a failure goes to the
 * host's message log. The caller still closes fd. */
GK_API void cmf_restore_unlock(int fd) GK_NOEXCEPT;
/* The creator's set-up of every lock, run by cmf_shm_create: creates the two lock
 * files (0666 less the umask, existing ones kept) and replaces the three semaphore
 * sets by new ones at CMDB_RWLOCK_FULL (processes waiting on the old ones end on
 * the fatal path). Leaves no lock file open. 0; -1 a lock file cannot be created,
 * or is not root's while the caller is root (logged); else the first set's failure:
 * -1 it cannot be made, -2 it cannot be raised to full. */
GK_API int cmdb_create_lock(void) GK_NOEXCEPT;
/* Opens both lock files (O_NOFOLLOW, close-on-exec) and attaches the main set; a
 * missing set makes the main lock a no-op in this process. This form first closes
 * what an earlier call opened (dropping the process's record locks); the CLI form
 * keeps it, and is meant to run once. 0; -1 a lock file is missing (after a
 * 1-second pause when it is "/tmp/cmdb_lock") or, for a root caller, not root's. */
GK_API int cmf_lock_init(void) GK_NOEXCEPT;
GK_API int cmf_lock_init_for_cli(void) GK_NOEXCEPT;
/* Closes both lock files, which drops this process's record locks. */
GK_API void cmf_lock_cleanup(void) GK_NOEXCEPT;
/* Teardown: cmf_lock_cleanup, removes "/tmp/cmdb_lock" and the main semaphore set.
 * The result of the set's removal: 0, or -1 when this process has no valid id.
 * "/tmp/shm_lock", the restore lock and the debug-zone sets stay. */
GK_API int cmdb_destroy_lock(void) GK_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Shared-memory allocator                                                   */
/* ------------------------------------------------------------------------ */

/* shmid: page number in bits 31..16, block number in 15..0 (0xFFFF: large block).
 * Page 0 is never allocated, so the shmid 0 names no block. */
#define CMF_SHMID_LARGE 0xFFFFu
#define CMF_SHMID_MAX_PAGE 0xFFFFu
#define CMF_SHMID(page, blk) (((uint32_t)(page) << 16) | ((uint32_t)(blk) & 0xFFFFu))
#define CMF_SHMID_PAGE(id) ((uint32_t)(id) >> 16)
#define CMF_SHMID_BLKNO(id) ((uint32_t)(id) & 0xFFFFu)

/* One slot per page file "/dev/cmdb/<page number>". Written by the owner under the
 * write lock; every other process compares it with its own mapping at each
 * translation, so it notices a page released, made again or resized. */
typedef struct cmdb_page_slot {
  uint32_t gen; /* +1 on every allocation and release of the page: odd while free */
  int32_t size; /* page file length; -1 = free */
} cmdb_page_slot_t;

/* The sub-region `page`: 8 + 8 * page_max bytes; it only grows. */
typedef struct cmdb_page_table {
  int32_t page_cnt; /* allocated pages */
  int32_t page_max; /* slots; slot 0 is never allocated */
  cmdb_page_slot_t slot[];
} cmdb_page_table_t;

/* A list of slabs, chained through their headers by page number; 0 is none. */
typedef struct cmdb_slab_list {
  uint32_t tail; /* the slab on the list longest */
  uint32_t head; /* the slab added last */
} cmdb_slab_list_t;

/* One size class. */
typedef struct cmdb_slab_cache {
  cmdb_slab_list_t full;    /* slabs without a free block */
  cmdb_slab_list_t partial; /* slabs with one; allocation takes from the head */
  uint32_t num;             /* blocks per slab */
  uint32_t objsize;         /* block size */
  uint32_t slab_size;       /* slab page length */
} cmdb_slab_cache_t;

#define CMDB_SLAB_CACHES 10
/* At offset 0 of `cmdb_global`: requests below the last class's objsize take the
 * first class whose objsize is larger; larger requests get a page of their own. */
typedef struct cmdb_slab_cache_table {
  int32_t count;
  cmdb_slab_cache_t cache[CMDB_SLAB_CACHES];
} cmdb_slab_cache_table_t;

/* Head of a slab page; next_free[num] and the objects follow. */
typedef struct cmdb_slab_header {
  int32_t cache; /* -1 for a large-block page */
  uint32_t page;
  uint32_t prev;  /* neighbours on the cache's full or partial list, by page number */
  uint32_t next;
  uint32_t inuse; /* blocks handed out */
  int32_t free;   /* first free block, -1 none */
  int32_t next_free[]; /* per block: the next free one, -1 ends the chain */
} cmdb_slab_header_t;

/* Head of a large-block page: the block follows it and fills the page. */
typedef struct cmdb_large_header {
  int32_t cache; /* -1 */
  uint32_t page;
} cmdb_large_header_t;

#define CMDB_PAGE_SLOTS_STEP 64 /* `page` starts with this many slots and grows by as many */

/* Address of the block in this process, mapping its page on first use (read-write
 * when write is non-zero) and again when another process released, remade or
 * resized it; null when the page is not allocated, or the handle names no block of
 * it. The address is valid until the lock is released. Ends the process when a
 * listed page file cannot be opened or mapped.
 * REQUIRES: read lock to read, write lock to write. */
GK_API void *cmf_ptr_from_shmid(uint32_t shmid, int write) GK_NOEXCEPT;

/* Files in "/dev/cmdb/" (name without the directory), O_NOFOLLOW, close-on-exec:
 * a descriptor the caller owns, or -1 with errno (EINVAL for a directory) after a
 * line to the library log and the host's crash log, a listing of the directory and
 * a back trace. Read-write when writable is non-zero. */
GK_API int cmdb_shm_open(const char *name, int writable) GK_NOEXCEPT;
/* Creates or empties the file (0644 less the umask) and reserves len bytes; the
 * descriptor whatever the reservation says (a len of 0 gives an empty file), or -1
 * as cmdb_shm_open. */
GK_API int cmdb_shm_create(const char *name, int32_t len) GK_NOEXCEPT;
/* unlink and stat of the file: their results; nothing logged. */
GK_API int cmdb_shm_remove(const char *name) GK_NOEXCEPT;
GK_API int cmdb_shm_stat(const char *name, struct stat *st) GK_NOEXCEPT;

/* The cache that serves a request of size bytes (from the attached region's
 * table, else the creation classes), or -1 for a block with a page of its own. */
GK_API int cmdb_find_cache_idx(uint32_t size) GK_NOEXCEPT;
/* A zero-filled block of at least size bytes, its address translated for writing;
 * its handle goes to *shmid (when not null). Null after a log line when no page or
 * block can be had; *shmid is then untouched. The block belongs to the region
 * until cmf_shm_free. REQUIRES: write lock, owner process (CMDB_MODE_OWNER). */
GK_API void *cmf_shm_alloc(uint32_t size, uint32_t *shmid) GK_NOEXCEPT;
/* Zeroes the block and gives it back; an empty slab or a large block's page goes
 * back to the system at once. A handle whose page or slot cannot be a block is
 * logged and changes nothing. 0, or -1 when releasing the page failed. Nothing
 * detects a double free. REQUIRES: write lock, owner process. */
GK_API int cmf_shm_free(uint32_t shmid) GK_NOEXCEPT;
/* Resizes the block *shmid, whose address is ptr. A large block that stays large
 * keeps its handle and file, resized in place; any other moves to a new block
 * (even within its cache) with the smaller size's worth of bytes copied, the old
 * one freed and *shmid updated, and then, for group 0..4, that entry group's
 * locator records that named the old handle name the new one (-1: none). A handle
 * with no block behind it gets a fresh block. The new address, or null (logged)
 * with the block and *shmid as they were, or a null shmid.
 * REQUIRES: write lock, owner process. */
GK_API void *cmf_shm_realloc(void *ptr, uint32_t size, uint32_t *shmid, int group) GK_NOEXCEPT;
/* Prints the page table and every allocated page's header to standard output,
 * mapping pages read-only as it goes. REQUIRES: read lock. */
GK_API void cmf_slab_display_page(void) GK_NOEXCEPT;
/* The size most likely asked for a block of this process's heap, from its usable
 * size: 0 for a usable size of 0. */
GK_API int estimate_malloc_size(void *ptr) GK_NOEXCEPT;
/* Checks the page table, both slab lists of every cache and every slab header,
 * through the same bounds as translation. 0, or after a level-3 line naming the
 * first inconsistency: -1 region not mapped; -2 page_max or page_cnt out of range;
 * -3 a slot's size or gen; -4 page_cnt against the allocated slots; -5 a list
 * link; -6 a slab on the wrong list; -7 a slab's free chain or inuse; -8 an
 * allocated page on no list and no large block; -9 a page listed twice; -10 a
 * cache whose slab does not fit its page. REQUIRES: read lock. */
GK_API int cmf_shm_verify(void) GK_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Configuration tree                                                        */
/* ------------------------------------------------------------------------ */

/* Node record in `cmdb_node`, built once by the creator and read-only after: the
 * child offsets follow, then, for kinds 2, 3, 4 and 8, the `size`-byte default
 * data part. Records are found through `cmdb_node_index` (slot g: the offset of
 * gid g's record; 0: none). Offsets are from the base of `cmdb_node`. */
typedef struct cmdb_node {
  uint16_t gid;
  uint16_t default_gid; /* node whose defaults were copied into this one at creation */
  uint8_t scope;        /* CMDB_SCOPE_* */
  uint8_t kind;         /* CMDB_KIND_* */
  uint8_t type;         /* CMDB_TYPE_* */
  uint8_t flags;        /* CMDB_NODE_* */
  uint8_t ds_index;     /* its cmdb_sql_node record, with CMDB_NODE_SQL */
  uint8_t nchild;
  uint8_t unused0[2];
  uint16_t size;        /* the value's size, or a table entry's or object's data part */
  uint16_t offset;      /* the value's offset in its parent's data part; an entry node's: the key's */
  uint32_t unused1;
  uint32_t parent;      /* offset of the parent record; 0 = top level */
  uint32_t child[];
} cmdb_node_t;

/* 128-byte static node descriptor supplied by the creating host: a tree the
 * builder walks depth first (not below CMDB_KIND_OPAQUE). Only the named fields
 * are read; the uNN bytes are the host's. */
typedef struct cmdb_node_desc {
  const char *name;
  const char *help;
  uint32_t gid;
  uint16_t u20;
  uint16_t u22;
  uint16_t u24;
  uint8_t nchild;
  uint8_t u27;
  uint8_t u28;
  uint8_t type_scope; /* type in the low nibble, scope at CMDB_DESC_SCOPE_SHIFT */
  uint8_t kind;       /* low nibble */
  uint8_t flags_a;    /* CMDB_DESC_A_* */
  uint8_t u32_[2];
  uint8_t flags_b;    /* CMDB_DESC_B_* */
  uint8_t flags_c;    /* CMDB_DESC_C_* */
  uint8_t u36[12];
  void *defaults;     /* heap block of `size` bytes; the builder takes it, frees it, clears this */
  uint16_t refs[4];   /* CMDB_TYPE_REF: the nodes referred to, ended by 0 */
  void *source;       /* a cmdb_sql_desc_t with CMDB_DESC_B_SQL, else a u32 whose low 16 bits
                         name the node to take defaults from (0: none) */
  uint8_t u72[8];
  uint16_t size;      /* value size */
  uint16_t offset;    /* value offset within the parent's data part */
  uint16_t u84;
  uint16_t u86;
  uint8_t u88[32];
  struct cmdb_node_desc **children;
} cmdb_node_desc_t;

/* The domain table (CMDB_DOMAIN_GID), which the builder walks before the host's
 * schema, and the domains' "fqdn" attribute, for command-line code. */
extern GK_API cmdb_node_desc_t __cli_domain_node;
extern GK_API cmdb_node_desc_t __cli_fqdn_node;

/* SQL description a descriptor points at with CMDB_DESC_B_SQL. */
typedef struct cmdb_sql_desc {
  uint16_t u0;
  uint16_t number;
  uint8_t u4[12];
  const char *short1;
  const char *short2;
  const char *long1;
  const char *long2;
  uint8_t u48[15];
  uint8_t flag; /* CMDB_SQL_DESC_FLAG; the other bits are the host's */
} cmdb_sql_desc_t;
#define CMDB_SQL_DESC_FLAG 0x80u /* kept as 0 or 1 in cmdb_sql_node_t.flag */

/* Record of `cmdb_sql_node` (CMDB_SQL_NODES of them). */
typedef struct cmdb_sql_node {
  uint16_t gid;
  uint8_t flag;  /* 1 when the description's flag has CMDB_SQL_DESC_FLAG */
  uint8_t reserved;
  char name1[32]; /* first short name, or a first long name over name1 and name2 */
  char name2[32];
  char name3[64]; /* second long name; the description's number over its first two bytes */
} cmdb_sql_node_t;
#define CMDB_SQL_NODE_SIZE (CMDB_SQL_NODES * sizeof(cmdb_sql_node_t))
#define CMDB_NODE_INDEX_SIZE (CMDB_NODE_INDEX_SLOTS * sizeof(uint32_t))

/* The sub-region `cmdb_datasource`: which type-12 node refers to which. */
typedef struct cmdb_ref_pair {
  uint16_t gid; /* the referring node */
  uint16_t ref; /* the node it refers to */
} cmdb_ref_pair_t;
typedef struct cmdb_datasource {
  uint16_t count;
  cmdb_ref_pair_t pair[CMDB_DATASOURCE_PAIRS];
} cmdb_datasource_t;
#define CMDB_DATASOURCE_SIZE sizeof(cmdb_datasource_t)

/* Instance blocks: the first byte is the kind, the next three are zero. */
enum {
  CMDB_BLK_OBJECT = 2,  /* cmdb_object_block_t, gid at offset 8 */
  CMDB_BLK_TABLE = 3,   /* cmdb_table_block_t, gid at offset 8 */
  CMDB_BLK_INDEX = 4,   /* cmdb_entry_index_t */
  CMDB_BLK_LOCATOR = 6, /* cmdb_locator_block_t */
  CMDB_BLK_OTHER = 7    /* gid in its second u32 */
};

/* One instance of an object node. Instance blocks are written by the processes
 * that change configuration, under the write lock. */
typedef struct cmdb_object_block {
  uint32_t kind; /* CMDB_BLK_OBJECT */
  uint32_t unused;
  uint16_t gid;
  uint16_t nchild;
  uint32_t child[]; /* shmids of the child instance blocks, then the data part */
} cmdb_object_block_t;

/* All entries of one table instance, by position. */
typedef struct cmdb_table_block {
  uint32_t kind; /* CMDB_BLK_TABLE */
  uint32_t unused0;
  uint16_t gid;
  uint8_t unused1[6];
  int32_t count;    /* entries in use: positions 0 .. count - 1 */
  uint32_t pending; /* entries with CMDB_ENTRY_PENDING set */
  uint8_t nchild;   /* child slots per entry */
  uint8_t unused2[3];
  uint32_t index;   /* shmid of the entry index */
  uint8_t entries[];
} cmdb_table_block_t;

/* cmdb_entry_t.flags: pending marks, cleared by cmf_commit_get_entry_data. */
#define CMDB_ENTRY_PENDING 0x04u  /* counted in the table's `pending` */
#define CMDB_ENTRY_PENDING2 0x10u

/* An entry of a table block: this head, node `size` bytes of data after the
 * child slots; entries are cmf_get_entry_size bytes apart. */
typedef struct cmdb_entry {
  uint8_t flags;
  uint8_t unused[3];
  uint32_t ngid; /* top byte: entry group */
  uint32_t child[]; /* then the data part */
} cmdb_entry_t;
#define CMDB_NGID_GROUP_SHIFT 24

#define CMDB_INDEX_STEP 16 /* an entry index grows and shrinks by this many slots */
/* A table's entry positions in ascending key order (the typed comparison of the
 * key node: strings in version order, other types as unsigned integers); no two
 * entries have equal keys. */
typedef struct cmdb_entry_index {
  uint32_t kind;    /* CMDB_BLK_INDEX */
  uint32_t key_gid; /* node describing the key: its offset, type and size */
  int32_t capacity;
  int32_t count;
  uint32_t slot[];
} cmdb_entry_index_t;

/* Request for the insert and re-position actions. */
typedef struct cmdb_index_req {
  int32_t pos;      /* the entry's position */
  const void *data; /* its (new) data part, laid out like an entry's */
} cmdb_index_req_t;

/* Actions of __cmf_svr_binary_find_index. */
enum { CMDB_INDEX_FIND = 1, CMDB_INDEX_INSERT = 2, CMDB_INDEX_REPOSITION = 4 };

/* Where the entry of an ngid lies. The writers make and remove records; the
 * library changes one only when a block it names moves (cmf_shm_realloc). */
typedef struct cmdb_locator_rec {
  uint32_t ngid;
  uint32_t shmid; /* the block that holds the entry */
  uint32_t w2;    /* the writers' */
  uint32_t w3;
} cmdb_locator_rec_t;

/* One locator block per entry group; the writers keep its records sorted by ngid. */
typedef struct cmdb_locator_block {
  uint32_t kind; /* CMDB_BLK_LOCATOR */
  uint32_t count;
  uint32_t capacity;
  cmdb_locator_rec_t rec[];
} cmdb_locator_block_t;
#define CMDB_LOCATOR_GROUPS 5    /* entry groups 0..4, one locator block each */
#define CMDB_LOCATOR_CAPACITY 16 /* records of a locator block made at creation */

/* Entry addressing in a table block, by arithmetic only (no bounds check, no
 * lock): callers pass blocks of tables that exist and positions below count. An
 * entry is the table node's size + 4 x nchild + 8 bytes (a table whose gid has no
 * node reads as size 0). REQUIRES: read lock. */
GK_API uint32_t cmf_get_entry_size(const void *table) GK_NOEXCEPT;
GK_API void *cmf_get_table_entry(void *table, uint32_t pos) GK_NOEXCEPT;
GK_API uint32_t cmf_get_entry_ngid(void *table, uint32_t pos) GK_NOEXCEPT;
GK_API void *cmf_get_entry_data(void *table, uint32_t pos) GK_NOEXCEPT;
/* As cmf_get_entry_data, after taking the entry for commit: its pending marks are
 * cleared and the table's `pending` count drops with CMDB_ENTRY_PENDING.
 * REQUIRES: write lock. */
GK_API void *cmf_commit_get_entry_data(void *table, uint32_t pos) GK_NOEXCEPT;
/* The data part of an object block. REQUIRES: read lock. */
GK_API void *cmf_get_obj_data(void *obj) GK_NOEXCEPT;
/* The node's default data part (in the node record); null for a null node. */
GK_API void *get_cmdb_default_ptr(const cmdb_node_t *node) GK_NOEXCEPT;
/* Copies the node's defaults to dst: `size` bytes for len 0 or len above size,
 * else len; nothing for a negative len or null dst. The defaults' address, or null
 * (nothing copied) for a null node. */
GK_API void *copy_cmdb_default(const cmdb_node_t *node, void *dst, int32_t len) GK_NOEXCEPT;
/* The key inside an entry's data part of table gid (data + the entry node's
 * offset); null when gid is no table node with an entry node, or data is null. */
GK_API void *cmdb_get_master_key(uint32_t gid, void *data) GK_NOEXCEPT;
/* Child instance slots each entry (or the object) of this node carries: its (entry
 * node's) children of kinds 2, 3, 4, and 6 with CMDB_TYPE_LIST. 0 for null. */
GK_API uint32_t cmf_node_child_size(const cmdb_node_t *node) GK_NOEXCEPT;
/* gid's node when its parent is `parent`; null otherwise or for a null parent. */
GK_API cmdb_node_t *cmdb_find_child_node(const cmdb_node_t *parent, uint32_t gid) GK_NOEXCEPT;
/* Typed comparison (<0, 0, >0) with the node's type and size: strings in version
 * order (item9 before item10), read within their field even without a NUL; other
 * types as unsigned little-endian integers. The key against an entry's key; the
 * attribute at the node's offset in two data parts; the same driven by a
 * descriptor. 0 when an argument is null. */
GK_API int cmdb_compare_key(const void *key, const void *entry_key, const cmdb_node_t *node) GK_NOEXCEPT;
GK_API int cmdb_compare_attr_data(const void *a, const void *b, const cmdb_node_t *node) GK_NOEXCEPT;
GK_API int cli_compare_attr_data(const void *a, const void *b, const cmdb_node_desc_t *desc) GK_NOEXCEPT;

/* The entry index of `table`, whose block is *index (its shmid at *index_shmid,
 * both updated when insert grows the block). key_or_req is the key for
 * CMDB_INDEX_FIND, a cmdb_index_req_t otherwise. Find: the position whose key
 * equals the key, or -1. Insert (call it before the table's entries move): 0, or
 * -1 for a duplicate key or an index that cannot grow (logged). Re-position (call
 * it with the new data before storing it): 0, or -1 for a duplicate key or a
 * position not in the index (logged). Any other action: 0. A count, capacity or
 * slot that would send a read past its block is logged as damage: -1.
 * REQUIRES: read lock to find, write lock (owner) to change. */
GK_API int __cmf_svr_binary_find_index(void *table, uint32_t *index_shmid, cmdb_entry_index_t **index,
                                       const void *key_or_req, int action) GK_NOEXCEPT;
/* The find action. */
GK_API int __cmf_svr_find_entry_by_index(void *table, uint32_t *index_shmid, cmdb_entry_index_t **index,
                                         const void *key) GK_NOEXCEPT;
/* Removes position pos, whose entry has left the table (the later ones moved down),
 * renumbers the slots above it, and shrinks the block by a step once more than a
 * step is free. Always 0. REQUIRES: write lock, owner. */
GK_API int __cmf_svr_binary_del_index(void *table, uint32_t *index_shmid, cmdb_entry_index_t **index,
                                      int pos) GK_NOEXCEPT;
/* Position of the entry with this key, through the table's own index; -1 when
 * absent, or after a level-3 line when the table names no index block.
 * REQUIRES: read lock. */
GK_API int __cmf_svr_find_table_entry(void *table, const void *key) GK_NOEXCEPT;
/* Record number of ngid in a locator block, or -1. REQUIRES: read lock. */
GK_API int cmf_svr_find_entry_index(void *locator, uint32_t ngid) GK_NOEXCEPT;

/* Domains: configuration contexts, each with a name, an id and a root block, in
 * the `domain` sub-region; `domid_index` and `domname_index` hold the record
 * numbers in ascending id order and case-insensitive name order. The writers keep
 * all of it under the write lock. Domain id 0 is the global context. */
typedef struct cmdb_domain_rec {
  char name[256]; /* NUL-terminated; names are unique regardless of case */
  uint32_t id;
  uint32_t root;  /* shmid of the domain's root block */
} cmdb_domain_rec_t;

typedef struct cmdb_domain_table {
  uint32_t global_root; /* shmid of the global context's root block */
  uint32_t unused;
  int32_t count;
  cmdb_domain_rec_t rec[];
} cmdb_domain_table_t;

/* A top-level element's instance block in one context. */
typedef struct cmdb_root_entry {
  uint16_t gid;
  uint16_t unused;
  uint32_t shmid;
} cmdb_root_entry_t;

typedef struct cmdb_root_block {
  uint16_t unused;
  uint16_t count;
  cmdb_root_entry_t entry[]; /* ascending gid */
} cmdb_root_block_t;

/* Called with each domain's id (the current domain switched to it) and the
 * caller's argument. */
typedef int (*cmdb_domain_visitor)(uint32_t id, uintptr_t arg);

/* Every domain lookup REQUIRES: read lock, across the use of what it returns.
 * A count past the mapping, or an index naming no record, fails the lookup. */
/* The halving search of the id (name) index. mode 0: the record number; 1: the
 * index position; 2 or more: the position, or where the key would go when absent.
 * -1 when absent (modes 0 and 1), the name is null, or nothing is mapped. */
GK_API int __cmdb_find_domain_by_id(uint32_t id, int mode) GK_NOEXCEPT;
GK_API int __cmdb_find_domain_by_name(const char *name, int mode) GK_NOEXCEPT;
/* count - 1, or -1 without domains or a `domain` mapping. */
GK_API int __cmdb_find_find_last_domain_index(void) GK_NOEXCEPT;
/* The table's count as it stands (0 without a mapping). */
GK_API int cmf_shm_domain_size(void) GK_NOEXCEPT;
/* The id of the last record in storage order, storing the count at *count (when
 * not null); 0 and 0 without domains. */
GK_API uint32_t cmf_shm_find_last_domain_id(uint32_t *count) GK_NOEXCEPT;
/* The name of domain id inside the region, or null. */
GK_API char *cmf_shm_find_domain_name(uint32_t id) GK_NOEXCEPT;
/* The id of the domain of that name (any case), or 0. */
GK_API uint32_t cmf_shm_find_domain_id(const char *name) GK_NOEXCEPT;
/* Copies domain id's name into len bytes of dst, always ending them with a NUL. 0,
 * or -1 for an unknown id. */
GK_API int cmf_shm_get_domain_name(char *dst, int len, uint32_t id) GK_NOEXCEPT;
/* Record recno's name (into dst, as above, when dst is given) and id (at *id). 0,
 * or -1 for a record number outside the table. */
GK_API int cmf_shm_domain_info(int recno, char *dst, int len, uint32_t *id) GK_NOEXCEPT;
/* The root block of domain id (0: the global context), or null. */
GK_API cmdb_root_block_t *cmdb_find_domain_by_id(uint32_t id) GK_NOEXCEPT;
/* The root block of the domain of that name (null: the global context), or null. */
GK_API cmdb_root_block_t *cmdb_find_domain_by_name(const char *name) GK_NOEXCEPT;
/* The shmid slot of node's root entry in a root block, or null. */
GK_API uint32_t *cmdb_find_domain_entity(cmdb_root_block_t *root, const cmdb_node_t *node) GK_NOEXCEPT;
/* The shmid slot of element gid's root entry in domain domain_id: a global element
 * (scope without CMDB_SCOPE_DOMAIN) always in the global context; a per-domain one
 * in domain 0 only with CMDB_SCOPE_GLOBAL_TOO, else null after a level-4 line. */
GK_API uint32_t *cmdb_find_root_entity(uint32_t domain_id, uint32_t gid) GK_NOEXCEPT;
/* Calls the visitor for every domain in storage order (not the global context),
 * with the current domain (cmf_set_cur_domain_id) switched to it, and restores the
 * current domain after. The last result (0 without domains), -1 for a null
 * visitor. The _until_nz form stops at the first non-zero result. The visitor runs
 * under whatever lock the caller holds. */
GK_API int cmf_iterate_all_domain(cmdb_domain_visitor visitor, uintptr_t arg) GK_NOEXCEPT;
GK_API int cmf_iterate_all_domain_until_nz(cmdb_domain_visitor visitor, uintptr_t arg) GK_NOEXCEPT;
/* Re-sorts the id index by domain id, when both indexes are mapped and the id index
 * names only records of the table. REQUIRES: write lock. */
GK_API void cmf_shm_resolve_alldomain(void) GK_NOEXCEPT;

/* Table size limits, per platform index 0..29 (column 0 is all zero). */
#define CMDB_PLATFORMS 30
typedef struct cmdb_size_rec {
  uint16_t gid;
  uint8_t entry_grp;
  uint8_t reserved;
  uint32_t size[CMDB_PLATFORMS];
  uint32_t tsize[CMDB_PLATFORMS];
  uint32_t sz_warning[CMDB_PLATFORMS];
  uint16_t flag;
  uint16_t tsize_extra;
} cmdb_size_rec_t;

#define CMDB_SIZE_TABLE_ROWS 107
/* The compiled-in limits, in their fixed order (not by gid). */
extern GK_API const cmdb_size_rec_t size_table[CMDB_SIZE_TABLE_ROWS];

/* The limits of one table node for the region's platform, copied by the creator
 * into `cmdb_global`. */
typedef struct cmdb_table_limit {
  uint32_t gid;
  uint32_t tcnt; /* live entry count, kept by the writers under the write lock */
  uint32_t size;
  uint32_t tsize;
  uint32_t sz_warning;
} cmdb_table_limit_t;

#define CMDB_TABLE_LIMITS_MAX 124
typedef struct cmdb_table_limits {
  uint16_t count;
  uint16_t reserved;
  cmdb_table_limit_t rec[CMDB_TABLE_LIMITS_MAX];
} cmdb_table_limits_t;

/* Lookups in size_table (the low 16 bits of gid count; no lock): the size limit,
 * the total limit (5 x size when the row has none), the warning threshold, the
 * entry group. A gid without a row gets 256, 256, 0 and group 0; a platform index
 * above 29 gets -1. */
GK_API int cmdb_get_table_size(uint32_t gid, int platform) GK_NOEXCEPT;
GK_API int cmdb_get_table_tsize(uint32_t gid, int platform) GK_NOEXCEPT;
GK_API int cmdb_get_table_sz_warning(uint32_t gid, int platform) GK_NOEXCEPT;
GK_API int cmdb_get_table_entry_grp(uint32_t gid) GK_NOEXCEPT;
/* The region's limits of table gid (REQUIRES: read lock): its record number or -1;
 * the record or null; its tcnt, size and tsize, or 0xFFFFFFFF when it has none. */
GK_API int cmf_get_table_tcnt_pos(uint32_t gid) GK_NOEXCEPT;
GK_API cmdb_table_limit_t *cmf_get_tablesize(uint32_t gid) GK_NOEXCEPT;
GK_API uint32_t cmf_get_table_tcnt(uint32_t gid) GK_NOEXCEPT;
GK_API uint32_t cmf_get_max_table_entry(uint32_t gid) GK_NOEXCEPT;
GK_API uint32_t cmf_get_max_table_tentry(uint32_t gid) GK_NOEXCEPT;

/* Instance lookups. */
#define CMDB_DEVICES_MAX 64
/* The `devices` sub-region, kept by the hosts. */
typedef struct cmdb_device_table {
  uint16_t count;
  uint16_t unused;
  uint8_t rec[CMDB_DEVICES_MAX][176]; /* numbered 1..64; each begins with its u32 id */
  uint8_t order[CMDB_DEVICES_MAX];    /* record numbers sorted by device id */
} cmdb_device_table_t;
#define CMDB_DEVICES_SIZE sizeof(cmdb_device_table_t)

#define CMDB_SERVICES 164
#define CMDB_SERVICE_SIZE 216

/* The sub-region `cmdb_global`, written by the owner only. */
typedef struct cmdb_global {
  cmdb_slab_cache_table_t caches;   /* the allocator's size classes and slab lists */
  uint32_t locators_ready;          /* set once the locator blocks exist */
  uint32_t locator[CMDB_LOCATOR_GROUPS]; /* shmid of each entry group's locator block */
  cmdb_table_limits_t table_limits; /* this platform's limits, sorted by gid */
  uint8_t services[CMDB_SERVICES][CMDB_SERVICE_SIZE]; /* the host's service table, sorted by gid */
} cmdb_global_t;
#define CMDB_GLOBAL_SIZE sizeof(cmdb_global_t)

/* A filter for cmf_shm_match_filter: an attribute and the value it must hold. */
typedef struct cmdb_filter {
  uint16_t gid;
  uint8_t unused[6];
  uint8_t value[]; /* compared with the attribute */
} cmdb_filter_t;

/* Every instance lookup REQUIRES: read lock, across the use of its result (write
 * lock to replace a shmid through a returned slot). They fail quietly with null. */
/* The child block of entry pos (of an object) whose gid is gid; null for a
 * position not below count, or none. */
GK_API void *cmf_find_table_child_table(void *table, int pos, uint32_t gid) GK_NOEXCEPT;
GK_API void *cmf_find_obj_child_table(void *obj, uint32_t gid) GK_NOEXCEPT;
/* The slot that holds the shmid of gid's child instance inside an object, or inside
 * a table's entry found by key through its index (key not null) or else at pos.
 * A position above count is logged at level 4. */
GK_API uint32_t *cmdb_find_child_obj(void *parent, uint32_t gid, const void *key, int pos) GK_NOEXCEPT;
/* cmdb_find_child_obj on the block of parent_shmid, position 0. */
GK_API uint32_t *cmdb_find_child_entity(uint32_t parent_shmid, uint32_t gid, const void *key) GK_NOEXCEPT;
/* The locator record of ngid (its top byte names the entry group), by value; all
 * zero when there is none. */
GK_API cmdb_locator_rec_t cmdb_entry_from_index(uint32_t ngid) GK_NOEXCEPT;
/* The device record of id, or null. */
GK_API void *cmf_find_device_entry(uint32_t id) GK_NOEXCEPT;
/* The service record whose first u32 is gid (bsearch), or null. */
GK_API void *cmf_find_service_by_gid(uint32_t gid) GK_NOEXCEPT;
/* 1 when entry pos's attribute (a direct child of the table's node) equals the
 * filter's value: CMDB_TYPE_TEXT exactly, the other string types ignoring case
 * under the table's CMDB_NODE_NOCASE, other types byte for byte; else 0. */
GK_API int cmf_shm_match_filter(void *table, int pos, const void *filter) GK_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Change events                                                             */
/* ------------------------------------------------------------------------ */

#define CMDB_EVENT_MAX 128
#define CMDB_EVENT_PROCS 16
#define CMDB_EVENT_NAME 20   /* process names are compared and copied over this many bytes */
#define EVENT_WITH_DATA 0x01u

/* Event classes: a message's act carries one, a registration's act any mix. */
#define CMDB_EV_INSERT 0x01u   /* acts CMDB_ACT_INSERT */
#define CMDB_EV_UPDATE 0x02u   /* CMDB_ACT_UPDATE, CMDB_ACT_19 */
#define CMDB_EV_DELETE 0x04u   /* CMDB_ACT_DELETE */
#define CMDB_EV_ACT13_17 0x08u /* CMDB_ACT_13 .. CMDB_ACT_17 */
#define CMDB_EV_ACT12 0x10u    /* CMDB_ACT_12 */
#define CMDB_EV_ACT27 0x20u    /* CMDB_ACT_27 */
#define CMDB_EV_RELOAD 0x40u   /* cmdb_send_reload_event */

/* Acts of cmdb_event_call_daemon; every other act announces nothing. Beyond the
 * class and the data blocks each carries, acts 12 to 27 mean what the hosts make them mean. */
enum {
  CMDB_ACT_INSERT = 1,  /* the new data part in the second block */
  CMDB_ACT_UPDATE = 2,  /* the old data part first, the new one second */
  CMDB_ACT_DELETE = 11, /* the old data part in the first block */
  CMDB_ACT_12 = 12,     /* no data */
  CMDB_ACT_13 = 13,     /* 13 to 17: the second block */
  CMDB_ACT_17 = 17,
  CMDB_ACT_19 = 19,     /* both blocks, as CMDB_ACT_UPDATE */
  CMDB_ACT_27 = 27      /* the second block */
};

/* The acts of the table primitive cmdb_event_entry_act. */
enum { CMDB_ENTRY_LOOKUP = 0, CMDB_ENTRY_ADD = 1, CMDB_ENTRY_REMOVE = 2 };

/* One process registered for a gid's changes. */
typedef struct cmdb_event_proc {
  char process[CMDB_EVENT_NAME]; /* its event process name; empty: a free slot */
  uint8_t reserved[2];
  uint8_t act;   /* CMDB_EV_* classes wanted */
  uint8_t flags; /* EVENT_WITH_DATA: the changed data comes along (and no reload events) */
} cmdb_event_proc_t;

/* One gid's registrations: used slots first. A record lives while it has one. */
typedef struct cmdb_event_entry {
  uint16_t obj_gid;
  cmdb_event_proc_t procs[CMDB_EVENT_PROCS];
} cmdb_event_entry_t;

/* Start of the `cmdb_event` sub-region, CMDB_EVENT_SIZE bytes: `count` records in
 * ascending obj_gid. Every attached process writes it, under the event table lock. */
typedef struct cmdb_event_table {
  uint32_t count;
  cmdb_event_entry_t rec[CMDB_EVENT_MAX];
} cmdb_event_table_t;
#define CMDB_EVENT_SIZE 49800

/* What the library reads of the host's schema descriptor that a sender passes as
 * `desc` (and nCfg_query returns): the bytes of the last element of its array go
 * with each message. The rest of the record belongs to the host. */
typedef struct cmdb_host_desc_elem {
  uint8_t unused0[8];
  const void *bytes;
  int32_t len;
  uint8_t unused1[4];
} cmdb_host_desc_elem_t;
typedef struct cmdb_host_desc {
  uint8_t unused0[134];
  uint8_t elem_count; /* in the high four bits */
  uint8_t unused1[9];
  const cmdb_host_desc_elem_t *elems;
} cmdb_host_desc_t;
#define CMDB_HOST_DESC_COUNT_SHIFT 4

/* One datagram to "/tmp/EVENT_D_<name>": this header, then the present data blocks
 * and the descriptor bytes. Host byte order; sender and receiver share one host. */
typedef struct cmdb_event_msg {
  uint16_t gid;
  uint16_t reserved0;
  uint32_t domain_id; /* the sender's current domain */
  uint8_t act;        /* one CMDB_EV_* class */
  uint8_t reserved1[3];
  uint32_t data_size; /* of each data block: the node's size, or 0 */
  uint32_t total_size;
  uint32_t reserved2;
  uint64_t data1; /* non-zero when present; the receiver points it into the message */
  uint64_t data2;
  uint64_t desc;
} cmdb_event_msg_t;

/* Runs with a message that lives only for the call; its result is ignored. */
typedef int (*cmdb_event_handler)(cmdb_event_msg_t *msg);

/* Process names are compared and copied over CMDB_EVENT_NAME bytes; null reads as
 * empty. 1 for a null or empty name; strncpy that always ends dst with a NUL
 * (returns dst); strncmp. */
GK_API int cmdb_strempty(const char *s) GK_NOEXCEPT;
GK_API char *cmdb_strcpy(char *dst, const char *src) GK_NOEXCEPT;
GK_API int cmdb_strcmp(const char *a, const char *b) GK_NOEXCEPT;

/* The one primitive on the registration table. With buf null: the record of gid,
 * or -1. Found: CMDB_ENTRY_LOOKUP copies it to buf; CMDB_ENTRY_ADD puts buf's first
 * slot in the slot of its name or the first free one (-1, logged, when 16 others
 * hold them) and copies the record back; CMDB_ENTRY_REMOVE takes buf's name out
 * (and the record, once empty). Not found: CMDB_ENTRY_ADD inserts buf as gid's
 * record (-1 when the table holds CMDB_EVENT_MAX, through the host's message log);
 * other acts -1. The record's index, or -1; -1 without the sub-region.
 * REQUIRES: event table lock (cmdb_event_write_lock; read lock for a look-up). */
GK_API int cmdb_event_entry_act(uint16_t gid, int act, cmdb_event_entry_t *buf) GK_NOEXCEPT;
/* Registers process for gid's changes of the act classes (a second registration
 * of the name replaces act and flags), under the event table lock (which it takes:
 * its failure is ignored). 0, also without effect for gid 0 or a null process; -1
 * without the sub-region (logged at level 3) or when the table or record is full. */
GK_API int cmdb_register_event(const char *process, uint16_t gid, uint8_t act, uint8_t flags) GK_NOEXCEPT;
/* Withdraws process from gid's record, taking the lock likewise. 0 when gid has a
 * record (whether or not the name was in it), also for gid 0 or a null process;
 * -1 when it has none or without the sub-region (logged at level 4). */
GK_API int cmdb_unregister_event(const char *process, uint16_t gid) GK_NOEXCEPT;
/* The same without the lock. REQUIRES: event table lock held for writing. */
GK_API int _cmdb_register_event(const char *process, uint16_t gid, uint8_t act, uint8_t flags) GK_NOEXCEPT;
GK_API int _cmdb_unregister_event(const char *process, uint16_t gid) GK_NOEXCEPT;
/* The events subsystem's log: written while the debug zone's event_log_level is
 * above level (the library logs at 0), to standard output under the debug flag,
 * else to do_message; nothing without a debug zone. */
GK_API void dbg_cmdb_event(int level, const char *fmt, ...) GK_NOEXCEPT __attribute__((format(printf, 2, 3)));

/* Announces a change of gid with a CMDB_ACT_*: one datagram to each registered
 * process whose act mask has the act's class, with the data blocks (from offset
 * 0 for tables and objects, else from the node's offset, `size` bytes each) to
 * those registered EVENT_WITH_DATA, and desc's bytes (cmdb_host_desc_t) to all.
 * Takes the event table lock for writing. Sends never wait: a receiver whose queue
 * is full misses the event; one that is gone is logged and unregistered. Nothing
 * is sent while the debug zone's event_switch is set or no debug zone is mapped.
 * 0 (also for no registration or an act without a class); -1 gid out of range or
 * without a node; -3 (INSERT, 13-17 and 27: -6) the second block missing, -4
 * either block of an UPDATE, -5 the first block of a DELETE. */
GK_API int cmdb_event_call_daemon(uint16_t gid, uint8_t act, const void *data1, const void *data2,
                                  const void *desc) GK_NOEXCEPT;
/* A CMDB_EV_RELOAD datagram, with nCfg_query's descriptor, to each process
 * registered for gid without EVENT_WITH_DATA, whatever its mask; locks and sends as
 * above. 0 (also with events off); -1 gid has no registration. */
GK_API int cmdb_send_reload_event(uint16_t gid) GK_NOEXCEPT;

/* The receiver: one per process, used from one thread. Binds "/tmp/EVENT_D_<name>"
 * (the name's first 16 characters; a stale file of that name is removed first),
 * empties the handler table and replaces an earlier socket. The descriptor, which
 * the library owns and the caller polls; -1 no socket (logged); -83 bind failed
 * (logged); -91 and -98 the descriptor cannot be made non-blocking (nonblock != 0). */
GK_API int cmdb_event_init(const char *process, int nonblock) GK_NOEXCEPT;
/* Installs handler for gid's messages of the act classes, and registers the process
 * in the shared table (the latest handler's act and flags are what senders see).
 * 0, also without effect for gid 0, a null handler or before cmdb_event_init; -1
 * no free entry (40 gids); -2 the handler is already installed for gid; -3 the
 * shared registration failed; -4 gid has four handlers. */
GK_API int register_cmdb_event(uint16_t gid, uint8_t act, uint8_t flags, cmdb_event_handler handler) GK_NOEXCEPT;
/* Removes handler from gid and withdraws the process's registration for gid, even
 * when other handlers remain; removing a gid's first handler removes them all. */
GK_API void unregister_cmdb_event(uint16_t gid, cmdb_event_handler handler) GK_NOEXCEPT;
/* Reads one datagram and runs the handlers of its gid whose mask has its class, in
 * slot order. No lock. 0 when nothing was waiting (non-blocking socket) or the
 * message was handled; -1 (logged at level 0) for a datagram that is shorter than
 * a header or does not match its header, or for a gid without handlers, all
 * consumed and dropped, or when there is no memory for it (left queued). */
GK_API int do_cmdb_event_handling(void) GK_NOEXCEPT;
/* Withdraws every registration of the installed gids (taking the event table
 * lock), closes the socket and forgets the name; the socket file stays in /tmp. */
GK_API void cmdb_event_cleanup(void) GK_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Utilities                                                                 */
/* ------------------------------------------------------------------------ */

/* Growable text buffer in process memory, one thread's at a time; a zero record is
 * valid and empty. Every call accepts a null record and returns 0, except the
 * base64 pair. A growth reallocates to the content plus what is added plus 32
 * bytes; a failed one is logged at level 3 and leaves the record as it was. After
 * an append, a reset, a formatted append or a base64 call, data[len] is a NUL. */
typedef struct cmf_buf {
  char *data; /* heap block, owned by the record until cmf_buf_free */
  char *last; /* where the latest append or character went */
  uint32_t len;
  uint32_t size;
} cmf_buf_t;

/* 512 zero bytes: 512, or -1 when out of memory (data null). */
GK_API int cmf_buf_init(cmf_buf_t *b) GK_NOEXCEPT;
/* Frees data and zeroes the record; 0. */
GK_API int cmf_buf_free(cmf_buf_t *b) GK_NOEXCEPT;
/* Appends one byte (no terminator stored): 1, or -1 when growth fails. */
GK_API int cmf_buf_cat(cmf_buf_t *b, int c) GK_NOEXCEPT;
/* Appends n bytes (n = 0: strlen(src)); a null src only makes room for n. n, or -1
 * when growth fails. src may lie inside the buffer. */
GK_API int cmf_buf_append(cmf_buf_t *b, const void *src, int n) GK_NOEXCEPT;
/* Empties the content, then cmf_buf_append. */
GK_API int cmf_buf_reset(cmf_buf_t *b, const void *src, int n) GK_NOEXCEPT;
/* Formatted append: 0 fitted, 1 fitted after growth, -2 no room (or an output
 * error from vsnprintf), -3 still too long. Content is unchanged on failure. */
GK_API int cmf_buf_vsnprintf(cmf_buf_t *b, const char *fmt, va_list ap) GK_NOEXCEPT;
GK_API int cmf_buf_snprintf(cmf_buf_t *b, const char *fmt, ...) GK_NOEXCEPT __attribute__((format(printf, 2, 3)));
/* Replace the content by its base64 text / by the bytes its text encodes: the new
 * len; -6 out of memory; -152 the codec refused (content unchanged); -1 null b. */
GK_API int cmf_buf_base64_encode(cmf_buf_t *b) GK_NOEXCEPT;
GK_API int cmf_buf_base64_decode(cmf_buf_t *b) GK_NOEXCEPT;

/* Boot ("init0") values and global flags in `daemon_status`, which the library gives
 * no meaning. A process that has it unmapped maps it for the one access
 * (attach/detach_cmfshm_for_init, not safe against another thread doing the same);
 * when it cannot be mapped, setters do nothing and getters return 0. No lock: each
 * access is one 32-bit load or store; the flag changes are atomic. */
typedef struct cmdb_daemon_status {
  uint32_t mail_mode;
  uint32_t global_flags;
  uint32_t unused8;
  uint32_t dbdaemon_flag;
  uint32_t fips_mode;
  uint32_t entropy_token;
  uint32_t unused24;
  uint32_t reload_type;
  uint32_t reload_value;
  uint8_t rest[68];
} cmdb_daemon_status_t;
#define CMDB_DAEMON_STATUS_SIZE sizeof(cmdb_daemon_status_t)

/* Also copies the mode into the debug zone, for orv_mail_mode, when one is mapped. */
GK_API void set_init0_mail_mode(uint32_t v) GK_NOEXCEPT;
GK_API uint32_t get_init0_mail_mode(void) GK_NOEXCEPT;
GK_API void set_init0_dbdaemon_flag(uint32_t v) GK_NOEXCEPT;
GK_API uint32_t get_init0_dbdaemon_flag(void) GK_NOEXCEPT;
GK_API void set_init0_fips_mode(uint32_t v) GK_NOEXCEPT;
GK_API uint32_t get_init0_fips_mode(void) GK_NOEXCEPT;
GK_API void set_init0_entropy_token(uint32_t v) GK_NOEXCEPT;
GK_API uint32_t get_init0_entropy_token(void) GK_NOEXCEPT;
GK_API void set_init0_reload_type(uint32_t v) GK_NOEXCEPT;
GK_API uint32_t get_init0_reload_type(void) GK_NOEXCEPT;
GK_API void set_init0_reload_value(uint32_t v) GK_NOEXCEPT;
GK_API uint32_t get_init0_reload_value(void) GK_NOEXCEPT;
/* ORs bits into the global flags (0 clears them all). */
GK_API void global_flag_set_flag(uint32_t bits) GK_NOEXCEPT;
/* Clears bits. */
GK_API void global_flag_unset_flag(uint32_t bits) GK_NOEXCEPT;
/* The global flags AND mask. */
GK_API uint32_t global_flag_if_set(uint32_t mask) GK_NOEXCEPT;
/* "Server", "Gateway", "Transparent", "Management" for modes 1, 2, 4, 8 (constants);
 * "Unknown %d" otherwise, in one static buffer of the process that the next such
 * call overwrites. Mode 0 names orv_mail_mode ("Unknown 0" without a debug zone). */
GK_API const char *orv_opmode_name(int mode) GK_NOEXCEPT;
/* cmf_do_backup_conf with a backup block of the non-HA scope and type 2 or 3, or of
 * the system scope and the given type; its result. */
GK_API int cmf_backup_non_haconf_conf(void) GK_NOEXCEPT;
GK_API int cmf_backup_non_ha_conf(void) GK_NOEXCEPT;
GK_API int cmf_backup_system_conf(const char *text, uint8_t type) GK_NOEXCEPT;
/* cmf_do_exec_conf with value and an execution block holding a and b; its result. */
GK_API int cmf_ha_exec_conf(void *value, uint32_t a, uint32_t b) GK_NOEXCEPT;
/* dst[i] takes src[i]'s bits where mask[i] has ones, for i < len; returns 0. */
GK_API int bfcpy(uint8_t *dst, const uint8_t *src, int len, const uint8_t *mask) GK_NOEXCEPT;

/* The library log: dropped above the header's log_level while the header is mapped
 * (everything passes before an attach); standard output under CMDB_FLAG_DEBUG,
 * else the host's do_message. Levels: 2 fatal, 3 errors, 4 warnings, 5 notices. */
GK_API void dbg_cmdb(uint32_t level, const char *fmt, ...) GK_NOEXCEPT __attribute__((format(printf, 2, 3)));

/* ------------------------------------------------------------------------ */
/* Platform interfaces: defaults live in the library; a host replaces one by  */
/* defining a function of the same name.                                     */
/* ------------------------------------------------------------------------ */

/* The host's log, given the format and arguments as they came (default: syslog,
 * LOG_INFO): the library log's destination. */
GK_API void do_message(const char *fmt, va_list ap) GK_NOEXCEPT;
/* The host's platform log (default: syslog, LOG_NOTICE), for notices operators watch. */
GK_API void message(const char *fmt, ...) GK_NOEXCEPT __attribute__((format(printf, 1, 2)));
/* The host's crash log (default: syslog, LOG_CRIT), for file errors in the region. */
GK_API void log_crash(const char *fmt, ...) GK_NOEXCEPT __attribute__((format(printf, 1, 2)));
/* A back trace to the crash log, from frame depth. */
GK_API void print_trace(int depth) GK_NOEXCEPT;
/* Host schema descriptor of a gid (cmdb_host_desc_t); the default knows none: null. */
GK_API void *nCfg_query(int gid) GK_NOEXCEPT;
/* The calling context's current domain; the default keeps one per thread, 0 at start. */
GK_API uint32_t cmf_get_cur_domain_id(void) GK_NOEXCEPT;
GK_API void cmf_set_cur_domain_id(uint32_t id) GK_NOEXCEPT;
/* Configuration backup and execution; the defaults log "not supported" and return
 * -ENOTSUP with errno ENOTSUP. */
GK_API int cmf_do_backup_conf(uintptr_t first, const char *text, const void *block) GK_NOEXCEPT;
GK_API int cmf_do_exec_conf(uintptr_t value, const void *block) GK_NOEXCEPT;
/* RFC 4648. encode: NUL-terminated text, result its length or -1 when dst is too
 * small. decode: result the byte count, -1 on bad input (foreign characters, data
 * after '=', wrong padding, non-zero spare bits) or a short dst; a missing final
 * padding is accepted. */
GK_API int b64_encode(const unsigned char *src, int srclen, char *dst, int dstlen) GK_NOEXCEPT;
GK_API int b64_decode(const char *src, unsigned char *dst, int dstlen) GK_NOEXCEPT;

#ifdef __cplusplus
}
#pragma GCC diagnostic pop
#endif

#if defined(__cplusplus) && defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

#endif /* GIKRAIDRUM_H */
