/*
 * gikraidrum: the core library of the cmdb shared-memory configuration database.
 *
 * One owner process creates the region under "/dev/cmdb/" from a schema and is
 * the only one that allocates in it; every other process attaches, reads under
 * the cross-process reader/writer lock, hears of changes through AF_UNIX
 * datagrams and shares a few status words. Every layout below is shared between
 * processes: little-endian, fixed offsets, natural x86-64 C alignment.
 *
 * Valid C99 and C++. Nothing here allocates on behalf of the caller unless said.
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
extern "C" {
#else
#define GK_NOEXCEPT
#endif

#if defined(__cplusplus) && __cplusplus >= 201103L
#define GK_STATIC_ASSERT(c, m) static_assert(c, m)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define GK_STATIC_ASSERT(c, m) _Static_assert(c, m)
#else
#define GK_STATIC_ASSERT(c, m)
#endif

/* ------------------------------------------------------------------------ */
/* Constants                                                                 */
/* ------------------------------------------------------------------------ */

#define CMDB_DIR "/dev/cmdb/"
#define CMDB_MAX_GID 1861
#define CMDB_RWLOCK_FULL 32767
#define CMDB_SEM_KEY 230236253 /* main lock */
#define DBGZ_SEM_KEY 230236254 /* debug-zone lock 0; lock 1 is DBGZ_SEM_KEY + 1 */
#define CMDB_HEADER_MAGIC 0x00E0E71Cu

/* `cmdb.flags` bits */
#define CMDB_FLAG_DEBUG 0x01u
#define CMDB_FLAG_INITIALIZED 0x02u
#define CMDB_FLAG_ATTACHED 0x04u
#define CMDB_FLAG_OWNER 0x10u

/* Debug-zone offsets that several subsystems use. */
#define DZ_EVENT_SWITCH 0        /* u32: events are sent only while 0 */
#define DZ_MAIL_MODE 8           /* u32: copy of the mail mode */
#define DZ_DEBUG_BYTE 0x240      /* u8: bit 0 is the process debug switch */
#define DZ_READER_SLOT_NEXT 3304 /* u8 */
#define DZ_READER_PIDS 3308      /* 256 x u32 */
#define DZ_LOCK_STATS 4336       /* 256 x cmdb_lock_stat_t */
#define DZ_EVENT_LOG_LEVEL 21792 /* i32 */
#define DZ_DOMAIN_SLOTS 300940   /* u32: D + 1 */
#define DZ_DOMAIN_RECORDS 300960 /* (D + 1) x 276 bytes */

/* ------------------------------------------------------------------------ */
/* Region handle and header                                                 */
/* ------------------------------------------------------------------------ */

/* Head of the sub-region `cmdb_global_rw`, 32840 bytes in all. */
typedef struct cmdb_header {
  uint32_t magic;     /* 0x00E0E71C, written at creation, never tested */
  uint32_t log_level; /* dbg_cmdb drops messages above this level; 3 at creation */
  uint16_t nodes;     /* 1603 */
  uint16_t max_gid;   /* 1861 */
  uint16_t sql;       /* 85 */
  uint8_t reserved0[2];
  uint32_t version;   /* +1 on every set_cmdb_nxt_update, under the write lock */
  uint8_t reserved1[4];
  uint32_t owner;     /* pid of the last caller of set_cmdb_nxt_update */
  uint8_t reserved2[16];
  uint32_t platform;  /* platform index the region was sized for */
  uint8_t reserved3[8];
  /* 0x38: the stat_global area runs to the end of the sub-region */
} cmdb_header_t;

#define CMDB_HEADER_STAT_GLOBAL 0x38
#define CMDB_GLOBAL_RW_SIZE 32840

/* The process's handle on the region. Nothing in it is shared. */
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
  void *stat_global;     /* cmdb_global_rw + 0x38 */
  void *cmdb_global;
  void *slab_caches;     /* cmdb_global + 0 */
  uint32_t *index_roots; /* cmdb_global + 0x11C: flag, then five locator shmids */
  void *table_limits;    /* cmdb_global + 0x134 */
  void *services;        /* cmdb_global + 0xAE8 */
  void *cmdb_event;
  void *devices;
  void *debug_zone;
  void *admin_login_status;
  uint8_t statistics[72]; /* host-owned; the library only hands out its address */
} cmdb_record_t;

extern GK_API cmdb_record_t cmdb;
extern GK_API void *nCfg_debug_zone; /* == cmdb.debug_zone after init_cmdb_app_core */

/* Accessors: no lock, no check; valid while the sub-region they read is mapped. */
GK_API cmdb_header_t *get_cmdb_header(void) GK_NOEXCEPT;
GK_API void *get_cmdb_stat_global(void) GK_NOEXCEPT;
GK_API void *get_cmdb_dzone(void) GK_NOEXCEPT;
GK_API void *get_shmtree_root(void) GK_NOEXCEPT;
GK_API void set_shmtree_root(void *root) GK_NOEXCEPT;
GK_API uint32_t get_cmdb_updatetime(void) GK_NOEXCEPT;
GK_API uint32_t cmdb_get_version(void) GK_NOEXCEPT;
GK_API uint32_t cmdb_get_owner(void) GK_NOEXCEPT;
GK_API void cmdb_save_version(void) GK_NOEXCEPT;
/* 1 when the shared version differs from the one saved by cmdb_save_version. */
GK_API int cmdb_version_changed(void) GK_NOEXCEPT;
/* REQUIRES: write lock. Records getpid() as owner, bumps version, returns the old version. */
GK_API uint32_t set_cmdb_nxt_update(void) GK_NOEXCEPT;
GK_API void *cmf_shm_statistics(void) GK_NOEXCEPT;
/* The debug zone's copy of the mail mode (through nCfg_debug_zone). */
GK_API uint32_t orv_mail_mode(void) GK_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Var lists (named sub-regions) and the region lifecycle                   */
/* ------------------------------------------------------------------------ */

/* Head of a growable var list (admin_login_status). */
typedef struct cmdb_var_list_head {
  uint32_t used;     /* kept by the programs that store entries */
  uint32_t capacity; /* grows by 64 under debug-zone lock 1 */
  uint32_t unit;     /* entry size; 0 until cmf_var_list_set_unit */
  uint32_t reserved;
} cmdb_var_list_head_t;

GK_API void cmf_var_list_set_unit(void *base, uint32_t unit) GK_NOEXCEPT;
/* 0; -1 pfield null; -2 base null or unit 0. */
GK_API int cmf_var_list_update(void **pfield) GK_NOEXCEPT;
/* 0; -1 unknown name; -2 update failed; -3 base null or unit 0. */
GK_API int cmf_var_list_alloc(const char *name) GK_NOEXCEPT;

/* mode 0 init process (daemon_status), 1 reader, 2 owner, 3 reader without flag.
 * 0; -1 locks missing; -4 a sub-region cannot be attached. */
GK_API int init_cmdb_app_core(int mode) GK_NOEXCEPT;
GK_API void cleanup_cmdb_app_core(void) GK_NOEXCEPT;
GK_API int cmf_shm_create(void) GK_NOEXCEPT;
GK_API int cmf_shm_create_init(void) GK_NOEXCEPT;
GK_API int attach_cmfshm_for_init(void) GK_NOEXCEPT;
GK_API int detach_cmfshm_for_init(void) GK_NOEXCEPT;
GK_API int cmf_shm_destroy(void) GK_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Locks                                                                     */
/* ------------------------------------------------------------------------ */

/* One record per process that ever took the main lock, at DZ_LOCK_STATS. */
typedef struct cmdb_lock_stat {
  uint32_t pid;
  uint32_t read_count;
  uint32_t write_count;
  uint32_t reserved;
  int64_t last_time;
} cmdb_lock_stat_t;

/* Main lock. Read locks nest per thread; the write lock neither nests nor upgrades. */
GK_API void cmf_shm_read_lock(void) GK_NOEXCEPT;
GK_API void cmf_shm_read_unlock(void) GK_NOEXCEPT;
GK_API void cmf_shm_write_lock(void) GK_NOEXCEPT;
GK_API void cmf_shm_write_unlock(void) GK_NOEXCEPT;
/* Debug-zone locks; idx 0 or 1, any other index does nothing. */
GK_API void dbgz_rlock(int idx) GK_NOEXCEPT;
GK_API void dbgz_runlock(int idx) GK_NOEXCEPT;
GK_API void dbgz_wlock(int idx) GK_NOEXCEPT;
GK_API void dbgz_wunlock(int idx) GK_NOEXCEPT;
GK_API void dbgz_rlock_to_wlock(int idx) GK_NOEXCEPT;
GK_API void dbgz_wlock_to_rlock(int idx) GK_NOEXCEPT;
/* Value of the main semaphore (32767 free), or -1 when not attached. */
GK_API int cmf_shm_lock_val(void) GK_NOEXCEPT;
/* 0; -2 first debug-zone set missing; -3 second missing. */
GK_API int debug_zone_rwlock_init(void) GK_NOEXCEPT;

/* Record locks: 0, or -1 after a "lockerr" line on standard error. */
GK_API int cmdb_event_read_lock(void) GK_NOEXCEPT;
GK_API int cmdb_event_write_lock(void) GK_NOEXCEPT;
GK_API int cmdb_event_read_unlock(void) GK_NOEXCEPT;
GK_API int cmdb_event_write_unlock(void) GK_NOEXCEPT;
GK_API int cmf_shm_read_file_lock(int pos) GK_NOEXCEPT;
GK_API int cmf_shm_write_file_lock(int pos) GK_NOEXCEPT;
GK_API int cmf_shm_read_file_unlock(int pos) GK_NOEXCEPT;
GK_API int cmf_shm_write_file_unlock(int pos) GK_NOEXCEPT;
/* Reopens "/tmp/shm_lock" when the byte-range lock descriptor was closed behind the
 * library's back; the cmf_shm_*_file_lock calls run it first. */
GK_API void valid_shm_lock_file(void) GK_NOEXCEPT;
/* A descriptor holding the exclusive restore lock, or -1 (busy or no file). */
GK_API int cmf_get_restore_lock(void) GK_NOEXCEPT;
/* Releases the lock; the caller closes fd. */
GK_API void cmf_restore_unlock(int fd) GK_NOEXCEPT;
GK_API int cmdb_create_lock(void) GK_NOEXCEPT;
GK_API int cmf_lock_init(void) GK_NOEXCEPT;
GK_API int cmf_lock_init_for_cli(void) GK_NOEXCEPT;
GK_API void cmf_lock_cleanup(void) GK_NOEXCEPT;
GK_API int cmdb_destroy_lock(void) GK_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Shared-memory allocator                                                   */
/* ------------------------------------------------------------------------ */

/* shmid: page number in bits 31..16, block number in 15..0 (0xFFFF: large block). */
#define CMF_SHMID_LARGE 0xFFFFu
#define CMF_SHMID(page, blk) (((uint32_t)(page) << 16) | ((uint32_t)(blk) & 0xFFFFu))
#define CMF_SHMID_PAGE(id) ((uint32_t)(id) >> 16)
#define CMF_SHMID_BLKNO(id) ((uint32_t)(id) & 0xFFFFu)

typedef struct cmdb_page_slot {
  uint32_t gen; /* +1 on every allocation and release of the page */
  int32_t size; /* page file length; -1 = free */
} cmdb_page_slot_t;

/* The sub-region `page`: 8 + 8 * page_max bytes. */
typedef struct cmdb_page_table {
  int32_t page_cnt;
  int32_t page_max;
  cmdb_page_slot_t slot[];
} cmdb_page_table_t;

typedef struct cmdb_slab_list {
  uint32_t tail;
  uint32_t head;
} cmdb_slab_list_t;

typedef struct cmdb_slab_cache {
  cmdb_slab_list_t full;
  cmdb_slab_list_t partial;
  uint32_t num;
  uint32_t objsize;
  uint32_t slab_size;
} cmdb_slab_cache_t;

#define CMDB_SLAB_CACHES 10
/* At offset 0 of `cmdb_global`. */
typedef struct cmdb_slab_cache_table {
  int32_t count;
  cmdb_slab_cache_t cache[CMDB_SLAB_CACHES];
} cmdb_slab_cache_table_t;

/* Head of a slab page; next_free[num] and the objects follow. */
typedef struct cmdb_slab_header {
  int32_t cache; /* -1 for a large-block page */
  uint32_t page;
  uint32_t prev;
  uint32_t next;
  uint32_t inuse;
  int32_t free;
  int32_t next_free[];
} cmdb_slab_header_t;

/* Address of the block in this process, mapping its page on first use; null when
 * the page is not allocated. write = 1 when the caller will write through it.
 * REQUIRES: main lock, shared for reads, exclusive for writes. */
GK_API void *cmf_ptr_from_shmid(uint32_t shmid, int write) GK_NOEXCEPT;

/* Files in "/dev/cmdb/": O_NOFOLLOW, close-on-exec. -1 on failure (logged). */
GK_API int cmdb_shm_open(const char *name, int writable) GK_NOEXCEPT;
GK_API int cmdb_shm_create(const char *name, int32_t len) GK_NOEXCEPT;
GK_API int cmdb_shm_remove(const char *name) GK_NOEXCEPT;
GK_API int cmdb_shm_stat(const char *name, struct stat *st) GK_NOEXCEPT;

/* Cache index for a request of `size` bytes, or -1 for a large block. */
GK_API int cmdb_find_cache_idx(uint32_t size) GK_NOEXCEPT;
/* REQUIRES: write lock, owner process. Zero-filled block; stores its handle in *shmid. */
GK_API void *cmf_shm_alloc(uint32_t size, uint32_t *shmid) GK_NOEXCEPT;
GK_API int cmf_shm_free(uint32_t shmid) GK_NOEXCEPT;
/* Resizes the block *shmid (at ptr); updates *shmid when it moves; group 0..4 makes
 * that entry group's locator records follow the move, -1 none. */
GK_API void *cmf_shm_realloc(void *ptr, uint32_t size, uint32_t *shmid, int group) GK_NOEXCEPT;
/* Prints the page table and every page header to standard output. */
GK_API void cmf_slab_display_page(void) GK_NOEXCEPT;
GK_API int estimate_malloc_size(void *ptr) GK_NOEXCEPT;
/* Extension beyond the base API: checks the page table, every slab list and slab
 * header. 0, or a negative code after logging the first inconsistency found.
 * REQUIRES: main lock (shared at least). */
GK_API int cmf_shm_verify(void) GK_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Configuration tree                                                        */
/* ------------------------------------------------------------------------ */

/* Node record in `cmdb_node`; child offsets and the default block follow. */
typedef struct cmdb_node {
  uint16_t gid;
  uint16_t default_gid;
  uint8_t scope; /* 2: per domain; 1: per-domain element also valid in domain 0 */
  uint8_t kind;
  uint8_t type;
  uint8_t flags; /* 0x10: case-insensitive string compares */
  uint8_t ds_index;
  uint8_t nchild;
  uint8_t unused0[2];
  uint16_t size;
  uint16_t offset;
  uint32_t unused1;
  uint32_t parent; /* offset of the parent record in cmdb_node; 0 = top level */
  uint32_t child[];
} cmdb_node_t;

/* 128-byte static node descriptor supplied by the creating host. */
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
  uint8_t type_scope; /* bits 0-3 type, 4-5 scope */
  uint8_t kind;       /* bits 0-3 */
  uint8_t flags_a;
  uint8_t u32_[2];
  uint8_t flags_b;    /* bit 0: carries an SQL description in `source` */
  uint8_t flags_c;
  uint8_t u36[12];
  void *defaults;     /* heap block of `size` bytes, freed by the builder */
  uint16_t refs[4];
  void *source;
  uint8_t u72[8];
  uint16_t size;      /* value size */
  uint16_t offset;    /* value offset within the parent's data part */
  uint16_t u84;
  uint16_t u86;
  uint8_t u88[32];
  struct cmdb_node_desc **children;
} cmdb_node_desc_t;

extern GK_API cmdb_node_desc_t __cli_domain_node;
extern GK_API cmdb_node_desc_t __cli_fqdn_node;

/* SQL description a descriptor points at when flags_b bit 0 is set. */
typedef struct cmdb_sql_desc {
  uint16_t u0;
  uint16_t number;
  uint8_t u4[12];
  const char *short1;
  const char *short2;
  const char *long1;
  const char *long2;
  uint8_t u48[15];
  uint8_t flag; /* bit 7 */
} cmdb_sql_desc_t;

/* Record of `cmdb_sql_node` (85 of them). */
typedef struct cmdb_sql_node {
  uint16_t gid;
  uint8_t flag;
  uint8_t reserved;
  char name1[32];
  char name2[32];
  char name3[64];
} cmdb_sql_node_t;

/* Instance blocks: the first byte is the kind. */
enum { CMDB_BLK_OBJECT = 2, CMDB_BLK_TABLE = 3, CMDB_BLK_INDEX = 4, CMDB_BLK_LOCATOR = 6,
       CMDB_BLK_OTHER = 7 };

typedef struct cmdb_object_block {
  uint32_t kind;
  uint32_t unused;
  uint16_t gid;
  uint16_t nchild;
  uint32_t child[]; /* then the data part */
} cmdb_object_block_t;

typedef struct cmdb_table_block {
  uint32_t kind;
  uint32_t unused0;
  uint16_t gid;
  uint8_t unused1[6];
  int32_t count;
  uint32_t pending;
  uint8_t nchild;
  uint8_t unused2[3];
  uint32_t index; /* shmid of the entry index */
  uint8_t entries[];
} cmdb_table_block_t;

#define CMDB_ENTRY_PENDING 0x04u
#define CMDB_ENTRY_PENDING2 0x10u

typedef struct cmdb_entry {
  uint8_t flags;
  uint8_t unused[3];
  uint32_t ngid; /* top byte: entry group */
  uint32_t child[]; /* then the data part */
} cmdb_entry_t;

typedef struct cmdb_entry_index {
  uint32_t kind;    /* 4 */
  uint32_t key_gid; /* node describing the key */
  int32_t capacity;
  int32_t count;
  uint32_t slot[];  /* entry positions in ascending key order */
} cmdb_entry_index_t;

/* Request for the insert (2) and re-position (4) actions. */
typedef struct cmdb_index_req {
  int32_t pos;
  const void *data; /* a data part laid out like an entry's */
} cmdb_index_req_t;

enum { CMDB_INDEX_FIND = 1, CMDB_INDEX_INSERT = 2, CMDB_INDEX_REPOSITION = 4 };

typedef struct cmdb_locator_rec {
  uint32_t ngid;
  uint32_t shmid;
  uint32_t w2;
  uint32_t w3;
} cmdb_locator_rec_t;

typedef struct cmdb_locator_block {
  uint32_t kind; /* 6 */
  uint32_t count;
  uint32_t capacity;
  cmdb_locator_rec_t rec[];
} cmdb_locator_block_t;

GK_API uint32_t cmf_get_entry_size(const void *table) GK_NOEXCEPT;
GK_API void *cmf_get_table_entry(void *table, uint32_t pos) GK_NOEXCEPT;
GK_API uint32_t cmf_get_entry_ngid(void *table, uint32_t pos) GK_NOEXCEPT;
GK_API void *cmf_get_entry_data(void *table, uint32_t pos) GK_NOEXCEPT;
/* REQUIRES: write lock. Clears the entry's pending marks first. */
GK_API void *cmf_commit_get_entry_data(void *table, uint32_t pos) GK_NOEXCEPT;
GK_API void *cmf_get_obj_data(void *obj) GK_NOEXCEPT;
GK_API void *get_cmdb_default_ptr(const cmdb_node_t *node) GK_NOEXCEPT;
GK_API void *copy_cmdb_default(const cmdb_node_t *node, void *dst, int32_t len) GK_NOEXCEPT;
GK_API void *cmdb_get_master_key(uint32_t gid, void *data) GK_NOEXCEPT;
GK_API uint32_t cmf_node_child_size(const cmdb_node_t *node) GK_NOEXCEPT;
GK_API cmdb_node_t *cmdb_find_child_node(const cmdb_node_t *parent, uint32_t gid) GK_NOEXCEPT;
GK_API int cmdb_compare_key(const void *key, const void *entry_key, const cmdb_node_t *node) GK_NOEXCEPT;
GK_API int cmdb_compare_attr_data(const void *a, const void *b, const cmdb_node_t *node) GK_NOEXCEPT;
GK_API int cli_compare_attr_data(const void *a, const void *b, const cmdb_node_desc_t *desc) GK_NOEXCEPT;

/* Entry index. `action` is CMDB_INDEX_*; key_or_req is the key for find, a
 * cmdb_index_req_t for insert and re-position. REQUIRES: write lock to change. */
GK_API int __cmf_svr_binary_find_index(void *table, uint32_t *index_shmid, cmdb_entry_index_t **index,
                                       const void *key_or_req, int action) GK_NOEXCEPT;
GK_API int __cmf_svr_find_entry_by_index(void *table, uint32_t *index_shmid, cmdb_entry_index_t **index,
                                         const void *key) GK_NOEXCEPT;
GK_API int __cmf_svr_binary_del_index(void *table, uint32_t *index_shmid, cmdb_entry_index_t **index,
                                      int pos) GK_NOEXCEPT;
GK_API int __cmf_svr_find_table_entry(void *table, const void *key) GK_NOEXCEPT;
GK_API int cmf_svr_find_entry_index(void *locator, uint32_t ngid) GK_NOEXCEPT;

/* Domains. */
typedef struct cmdb_domain_rec {
  char name[256];
  uint32_t id;
  uint32_t root; /* shmid of the domain's root block */
} cmdb_domain_rec_t;

typedef struct cmdb_domain_table {
  uint32_t global_root;
  uint32_t unused;
  int32_t count;
  cmdb_domain_rec_t rec[];
} cmdb_domain_table_t;

typedef struct cmdb_root_entry {
  uint16_t gid;
  uint16_t unused;
  uint32_t shmid;
} cmdb_root_entry_t;

typedef struct cmdb_root_block {
  uint16_t unused;
  uint16_t count;
  cmdb_root_entry_t entry[];
} cmdb_root_block_t;

typedef int (*cmdb_domain_visitor)(uint32_t id, uintptr_t arg);

GK_API int __cmdb_find_domain_by_id(uint32_t id, int mode) GK_NOEXCEPT;
GK_API int __cmdb_find_domain_by_name(const char *name, int mode) GK_NOEXCEPT;
GK_API int __cmdb_find_find_last_domain_index(void) GK_NOEXCEPT;
GK_API int cmf_shm_domain_size(void) GK_NOEXCEPT;
GK_API uint32_t cmf_shm_find_last_domain_id(uint32_t *count) GK_NOEXCEPT;
GK_API char *cmf_shm_find_domain_name(uint32_t id) GK_NOEXCEPT;
GK_API uint32_t cmf_shm_find_domain_id(const char *name) GK_NOEXCEPT;
GK_API int cmf_shm_get_domain_name(char *dst, int len, uint32_t id) GK_NOEXCEPT;
GK_API int cmf_shm_domain_info(int recno, char *dst, int len, uint32_t *id) GK_NOEXCEPT;
GK_API cmdb_root_block_t *cmdb_find_domain_by_id(uint32_t id) GK_NOEXCEPT;
GK_API cmdb_root_block_t *cmdb_find_domain_by_name(const char *name) GK_NOEXCEPT;
GK_API uint32_t *cmdb_find_domain_entity(cmdb_root_block_t *root, const cmdb_node_t *node) GK_NOEXCEPT;
GK_API uint32_t *cmdb_find_root_entity(uint32_t domain_id, uint32_t gid) GK_NOEXCEPT;
GK_API int cmf_iterate_all_domain(cmdb_domain_visitor visitor, uintptr_t arg) GK_NOEXCEPT;
GK_API int cmf_iterate_all_domain_until_nz(cmdb_domain_visitor visitor, uintptr_t arg) GK_NOEXCEPT;
/* REQUIRES: write lock. Re-sorts the id index by domain id. */
GK_API void cmf_shm_resolve_alldomain(void) GK_NOEXCEPT;

/* Table size limits. */
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
extern GK_API const cmdb_size_rec_t size_table[CMDB_SIZE_TABLE_ROWS];

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

GK_API int cmdb_get_table_size(uint32_t gid, int platform) GK_NOEXCEPT;
GK_API int cmdb_get_table_tsize(uint32_t gid, int platform) GK_NOEXCEPT;
GK_API int cmdb_get_table_sz_warning(uint32_t gid, int platform) GK_NOEXCEPT;
GK_API int cmdb_get_table_entry_grp(uint32_t gid) GK_NOEXCEPT;
GK_API int cmf_get_table_tcnt_pos(uint32_t gid) GK_NOEXCEPT;
GK_API cmdb_table_limit_t *cmf_get_tablesize(uint32_t gid) GK_NOEXCEPT;
GK_API uint32_t cmf_get_table_tcnt(uint32_t gid) GK_NOEXCEPT;
GK_API uint32_t cmf_get_max_table_entry(uint32_t gid) GK_NOEXCEPT;
GK_API uint32_t cmf_get_max_table_tentry(uint32_t gid) GK_NOEXCEPT;

/* Instance lookups. */
#define CMDB_DEVICES_MAX 64
typedef struct cmdb_device_table {
  uint16_t count;
  uint16_t unused;
  uint8_t rec[CMDB_DEVICES_MAX][176]; /* numbered 1..64; each begins with its u32 id */
  uint8_t order[CMDB_DEVICES_MAX];    /* record numbers sorted by device id */
} cmdb_device_table_t;

#define CMDB_SERVICES 164
#define CMDB_SERVICE_SIZE 216

typedef struct cmdb_filter {
  uint16_t gid;
  uint8_t unused[6];
  uint8_t value[]; /* compared with the attribute */
} cmdb_filter_t;

GK_API void *cmf_find_table_child_table(void *table, int pos, uint32_t gid) GK_NOEXCEPT;
GK_API void *cmf_find_obj_child_table(void *obj, uint32_t gid) GK_NOEXCEPT;
/* Address of the child slot (shmid) inside the parent object or entry, or null. */
GK_API uint32_t *cmdb_find_child_obj(void *parent, uint32_t gid, const void *key, int pos) GK_NOEXCEPT;
GK_API uint32_t *cmdb_find_child_entity(uint32_t parent_shmid, uint32_t gid, const void *key) GK_NOEXCEPT;
GK_API cmdb_locator_rec_t cmdb_entry_from_index(uint32_t ngid) GK_NOEXCEPT;
GK_API void *cmf_find_device_entry(uint32_t id) GK_NOEXCEPT;
GK_API void *cmf_find_service_by_gid(uint32_t gid) GK_NOEXCEPT;
GK_API int cmf_shm_match_filter(void *table, int pos, const void *filter) GK_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Change events                                                             */
/* ------------------------------------------------------------------------ */

#define CMDB_EVENT_MAX 128
#define CMDB_EVENT_PROCS 16
#define EVENT_WITH_DATA 0x01u

typedef struct cmdb_event_proc {
  char process[20];
  uint8_t reserved[2];
  uint8_t act;   /* class mask */
  uint8_t flags; /* EVENT_WITH_DATA */
} cmdb_event_proc_t;

typedef struct cmdb_event_entry {
  uint16_t obj_gid;
  cmdb_event_proc_t procs[CMDB_EVENT_PROCS];
} cmdb_event_entry_t;

/* Start of the `cmdb_event` sub-region (49800 bytes). */
typedef struct cmdb_event_table {
  uint32_t count;
  cmdb_event_entry_t rec[CMDB_EVENT_MAX];
} cmdb_event_table_t;

/* One datagram: this header, then the present data blocks and descriptor bytes. */
typedef struct cmdb_event_msg {
  uint16_t gid;
  uint16_t reserved0;
  uint32_t domain_id;
  uint8_t act; /* one class bit */
  uint8_t reserved1[3];
  uint32_t data_size;
  uint32_t total_size;
  uint32_t reserved2;
  uint64_t data1; /* non-zero when present; the receiver points it into the message */
  uint64_t data2;
  uint64_t desc;
} cmdb_event_msg_t;

typedef int (*cmdb_event_handler)(cmdb_event_msg_t *msg);

/* Bounded (20-byte) name helpers. */
GK_API int cmdb_strempty(const char *s) GK_NOEXCEPT;
GK_API char *cmdb_strcpy(char *dst, const char *src) GK_NOEXCEPT;
GK_API int cmdb_strcmp(const char *a, const char *b) GK_NOEXCEPT;

/* act 0 look up, 1 add, 2 remove. REQUIRES: event table lock. */
GK_API int cmdb_event_entry_act(uint16_t gid, int act, cmdb_event_entry_t *buf) GK_NOEXCEPT;
GK_API int cmdb_register_event(const char *process, uint16_t gid, uint8_t act, uint8_t flags) GK_NOEXCEPT;
GK_API int cmdb_unregister_event(const char *process, uint16_t gid) GK_NOEXCEPT;
GK_API int _cmdb_register_event(const char *process, uint16_t gid, uint8_t act, uint8_t flags) GK_NOEXCEPT;
GK_API int _cmdb_unregister_event(const char *process, uint16_t gid) GK_NOEXCEPT;
GK_API void dbg_cmdb_event(int level, const char *fmt, ...) GK_NOEXCEPT __attribute__((format(printf, 2, 3)));

/* Sender. 0; -1 no node; -3..-6 a needed data block is missing. */
GK_API int cmdb_event_call_daemon(uint16_t gid, uint8_t act, const void *data1, const void *data2,
                                  const void *desc) GK_NOEXCEPT;
GK_API int cmdb_send_reload_event(uint16_t gid) GK_NOEXCEPT;
/* Receiver. The returned descriptor is the caller's to poll. */
GK_API int cmdb_event_init(const char *process, int nonblock) GK_NOEXCEPT;
GK_API int register_cmdb_event(uint16_t gid, uint8_t act, uint8_t flags, cmdb_event_handler handler) GK_NOEXCEPT;
GK_API void unregister_cmdb_event(uint16_t gid, cmdb_event_handler handler) GK_NOEXCEPT;
GK_API int do_cmdb_event_handling(void) GK_NOEXCEPT;
GK_API void cmdb_event_cleanup(void) GK_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Utilities                                                                 */
/* ------------------------------------------------------------------------ */

/* Growable text buffer in process memory; a zero record is valid and empty.
 * Every call accepts a null record and returns 0, except the base64 pair. */
typedef struct cmf_buf {
  char *data; /* heap block, owned by the record until cmf_buf_free */
  char *last; /* where the latest append or character went */
  uint32_t len;
  uint32_t size;
} cmf_buf_t;

/* 512, or -1 when out of memory. */
GK_API int cmf_buf_init(cmf_buf_t *b) GK_NOEXCEPT;
GK_API int cmf_buf_free(cmf_buf_t *b) GK_NOEXCEPT;
/* Append one byte (no terminator stored): 1, or -1 when growth fails. */
GK_API int cmf_buf_cat(cmf_buf_t *b, int c) GK_NOEXCEPT;
/* Append n bytes (n = 0: strlen(src)); a null src only reserves n bytes. n, or -1. */
GK_API int cmf_buf_append(cmf_buf_t *b, const void *src, int n) GK_NOEXCEPT;
GK_API int cmf_buf_reset(cmf_buf_t *b, const void *src, int n) GK_NOEXCEPT;
/* Formatted append: 0 fitted, 1 fitted after growth, -2 no room (or an output
 * error from vsnprintf), -3 still too long. Content is unchanged on failure. */
GK_API int cmf_buf_vsnprintf(cmf_buf_t *b, const char *fmt, va_list ap) GK_NOEXCEPT;
GK_API int cmf_buf_snprintf(cmf_buf_t *b, const char *fmt, ...) GK_NOEXCEPT __attribute__((format(printf, 2, 3)));
/* Replace the content by its base64 text / by the bytes its text encodes: the new
 * len; -6 out of memory; -152 the codec refused (content unchanged); -1 null b. */
GK_API int cmf_buf_base64_encode(cmf_buf_t *b) GK_NOEXCEPT;
GK_API int cmf_buf_base64_decode(cmf_buf_t *b) GK_NOEXCEPT;

/* Boot ("init0") values and global flags in `daemon_status`. A process that has it
 * unmapped maps it for the one access (attach/detach_cmfshm_for_init); when it
 * cannot be mapped, setters do nothing and getters return 0. No lock. */
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
GK_API void global_flag_set_flag(uint32_t bits) GK_NOEXCEPT;
GK_API void global_flag_unset_flag(uint32_t bits) GK_NOEXCEPT;
GK_API uint32_t global_flag_if_set(uint32_t mask) GK_NOEXCEPT;
/* Constant names for 1, 2, 4, 8; "Unknown %d" in a per-process static buffer otherwise.
 * Mode 0 names the debug zone's mail mode ("Unknown 0" while no debug zone is mapped). */
GK_API const char *orv_opmode_name(int mode) GK_NOEXCEPT;
GK_API int cmf_backup_non_haconf_conf(void) GK_NOEXCEPT;
GK_API int cmf_backup_non_ha_conf(void) GK_NOEXCEPT;
GK_API int cmf_backup_system_conf(const char *text, uint8_t type) GK_NOEXCEPT;
GK_API int cmf_ha_exec_conf(void *value, uint32_t a, uint32_t b) GK_NOEXCEPT;
/* dst[i] takes src[i]'s bits where mask[i] has ones, for i < len; returns 0. */
GK_API int bfcpy(uint8_t *dst, const uint8_t *src, int len, const uint8_t *mask) GK_NOEXCEPT;

/* The library log: dropped above the header's log_level while the header is mapped;
 * standard output under the debug bit, else the host's do_message. */
GK_API void dbg_cmdb(uint32_t level, const char *fmt, ...) GK_NOEXCEPT __attribute__((format(printf, 2, 3)));

/* ------------------------------------------------------------------------ */
/* Platform interfaces: defaults live in the library; a host replaces one by  */
/* defining a function of the same name.                                     */
/* ------------------------------------------------------------------------ */

GK_API void do_message(const char *fmt, va_list ap) GK_NOEXCEPT;
GK_API void message(const char *fmt, ...) GK_NOEXCEPT __attribute__((format(printf, 1, 2)));
GK_API void log_crash(const char *fmt, ...) GK_NOEXCEPT __attribute__((format(printf, 1, 2)));
GK_API void print_trace(int depth) GK_NOEXCEPT;
/* Host schema descriptor of a gid; the default knows none and returns null. */
GK_API void *nCfg_query(int gid) GK_NOEXCEPT;
GK_API uint32_t cmf_get_cur_domain_id(void) GK_NOEXCEPT;
GK_API void cmf_set_cur_domain_id(uint32_t id) GK_NOEXCEPT;
/* The defaults report "not supported" with a negative result. */
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
#endif

#endif /* GIKRAIDRUM_H */
