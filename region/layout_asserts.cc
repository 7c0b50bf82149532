// Every shared and exported layout, pinned: a changed assert is a format change.
#include <cstddef>
#include <type_traits>

#include "gikraidrum.h"

#define GK_LAYOUT(T) static_assert(std::is_standard_layout_v<T> && std::is_trivially_copyable_v<T>)

GK_LAYOUT(cmdb_record_t);
static_assert(offsetof(cmdb_record_t, flags) == 0 && offsetof(cmdb_record_t, platform) == 4);
static_assert(offsetof(cmdb_record_t, page_map_len) == 8 && offsetof(cmdb_record_t, page) == 16);
static_assert(offsetof(cmdb_record_t, page_maps) == 24 && offsetof(cmdb_record_t, domain) == 32);
static_assert(offsetof(cmdb_record_t, domname_index) == 40 && offsetof(cmdb_record_t, domid_index) == 48);
static_assert(offsetof(cmdb_record_t, daemon_status) == 56 && offsetof(cmdb_record_t, host_total) == 64);
static_assert(offsetof(cmdb_record_t, cmdb_node_index) == 72 && offsetof(cmdb_record_t, cmdb_sql_node) == 80);
static_assert(offsetof(cmdb_record_t, cmdb_node) == 88 && offsetof(cmdb_record_t, schema) == 96);
static_assert(offsetof(cmdb_record_t, service_table) == 104 && offsetof(cmdb_record_t, cmdb_datasource) == 112);
static_assert(offsetof(cmdb_record_t, cmdb_global_rw) == 120 && offsetof(cmdb_record_t, header) == 128);
static_assert(offsetof(cmdb_record_t, stat_global) == 136 && offsetof(cmdb_record_t, cmdb_global) == 144);
static_assert(offsetof(cmdb_record_t, slab_caches) == 152 && offsetof(cmdb_record_t, index_roots) == 160);
static_assert(offsetof(cmdb_record_t, table_limits) == 168 && offsetof(cmdb_record_t, services) == 176);
static_assert(offsetof(cmdb_record_t, cmdb_event) == 184 && offsetof(cmdb_record_t, devices) == 192);
static_assert(offsetof(cmdb_record_t, debug_zone) == 200 && offsetof(cmdb_record_t, admin_login_status) == 208);
static_assert(offsetof(cmdb_record_t, statistics) == 216 && sizeof(cmdb_record_t) == 288);

GK_LAYOUT(cmdb_header_t);
static_assert(offsetof(cmdb_header_t, log_level) == 4 && offsetof(cmdb_header_t, nodes) == 8);
static_assert(offsetof(cmdb_header_t, max_gid) == 0x0A && offsetof(cmdb_header_t, sql) == 0x0C);
static_assert(offsetof(cmdb_header_t, version) == 0x10 && offsetof(cmdb_header_t, owner) == 0x18);
static_assert(offsetof(cmdb_header_t, platform) == 0x2C && sizeof(cmdb_header_t) == CMDB_HEADER_STAT_GLOBAL);
static_assert(offsetof(cmdb_header_t, ext_flags) == 0x1C && offsetof(cmdb_header_t, write_gid) == 0x20 &&
              offsetof(cmdb_header_t, change_pid) == 0x24 && offsetof(cmdb_header_t, revision) == 0x34);

GK_LAYOUT(cmdb_var_list_head_t);
static_assert(sizeof(cmdb_var_list_head_t) == 16);

GK_LAYOUT(cmdb_lock_stat_t);
static_assert(sizeof(cmdb_lock_stat_t) == 24 && offsetof(cmdb_lock_stat_t, last_time) == 16);
GK_LAYOUT(cmdb_debug_zone_t);
static_assert(offsetof(cmdb_debug_zone_t, event_switch) == 0 && offsetof(cmdb_debug_zone_t, mail_mode) == 8 &&
              offsetof(cmdb_debug_zone_t, debug) == 0x240);
static_assert(offsetof(cmdb_debug_zone_t, reader_slot_next) == 3304 &&
              offsetof(cmdb_debug_zone_t, reader_pids) == 3308 &&
              offsetof(cmdb_debug_zone_t, lock_stats) == 4336);
static_assert(offsetof(cmdb_debug_zone_t, reserved5) == 0x28F0 &&
              offsetof(cmdb_debug_zone_t, event_log_level) == 0x5520);
static_assert(offsetof(cmdb_debug_zone_t, domain_slots) == 300940 && sizeof(cmdb_debug_zone_t) == 300960);
static_assert(CMDB_DZ_SIZE(17) == 300960 + 17 * 276);

GK_LAYOUT(cmdb_page_slot_t);
static_assert(sizeof(cmdb_page_slot_t) == 8 && offsetof(cmdb_page_table_t, slot) == 8);
static_assert(sizeof(cmdb_slab_cache_t) == 28 && offsetof(cmdb_slab_cache_t, partial) == 8);
static_assert(offsetof(cmdb_slab_cache_t, num) == 16 && offsetof(cmdb_slab_cache_t, slab_size) == 24);
static_assert(sizeof(cmdb_slab_cache_table_t) == 284);
static_assert(offsetof(cmdb_slab_header_t, inuse) == 16 && offsetof(cmdb_slab_header_t, next_free) == 24);
static_assert(sizeof(cmdb_large_header_t) == 8);

GK_LAYOUT(cmdb_node_t);
static_assert(offsetof(cmdb_node_t, scope) == 4 && offsetof(cmdb_node_t, ds_index) == 8);
static_assert(offsetof(cmdb_node_t, nchild) == 9 && offsetof(cmdb_node_t, size) == 12);
static_assert(offsetof(cmdb_node_t, offset) == 14 && offsetof(cmdb_node_t, parent) == 20);
static_assert(offsetof(cmdb_node_t, child) == 24 && sizeof(cmdb_node_t) == 24);

GK_LAYOUT(cmdb_node_desc_t);
static_assert(offsetof(cmdb_node_desc_t, gid) == 16 && offsetof(cmdb_node_desc_t, nchild) == 26);
static_assert(offsetof(cmdb_node_desc_t, type_scope) == 29 && offsetof(cmdb_node_desc_t, kind) == 30);
static_assert(offsetof(cmdb_node_desc_t, flags_a) == 31 && offsetof(cmdb_node_desc_t, flags_b) == 34);
static_assert(offsetof(cmdb_node_desc_t, flags_c) == 35 && offsetof(cmdb_node_desc_t, defaults) == 48);
static_assert(offsetof(cmdb_node_desc_t, refs) == 56 && offsetof(cmdb_node_desc_t, source) == 64);
static_assert(offsetof(cmdb_node_desc_t, size) == 80 && offsetof(cmdb_node_desc_t, offset) == 82);
static_assert(offsetof(cmdb_node_desc_t, u24) == 24 && offsetof(cmdb_node_desc_t, u86) == 86);
static_assert(offsetof(cmdb_node_desc_t, children) == 120 && sizeof(cmdb_node_desc_t) == 128);

GK_LAYOUT(cmdb_sql_desc_t);
static_assert(offsetof(cmdb_sql_desc_t, number) == 2 && offsetof(cmdb_sql_desc_t, short1) == 16);
static_assert(offsetof(cmdb_sql_desc_t, long2) == 40 && offsetof(cmdb_sql_desc_t, flag) == 63);
GK_LAYOUT(cmdb_sql_node_t);
static_assert(offsetof(cmdb_sql_node_t, name1) == 4 && offsetof(cmdb_sql_node_t, name2) == 36);
static_assert(offsetof(cmdb_sql_node_t, name3) == 68 && sizeof(cmdb_sql_node_t) == 132);
static_assert(CMDB_SQL_NODE_SIZE == 11220 && CMDB_NODE_INDEX_SIZE == 7444);
GK_LAYOUT(cmdb_datasource_t);
static_assert(offsetof(cmdb_datasource_t, pair) == 2 && CMDB_DATASOURCE_SIZE == 1314);

static_assert(offsetof(cmdb_object_block_t, gid) == 8 && offsetof(cmdb_object_block_t, child) == 12);
static_assert(offsetof(cmdb_table_block_t, count) == 16 && offsetof(cmdb_table_block_t, pending) == 20);
static_assert(offsetof(cmdb_table_block_t, nchild) == 24 && offsetof(cmdb_table_block_t, index) == 28);
static_assert(offsetof(cmdb_table_block_t, entries) == 32);
static_assert(offsetof(cmdb_entry_t, ngid) == 4 && offsetof(cmdb_entry_t, child) == 8);
static_assert(offsetof(cmdb_entry_index_t, capacity) == 8 && offsetof(cmdb_entry_index_t, slot) == 16);
static_assert(offsetof(cmdb_index_req_t, data) == 8);
static_assert(sizeof(cmdb_locator_rec_t) == 16 && offsetof(cmdb_locator_block_t, rec) == 12);

GK_LAYOUT(cmdb_domain_rec_t);
static_assert(sizeof(cmdb_domain_rec_t) == 264 && offsetof(cmdb_domain_rec_t, root) == 260);
static_assert(offsetof(cmdb_domain_table_t, count) == 8 && offsetof(cmdb_domain_table_t, rec) == 12);
static_assert(sizeof(cmdb_root_entry_t) == 8 && offsetof(cmdb_root_block_t, entry) == 4);

GK_LAYOUT(cmdb_size_rec_t);
static_assert(offsetof(cmdb_size_rec_t, size) == 4 && offsetof(cmdb_size_rec_t, tsize) == 124);
static_assert(offsetof(cmdb_size_rec_t, sz_warning) == 244 && offsetof(cmdb_size_rec_t, flag) == 364);
static_assert(offsetof(cmdb_size_rec_t, tsize_extra) == 366 && sizeof(cmdb_size_rec_t) == 368);
static_assert(sizeof(cmdb_table_limit_t) == 20 && offsetof(cmdb_table_limits_t, rec) == 4);
static_assert(sizeof(cmdb_table_limits_t) == 2484);

GK_LAYOUT(cmdb_global_t);
static_assert(offsetof(cmdb_global_t, locators_ready) == 0x11C && offsetof(cmdb_global_t, locator) == 0x120);
static_assert(offsetof(cmdb_global_t, table_limits) == 0x134 && offsetof(cmdb_global_t, services) == 0xAE8);
static_assert(CMDB_GLOBAL_SIZE == 38216);

static_assert(offsetof(cmdb_device_table_t, rec) == 4 && offsetof(cmdb_device_table_t, order) == 11268);
static_assert(CMDB_DEVICES_SIZE == 11332);
static_assert(offsetof(cmdb_filter_t, value) == 8);

GK_LAYOUT(cmdb_event_entry_t);
static_assert(sizeof(cmdb_event_proc_t) == 24 && offsetof(cmdb_event_proc_t, act) == 22);
static_assert(offsetof(cmdb_event_proc_t, flags) == 23 && offsetof(cmdb_event_entry_t, procs) == 2);
static_assert(sizeof(cmdb_event_entry_t) == 386 && offsetof(cmdb_event_table_t, rec) == 4);
static_assert(sizeof(cmdb_event_table_t) <= CMDB_EVENT_SIZE);
GK_LAYOUT(cmdb_host_desc_t);
static_assert(offsetof(cmdb_host_desc_t, elem_count) == 134 && offsetof(cmdb_host_desc_t, elems) == 144);
static_assert(sizeof(cmdb_host_desc_elem_t) == 24 && offsetof(cmdb_host_desc_elem_t, bytes) == 8);
static_assert(offsetof(cmdb_host_desc_elem_t, len) == 16);
GK_LAYOUT(cmdb_event_msg_t);
static_assert(offsetof(cmdb_event_msg_t, domain_id) == 4 && offsetof(cmdb_event_msg_t, act) == 8);
static_assert(offsetof(cmdb_event_msg_t, data_size) == 12 && offsetof(cmdb_event_msg_t, total_size) == 16);
static_assert(offsetof(cmdb_event_msg_t, data1) == 24 && offsetof(cmdb_event_msg_t, desc) == 40);
static_assert(sizeof(cmdb_event_msg_t) == 48);

static_assert(sizeof(cmf_buf_t) == 24 && offsetof(cmf_buf_t, len) == 16 && offsetof(cmf_buf_t, size) == 20);
static_assert(CMDB_DAEMON_STATUS_SIZE == 104 && offsetof(cmdb_daemon_status_t, reload_value) == 32);
static_assert(CMDB_STRING_TYPES == 0x2024);
