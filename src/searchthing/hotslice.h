// The hot slice: the in-memory index under construction. It collects
// (term, event) pairs, keeps every distinct term once with its metadata and
// every event value once, and links each term to the values that carry it.
// Prepare sorts the terms and values and turns the links into ascending,
// duplicate-free posting lists; the index file writer (st_warm_slice_create)
// then writes a new file from it, and reset makes it reusable.
//
// All storage is allocated at creation from four capacities and never grows:
// st_hot_slice_put answers "full" (-1 terms, -2 values, -3 list nodes, -4 term
// bytes, -5 keyword holds a NUL) and the caller flushes and retries.
//
// Two modes: streaming (events arrive latest last, never earlier than the
// previous one; values are stacked from the top of the value array down and
// are in file order already) and normal (any order; values are found again by
// a hash on the event address and sorted at prepare).
//
// Also here: a small generic singly linked list (head, tail, count) used by
// the lexicon writer for its pages.
#pragma once

#include <cstdint>

#include "searchthing/result.h"
#include "searchthing/types.h"

namespace tarnix {

using node_idx_t = uint32_t;
using tsval_idx_t = uint32_t;
inline constexpr node_idx_t NO_NODE = 0xFFFFFFFFu;
inline constexpr tsval_idx_t NO_TSVAL = 0xFFFFFFFFu;
// Longer terms are cut to this many bytes.
inline constexpr uint32_t HOT_MAX_TERM_LEN = 2047;

// One term hash bucket (16 bytes). Empty: (null, NO_NODE, 0). After prepare
// bucket i holds the i-th term in lexicon order.
struct list_head {
  const char* term;      // into the term bytes
  node_idx_t head;       // newest node of the term's list
  uint32_t term_index;   // the term's metadata entry
};

// One posting link: the previous head of the term's list and a value slot.
struct list_node {
  node_idx_t next;
  tsval_idx_t tsval_i;
};

struct hot_slice {
  char* term_bytes;                  // distinct terms, NUL-terminated, back to back
  uint32_t term_bytes_capacity;
  uint32_t term_bytes_used;
  uint32_t term_count;               // also the next term index
  st_term_metadata* term_metadata;   // by term index (host order)
  uint32_t term_capacity;
  list_head* term_hash;
  uint32_t term_hash_capacity;       // 2 * term_capacity
  list_node* nodes;
  uint32_t list_node_capacity;
  uint32_t nodes_used;
  tsval* values;
  uint32_t value_capacity;
  // Normal: values used (they fill 0 upward). Streaming: lowest used slot
  // (they fill from value_capacity downward).
  uint32_t value_index;
  tsval** value_hash;                // normal mode only; after prepare the sorted values
  uint32_t value_hash_capacity;      // 2 * value_capacity, 0 in streaming mode
  uint32_t* values_map;              // normal mode only: slot -> value id in the file
  uint32_t values_map_capacity;
  const char** sorted_terms;         // filled by prepare
  uint32_t sorted_terms_capacity;
  uint32_t* term_posting_counts;     // filled by prepare, per sorted term
  uint32_t term_posting_counts_capacity;
  uint32_t* postings;                // filled by prepare: all lists back to back
  uint32_t postings_capacity;        // list_node_capacity
  int32_t prepared;
  // Results of the last prepare.
  int32_t latest;
  int32_t earliest;
  uint32_t num_values;
  uint32_t num_terms;
  uint32_t num_postings;
};

// Null with -37 (term capacity odd or <= 256, node or value capacity beyond
// 32 bits), -36 (term bytes or term capacity beyond 32 bits, or a hash table
// of twice a capacity would not fit 32 bits) or -2 recorded in w.
hot_slice* st_hot_slice_create(uint64_t term_bytes_capacity, uint64_t term_capacity,
                               uint64_t list_node_capacity, uint64_t value_capacity, int streaming,
                               wrc* w) noexcept;
// 0 or a full code (-1..-5). An empty keyword is a probe: it fails when any
// store is filled beyond 7/8 and otherwise stores nothing.
int st_hot_slice_put(hot_slice* handle, const char* keyword, uint32_t length, int32_t timestamp,
                     uint32_t event_address, uint32_t event_type, uint32_t source,
                     uint32_t source_type, uint32_t host) noexcept;
// Sorts and numbers values and terms and builds the posting lists. 0, or -1
// when a normal-mode slice holds no values. A second call returns the saved
// results. num_postings counts the last term's duplicates (kept so).
int st_hot_slice_prepare(hot_slice* handle, int32_t* latest, int32_t* earliest,
                         uint32_t* num_values, uint32_t* num_terms, uint32_t* num_postings) noexcept;
void st_hot_slice_reset(hot_slice* handle) noexcept;
void st_hot_slice_close(hot_slice* handle) noexcept;   // null accepted

// Term index held by bucket i (after prepare: of the i-th sorted term).
uint32_t st_hot_slice_get_term_index(const hot_slice* handle, uint32_t i) noexcept;
uint32_t st_hot_slice_values(const hot_slice* handle) noexcept;
uint32_t st_hot_slice_value_begin(const hot_slice* handle) noexcept;
uint32_t st_hot_slice_value_end(const hot_slice* handle) noexcept;
bool st_hot_slice_is_streaming(const hot_slice* handle) noexcept;
// Largest value of the attribute among the used values, 0 when none.
uint32_t get_largest_event_type(const hot_slice* handle) noexcept;
uint32_t get_largest_source(const hot_slice* handle) noexcept;
uint32_t get_largest_source_type(const hot_slice* handle) noexcept;
uint32_t get_largest_host(const hot_slice* handle) noexcept;
uint32_t st_hot_slice_max_postings() noexcept;
uint32_t st_hot_slice_max_values() noexcept;
// Bytes held by a slice, and an estimate for capacities before creating one.
uint64_t st_hot_slice_size(const hot_slice* handle) noexcept;
uint64_t st_hot_slice_size_est(uint32_t term_bytes, uint32_t terms, uint32_t nodes,
                               uint32_t values) noexcept;

// Sorts n buckets by term (strcmp); sorts n value pointers, latest first.
// Neither allocates.
void st_list_head_qsort(list_head* buckets, uint64_t n) noexcept;
void st_tsval_ptr_qsort(tsval** values, uint64_t n) noexcept;

// ---- Generic list ------------------------------------------------------------------
struct gen_list_node {
  void* data;
  gen_list_node* next;
};
struct gen_list {
  gen_list_node* head;
  gen_list_node* tail;
  uint64_t count;
  void (*free_fn)(void* data);   // applied to remaining data by delete_list, or null
};
// Null when the allocation fails.
gen_list* new_list(void (*free_fn)(void* data)) noexcept;
int push_front(gen_list* l, void* data) noexcept;        // 0 or -2
int append_list_node(gen_list* l, void* data) noexcept;  // 0 or -2 (at the tail)
void* pop_front(gen_list* l) noexcept;                   // the data, null when empty
void* top_front(const gen_list* l) noexcept;             // the data, null when empty
void delete_list(gen_list* l) noexcept;                  // null accepted
uint64_t get_count(const gen_list* l) noexcept;

}  // namespace tarnix
