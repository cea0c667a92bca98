#include "searchthing/hotslice.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "searchthing/check.h"
#include "searchthing/warmslice.h"

namespace tarnix {

namespace {

constexpr uint32_t U32_MAX = 0xFFFFFFFFu;

// Every array of a slice comes from here and goes back through release(),
// so that a failed create can free whatever it had already obtained.
template <typename T>
T* alloc_array(uint64_t n) noexcept {
  return new (std::nothrow) T[n == 0 ? 1 : n];
}

template <typename T>
void release(T*& p) noexcept {
  delete[] p;
  p = nullptr;
}

void release_all(hot_slice* h) noexcept {
  release(h->term_bytes);
  release(h->term_metadata);
  release(h->term_hash);
  release(h->nodes);
  release(h->values);
  release(h->value_hash);
  release(h->values_map);
  release(h->sorted_terms);
  release(h->term_posting_counts);
  release(h->postings);
}

void clear_buckets(list_head* b, uint32_t n) noexcept {
  for (uint32_t i = 0; i < n; ++i) b[i] = list_head{nullptr, NO_NODE, 0};
}

void clear_nodes(list_node* nodes, uint32_t n) noexcept {
  for (uint32_t i = 0; i < n; ++i) nodes[i] = list_node{NO_NODE, NO_TSVAL};
}

uint32_t _value_begin(const hot_slice* h) noexcept {
  return h->value_hash != nullptr ? 0 : h->value_index;
}
uint32_t _value_end(const hot_slice* h) noexcept {
  return h->value_hash != nullptr ? h->value_index : h->value_capacity;
}
uint32_t _value_count(const hot_slice* h) noexcept { return _value_end(h) - _value_begin(h); }

bool _is_valid_value(const hot_slice* h, uint32_t id) noexcept {
  return id < h->value_capacity - h->value_index;
}

// Hash of the first len bytes, each taken as a signed byte; false on a NUL.
bool _term_hash(const char* keyword, uint32_t len, uint32_t* out) noexcept {
  uint32_t h = 5381;
  for (uint32_t i = 0; i < len; ++i) {
    const signed char c = static_cast<signed char>(keyword[i]);
    if (c == '\0') return false;
    h = h * 33u + static_cast<uint32_t>(static_cast<int32_t>(c));
  }
  *out = h;
  return true;
}

uint32_t _term_hash_2(const char* keyword, uint32_t len) noexcept {
  uint32_t h = 2347;
  for (uint32_t i = 0; i < len; ++i) {
    const signed char c = static_cast<signed char>(keyword[i]);
    ST_ASSERT_TEXT(c != '\0', "c != '\\0'");
    h = h * 65599u + static_cast<uint32_t>(static_cast<int32_t>(c));
  }
  return h;
}

// The stored term equals the keyword's first len bytes and ends there.
bool isequal_str(const char* stored, const char* keyword, uint32_t len) noexcept {
  return strncmp(stored, keyword, len) == 0 && stored[len] == '\0';
}

// Open addressing with an odd double-hashing step. The tables are never
// more than half full, but an odd step that shares a factor with an even
// capacity can cycle over full buckets; after a whole table's worth of
// probes the search goes on with step 1, which always reaches a free bucket.
struct prober {
  uint32_t h;
  uint32_t step;
  uint32_t capacity;
  uint32_t probes = 0;
  uint32_t next() noexcept {
    if (++probes >= capacity) step = 1;
    h += step;
    return h % capacity;
  }
};

list_head* find_bucket(hot_slice* hs, const char* keyword, uint32_t len, uint32_t h) noexcept {
  uint32_t b = h % hs->term_hash_capacity;
  list_head* bucket = &hs->term_hash[b];
  if (bucket->term == nullptr || isequal_str(bucket->term, keyword, len)) return bucket;
  uint32_t step = _term_hash_2(keyword, len);
  if ((step & 1u) == 0) step += 1;
  prober p{h, step, hs->term_hash_capacity};
  for (;;) {
    bucket = &hs->term_hash[p.next()];
    if (bucket->term == nullptr || isequal_str(bucket->term, keyword, len)) return bucket;
  }
}

tsval* find_value_normal(hot_slice* hs, int32_t timestamp, uint32_t event_address, uint32_t event_type,
                         uint32_t source, uint32_t source_type, uint32_t host) noexcept {
  uint32_t step = static_cast<uint32_t>(timestamp) * event_address;
  if ((step & 1u) == 0) step += 1;
  prober p{event_address, step, hs->value_hash_capacity};
  uint32_t slot = event_address % hs->value_hash_capacity;
  while (hs->value_hash[slot] != nullptr && hs->value_hash[slot]->event_address != event_address) {
    slot = p.next();
  }
  if (hs->value_hash[slot] != nullptr) return hs->value_hash[slot];
  ST_ASSERT_TEXT(hs->value_index < hs->value_capacity, "handle->value_index < handle->value_capacity");
  tsval* v = &hs->values[hs->value_index++];
  *v = tsval{timestamp, event_address, event_type, source, source_type, host};
  hs->value_hash[slot] = v;
  return v;
}

tsval* find_value_streaming(hot_slice* hs, int32_t timestamp, uint32_t event_address, uint32_t event_type,
                            uint32_t source, uint32_t source_type, uint32_t host) noexcept {
  if (hs->value_index != hs->value_capacity) {
    tsval* last = &hs->values[hs->value_index];
    if (last->event_address == event_address) {
      ST_ASSERT(timestamp == last->timestamp);
      ST_ASSERT(event_type == last->event_type);
      ST_ASSERT(source == last->source);
      ST_ASSERT(source_type == last->source_type);
      ST_ASSERT(host == last->host);
      return last;
    }
    ST_ASSERT(timestamp >= last->timestamp);
    if (timestamp == last->timestamp) ST_ASSERT(event_address > last->event_address);
  }
  ST_ASSERT_TEXT(hs->value_index > 0, "handle->value_index > 0");
  tsval* v = &hs->values[--hs->value_index];
  *v = tsval{timestamp, event_address, event_type, source, source_type, host};
  return v;
}

// Ascending sort of a term's ids: insertion sort for 10 or fewer, else an
// introspective quicksort; neither allocates.
void sort_ids(uint32_t* a, uint64_t n) noexcept {
  if (n > 10) {
    std::sort(a, a + n);
    return;
  }
  for (uint64_t i = 1; i < n; ++i) {
    const uint32_t v = a[i];
    uint64_t k = i;
    for (; k > 0 && a[k - 1] > v; --k) a[k] = a[k - 1];
    a[k] = v;
  }
}

// The source of a deleted value is the deletion mark, not a source number:
// it is left out, so that a deleted value never widens the source column to
// 32 bits (a width whose elements read back as 0); the deleted flag alone
// brings the mark back.
uint32_t largest_of(const hot_slice* h, uint32_t tsval::*field) noexcept {
  const bool is_source = field == &tsval::source;
  auto counts = [&](const tsval* v) { return !(is_source && v->source == DELETED_SOURCE); };
  uint32_t m = 0;
  if (h->value_hash != nullptr) {
    for (uint32_t i = 0; i < h->value_hash_capacity; ++i) {
      const tsval* v = h->value_hash[i];
      if (v != nullptr && counts(v)) m = std::max(m, v->*field);
    }
    return m;
  }
  ST_ASSERT_TEXT(_value_begin(h) <= _value_end(h), "_value_begin(handle) <= _value_end(handle)");
  for (uint32_t i = _value_begin(h); i < _value_end(h); ++i) {
    if (counts(&h->values[i])) m = std::max(m, h->values[i].*field);
  }
  return m;
}

}  // namespace

hot_slice* st_hot_slice_create(uint64_t term_bytes_capacity, uint64_t term_capacity,
                               uint64_t list_node_capacity, uint64_t value_capacity, int streaming,
                               wrc* w) noexcept {
  _set_rc(w, WS_SUCCESS);
  if (term_capacity % 2 != 0 || term_capacity <= 256 || list_node_capacity > U32_MAX ||
      value_capacity > U32_MAX) {
    _set_rc(w, WS_ENONAME);
    return nullptr;
  }
  // Both hash tables hold twice their elements and are indexed in 32 bits.
  if (term_bytes_capacity > U32_MAX || term_capacity > U32_MAX / 2 ||
      (!streaming && value_capacity > U32_MAX / 2)) {
    _set_rc(w, WS_E32BIT);
    return nullptr;
  }
  hot_slice* h = new (std::nothrow) hot_slice{};
  if (h == nullptr) {
    _set_rc(w, WS_ENOMEM);
    return nullptr;
  }
  h->term_bytes_capacity = static_cast<uint32_t>(term_bytes_capacity);
  h->term_capacity = static_cast<uint32_t>(term_capacity);
  h->term_hash_capacity = 2 * h->term_capacity;
  h->list_node_capacity = static_cast<uint32_t>(list_node_capacity);
  h->value_capacity = static_cast<uint32_t>(value_capacity);
  h->sorted_terms_capacity = h->term_capacity;
  h->term_posting_counts_capacity = h->term_capacity;
  h->postings_capacity = h->list_node_capacity;

  bool ok = (h->term_bytes = alloc_array<char>(h->term_bytes_capacity)) != nullptr &&
            (h->term_metadata = alloc_array<st_term_metadata>(h->term_capacity)) != nullptr &&
            (h->term_hash = alloc_array<list_head>(h->term_hash_capacity)) != nullptr &&
            (h->nodes = alloc_array<list_node>(h->list_node_capacity)) != nullptr &&
            (h->values = alloc_array<tsval>(h->value_capacity)) != nullptr &&
            (h->sorted_terms = alloc_array<const char*>(h->sorted_terms_capacity)) != nullptr &&
            (h->term_posting_counts = alloc_array<uint32_t>(h->term_posting_counts_capacity)) != nullptr &&
            (h->postings = alloc_array<uint32_t>(h->postings_capacity)) != nullptr;
  if (ok && !streaming) {
    h->value_hash_capacity = 2 * h->value_capacity;
    h->values_map_capacity = h->value_capacity;
    ok = (h->value_hash = alloc_array<tsval*>(h->value_hash_capacity)) != nullptr &&
         (h->values_map = alloc_array<uint32_t>(h->values_map_capacity)) != nullptr;
  }
  if (!ok) {
    release_all(h);
    delete h;
    _set_rc(w, WS_ENOMEM);
    return nullptr;
  }
  memset(h->term_bytes, 0, h->term_bytes_capacity);
  memset(static_cast<void*>(h->term_metadata), 0, sizeof(st_term_metadata) * h->term_capacity);
  memset(static_cast<void*>(h->values), 0, sizeof(tsval) * h->value_capacity);
  clear_buckets(h->term_hash, h->term_hash_capacity);
  clear_nodes(h->nodes, h->list_node_capacity);
  for (uint32_t i = 0; i < h->value_hash_capacity; ++i) h->value_hash[i] = nullptr;
  h->value_index = streaming ? h->value_capacity : 0;
  return h;
}

int st_hot_slice_put(hot_slice* handle, const char* keyword, uint32_t length, int32_t timestamp,
                     uint32_t event_address, uint32_t event_type, uint32_t source,
                     uint32_t source_type, uint32_t host) noexcept {
  ST_ASSERT_TEXT(handle != nullptr, "handle != ((void *)0)");
  ST_ASSERT_TEXT(keyword != nullptr, "keyword != ((void *)0)");
  ST_ASSERT_TEXT(handle->prepared == 0, "handle->prepared == 0");
  hot_slice* h = handle;
  const bool probe = keyword[0] == '\0';
  // Filled beyond 7/8 of capacity.
  auto beyond = [](uint32_t used, uint32_t cap) { return used > cap - cap / 8; };

  if (h->term_count >= h->term_capacity || (probe && beyond(h->term_count, h->term_capacity))) return -1;
  const uint32_t used_values = _value_count(h);
  if (used_values >= h->value_capacity || (probe && beyond(used_values, h->value_capacity))) return -2;
  if (h->nodes_used >= h->list_node_capacity || (probe && beyond(h->nodes_used, h->list_node_capacity))) {
    return -3;
  }
  const uint32_t len = std::min(length, HOT_MAX_TERM_LEN);
  if (static_cast<uint64_t>(h->term_bytes_used) + len >= h->term_bytes_capacity ||
      (probe && beyond(h->term_bytes_used, h->term_bytes_capacity))) {
    return -4;
  }
  if (probe || len == 0) return 0;

  uint32_t hash;
  if (!_term_hash(keyword, len, &hash)) return -5;
  list_head* bucket = find_bucket(h, keyword, len, hash);

  if (bucket->term != nullptr) {
    // Same event as the term's newest posting: already recorded.
    const list_node& head = h->nodes[bucket->head];
    if (h->values[head.tsval_i].event_address == event_address) return 0;
    st_term_metadata& m = h->term_metadata[bucket->term_index];
    m.count += 1;
    if (timestamp < m.earliest) m.earliest = timestamp;
    if (timestamp > m.latest) m.latest = timestamp;
  } else {
    char* dst = h->term_bytes + h->term_bytes_used;
    memcpy(dst, keyword, len);
    dst[len] = '\0';
    h->term_bytes_used += len + 1;
    h->term_metadata[h->term_count] = st_term_metadata{1, timestamp, timestamp};
    bucket->term = dst;
    bucket->term_index = h->term_count;
    h->term_count += 1;
  }

  const node_idx_t node_i = h->nodes_used < h->list_node_capacity ? h->nodes_used : NO_NODE;
  ST_ASSERT_TEXT(node_i != NO_NODE, "node_i != ( ((node_idx_t)-1) )");
  h->nodes_used += 1;
  list_node& node = h->nodes[node_i];
  node.next = bucket->head;
  bucket->head = node_i;

  tsval* v = h->value_hash != nullptr
                 ? find_value_normal(h, timestamp, event_address, event_type, source, source_type, host)
                 : find_value_streaming(h, timestamp, event_address, event_type, source, source_type, host);
  ST_ASSERT(node.tsval_i == NO_TSVAL);
  ST_ASSERT_TEXT((uint64_t)(tsval_idx_t)(v - h->values) == (uint64_t)(v - h->values),
                 "(uint64_t)(tsval_idx_t)(tsval - handle->values) == (uint64_t)(tsval - handle->values)");
  node.tsval_i = static_cast<tsval_idx_t>(v - h->values);
  return 0;
}

int st_hot_slice_prepare(hot_slice* handle, int32_t* latest, int32_t* earliest, uint32_t* num_values,
                         uint32_t* num_terms, uint32_t* num_postings) noexcept {
  ST_ASSERT_TEXT(handle != nullptr, "handle != ((void *)0)");
  hot_slice* h = handle;
  if (h->prepared) {
    *latest = h->latest;
    *earliest = h->earliest;
    *num_values = h->num_values;
    *num_terms = h->num_terms;
    *num_postings = h->num_postings;
    return 0;
  }
  const bool streaming = h->value_hash == nullptr;

  // 1. Values in file order.
  if (!streaming) {
    ST_ASSERT_TEXT(h->values_map != nullptr, "handle->values_map");
    uint32_t n = 0;
    for (uint32_t i = 0; i < h->value_hash_capacity; ++i) {
      if (h->value_hash[i] != nullptr) {
        tsval* v = h->value_hash[i];
        h->value_hash[i] = nullptr;
        h->value_hash[n++] = v;
      }
    }
    *num_values = n;
    ST_ASSERT_TEXT(_value_count(h) == *num_values, "_value_count( handle ) == *num_values");
    if (n == 0) return -1;
    st_tsval_ptr_qsort(h->value_hash, n);
    *latest = h->value_hash[0]->timestamp;
    *earliest = h->value_hash[n - 1]->timestamp;
    for (uint32_t rank = 0; rank < n; ++rank) {
      h->values_map[h->value_hash[rank] - h->values] = rank;
    }
  } else {
    ST_ASSERT_TEXT(h->values_map == nullptr, "handle->values_map == ((void *)0)");
    ST_ASSERT_TEXT(h->value_hash_capacity == 0, "handle->value_hash_capacity == 0");
    ST_ASSERT_TEXT(_value_count(h) > 0, "_value_count(handle) > 0");
    *num_values = _value_count(h);
    *latest = h->values[h->value_index].timestamp;
    *earliest = h->values[h->value_capacity - 1].timestamp;
  }

  // 2. Terms in lexicon order; bucket i then holds the i-th term.
  uint32_t nt = 0;
  for (uint32_t i = 0; i < h->term_hash_capacity; ++i) {
    if (h->term_hash[i].term != nullptr) {
      const list_head b = h->term_hash[i];
      h->term_hash[i] = list_head{nullptr, NO_NODE, 0};
      h->term_hash[nt++] = b;
    }
  }
  *num_terms = nt;
  st_list_head_qsort(h->term_hash, nt);
  for (uint32_t i = 0; i < nt; ++i) h->sorted_terms[i] = h->term_hash[i].term;

  // 3./4. Posting lists, ascending and without duplicates.
  memset(h->term_posting_counts, 0, sizeof(uint32_t) * h->term_posting_counts_capacity);
  uint64_t start = 0;
  uint64_t end_with_dups = 0;
  for (uint32_t t = 0; t < nt; ++t) {
    uint64_t j = start;
    for (node_idx_t n = h->term_hash[t].head; n != NO_NODE; n = h->nodes[n].next) {
      const tsval_idx_t slot = h->nodes[n].tsval_i;
      if (streaming) {
        h->postings[j++] = slot - h->value_index;
        ST_ASSERT_TEXT(_is_valid_value(h, h->postings[j - 1]), "_is_valid_value( handle, handle->postings[j-1])");
      } else {
        h->postings[j++] = h->values_map[slot];
      }
    }
    const uint64_t len_with_dups = j - start;
    h->term_posting_counts[t] = static_cast<uint32_t>(len_with_dups);
    end_with_dups = j;
    if (!streaming) {
      ST_ASSERT(len_with_dups <= 2147483647);
      uint32_t* ids = h->postings + start;
      sort_ids(ids, len_with_dups);
      uint64_t out = len_with_dups == 0 ? 0 : 1;
      for (uint64_t k = 1; k < len_with_dups; ++k) {
        if (ids[k] == ids[out - 1]) {
          h->term_posting_counts[t] -= 1;
        } else {
          ids[out++] = ids[k];
        }
      }
    }
    start += h->term_posting_counts[t];
  }
  // The position after the last term's ids before its duplicates went.
  *num_postings = static_cast<uint32_t>(end_with_dups);

  h->latest = *latest;
  h->earliest = *earliest;
  h->num_values = *num_values;
  h->num_terms = *num_terms;
  h->num_postings = *num_postings;
  h->prepared = 1;
  return 0;
}

void st_hot_slice_reset(hot_slice* handle) noexcept {
  ST_ASSERT_TEXT(handle != nullptr, "handle != ((void *)0)");
  hot_slice* h = handle;
  h->prepared = 0;
  h->term_bytes_used = 0;
  h->term_count = 0;
  clear_buckets(h->term_hash, h->term_hash_capacity);
  const uint32_t num = h->nodes_used;
  ST_ASSERT(num <= handle->list_node_capacity);
  clear_nodes(h->nodes, num);
  h->nodes_used = 0;
  if (h->value_hash != nullptr) {
    h->value_index = 0;
    for (uint32_t i = 0; i < h->value_hash_capacity; ++i) h->value_hash[i] = nullptr;
  } else {
    h->value_index = h->value_capacity;
  }
}

void st_hot_slice_close(hot_slice* handle) noexcept {
  if (handle == nullptr) return;
  release_all(handle);
  delete handle;
}

uint32_t st_hot_slice_get_term_index(const hot_slice* handle, uint32_t i) noexcept {
  ST_ASSERT(i < handle->term_hash_capacity);
  return handle->term_hash[i].term_index;
}

uint32_t st_hot_slice_values(const hot_slice* handle) noexcept { return _value_count(handle); }
uint32_t st_hot_slice_value_begin(const hot_slice* handle) noexcept { return _value_begin(handle); }
uint32_t st_hot_slice_value_end(const hot_slice* handle) noexcept { return _value_end(handle); }
bool st_hot_slice_is_streaming(const hot_slice* handle) noexcept { return handle->value_hash == nullptr; }

uint32_t get_largest_event_type(const hot_slice* handle) noexcept { return largest_of(handle, &tsval::event_type); }
uint32_t get_largest_source(const hot_slice* handle) noexcept { return largest_of(handle, &tsval::source); }
uint32_t get_largest_source_type(const hot_slice* handle) noexcept {
  return largest_of(handle, &tsval::source_type);
}
uint32_t get_largest_host(const hot_slice* handle) noexcept { return largest_of(handle, &tsval::host); }

uint32_t st_hot_slice_max_postings() noexcept { return U32_MAX; }
uint32_t st_hot_slice_max_values() noexcept { return U32_MAX; }

uint64_t st_hot_slice_size(const hot_slice* h) noexcept {
  return static_cast<uint64_t>(h->term_bytes_capacity) + 12ull * h->term_capacity + sizeof(hot_slice) +
         16ull * h->term_hash_capacity + 24ull * h->value_capacity +
         8ull * (static_cast<uint64_t>(h->value_hash_capacity) + h->list_node_capacity + h->sorted_terms_capacity) +
         4ull * (static_cast<uint64_t>(h->term_posting_counts_capacity) + h->values_map_capacity +
                 h->postings_capacity);
}

uint64_t st_hot_slice_size_est(uint32_t term_bytes, uint32_t terms, uint32_t nodes, uint32_t values) noexcept {
  // term_bytes + terms, 2 * terms and 2 * values are 32-bit sums, as callers
  // have always computed them.
  const uint32_t bytes_and_terms = term_bytes + terms;
  const uint32_t buckets = 2u * terms;
  const uint32_t value_slots = 2u * values;
  return static_cast<uint64_t>(bytes_and_terms) + 16ull * buckets +
         24ull * (static_cast<uint64_t>(terms) + values) + 4ull * (static_cast<uint64_t>(nodes) + values) +
         8ull * (static_cast<uint64_t>(value_slots) + nodes);
}

void st_list_head_qsort(list_head* buckets, uint64_t n) noexcept {
  std::sort(buckets, buckets + n,
            [](const list_head& a, const list_head& b) { return strcmp(a.term, b.term) < 0; });
}

void st_tsval_ptr_qsort(tsval** values, uint64_t n) noexcept {
  std::sort(values, values + n, [](const tsval* a, const tsval* b) { return st_tsval_compare(a, b) < 0; });
}

// ---- Generic list ------------------------------------------------------------------

gen_list* new_list(void (*free_fn)(void* data)) noexcept {
  gen_list* l = new (std::nothrow) gen_list{};
  if (l != nullptr) l->free_fn = free_fn;
  return l;
}

int push_front(gen_list* l, void* data) noexcept {
  gen_list_node* n = new (std::nothrow) gen_list_node{data, l->head};
  if (n == nullptr) return WS_ENOMEM;
  l->head = n;
  if (l->tail == nullptr) l->tail = n;
  l->count += 1;
  return 0;
}

int append_list_node(gen_list* l, void* data) noexcept {
  gen_list_node* n = new (std::nothrow) gen_list_node{data, nullptr};
  if (n == nullptr) return WS_ENOMEM;
  if (l->tail != nullptr) {
    l->tail->next = n;
  } else {
    l->head = n;
  }
  l->tail = n;
  l->count += 1;
  return 0;
}

void* pop_front(gen_list* l) noexcept {
  gen_list_node* n = l->head;
  if (n == nullptr) return nullptr;
  l->head = n->next;
  if (l->head == nullptr) l->tail = nullptr;
  l->count -= 1;
  void* data = n->data;
  delete n;
  return data;
}

void* top_front(const gen_list* l) noexcept { return l->head != nullptr ? l->head->data : nullptr; }

void delete_list(gen_list* l) noexcept {
  if (l == nullptr) return;
  while (l->head != nullptr) {
    void* data = pop_front(l);
    if (l->free_fn != nullptr) l->free_fn(data);
  }
  delete l;
}

uint64_t get_count(const gen_list* l) noexcept { return l->count; }

}  // namespace tarnix
