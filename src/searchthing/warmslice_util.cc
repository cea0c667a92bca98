#include "searchthing/warmslice_util.h"

#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "searchthing/check.h"
#include "searchthing/fclex_io.h"

namespace tarnix {

bool _has_magic(const warm_header* h, const char magic[MAGIC_SZ]) noexcept {
  return memcmp(h->b, magic, MAGIC_SZ) == 0;
}

bool verify_magic(const warm_header* h) noexcept {
  return _has_magic(h, MAGIC_V6) || _has_magic(h, MAGIC_V5) || _has_magic(h, MAGIC_V4) ||
         _has_magic(h, MAGIC_V3) || _has_magic(h, MAGIC_LEX);
}

void _set_magic(warm_header* h, const char magic[MAGIC_SZ]) noexcept { memcpy(h->b, magic, MAGIC_SZ); }
void _init_magic(warm_header* h) noexcept { _set_magic(h, MAGIC_V6); }

uint32_t _get_plo_size(const warm_header* h) noexcept { return _has_magic(h, MAGIC_V3) ? 4 : 8; }
bool _has_full_metadata(const warm_header* h) noexcept { return !_has_magic(h, MAGIC_LEX); }
bool _has_reverse_lex(const warm_header* h) noexcept {
  return !_has_magic(h, MAGIC_V6) && !_has_magic(h, MAGIC_LEX);
}

void _get_warm_slice_offsets(const warm_header* h, warm_offsets* o) noexcept {
  const uint64_t num_values = hdr_num_values(h);
  const uint64_t num_terms = hdr_num_terms(h);
  o->values = WARM_HEADER_REGION_SZ;
  o->et = next8(o->values + TSVAL_RECORD_SZ * num_values);
  o->s = next8(o->et + et_size(h));
  o->st = next8(o->s + s_size(h));
  o->h = next8(o->st + st_size(h));
  o->d = next8(o->h + h_size(h));
  o->pl_offs = next8(o->d + d_size(h));
  // Without values the offset table counts as empty, whatever num_terms says.
  const uint64_t plo_bytes = num_values == 0 ? 0 : num_terms * _get_plo_size(h);
  o->metadata = next8(o->pl_offs + plo_bytes);
  o->fclex = next8(o->metadata + num_terms * _metadata_entry_size(h));
  // Versions 3 to 5 keep an older per-term table before the lexicon; skipped.
  if (_has_reverse_lex(h)) o->fclex += num_terms * 4;
}

namespace {
warm_offsets offsets_of(const warm_header* h) noexcept {
  warm_offsets o;
  _get_warm_slice_offsets(h, &o);
  return o;
}
}  // namespace

file_offset_t _offset_values(const warm_header*) noexcept { return WARM_HEADER_REGION_SZ; }
file_offset_t _offset_et_array(const warm_header* h) noexcept { return offsets_of(h).et; }
file_offset_t _offset_s_array(const warm_header* h) noexcept { return offsets_of(h).s; }
file_offset_t _offset_st_array(const warm_header* h) noexcept { return offsets_of(h).st; }
file_offset_t _offset_h_array(const warm_header* h) noexcept { return offsets_of(h).h; }
file_offset_t _offset_d_array(const warm_header* h) noexcept { return offsets_of(h).d; }
file_offset_t _offset_pl_offs(const warm_header* h) noexcept { return offsets_of(h).pl_offs; }
file_offset_t _offset_metadata(const warm_header* h) noexcept { return offsets_of(h).metadata; }
file_offset_t _offset_fclex(const warm_header* h) noexcept { return offsets_of(h).fclex; }
file_offset_t size_without_vardata(const warm_header* h) noexcept { return offsets_of(h).fclex; }

int st_warm_slice_offsets(int fd, warm_offsets* out, warm_header* hdr_out) noexcept {
  warm_header h;
  if (!st_pread_full(fd, h.b, WARM_HEADER_SZ, 0)) return WS_EREAD;
  _get_warm_slice_offsets(&h, out);
  if (hdr_out != nullptr) *hdr_out = h;
  return WS_SUCCESS;
}

uint64_t st_unique_id() noexcept {
  // Seeded once per process with the process id, on first use.
  static bool seeded = false;
  if (!seeded) {
    srand(static_cast<unsigned>(getpid()));
    seeded = true;
  }
  struct timeval tv;
  if (gettimeofday(&tv, nullptr) != 0) abort();
  const uint64_t usec = static_cast<uint64_t>(tv.tv_sec) * 1000000u + static_cast<uint64_t>(tv.tv_usec);
  const uint64_t r = static_cast<uint64_t>(rand() % 65535);
  return (usec << 16) | r;
}

char* st_warm_slice_filename_from_time(char* dst, const char* prefix, const char* suffix,
                                       int32_t earliest, int32_t latest) noexcept {
  (void)_filename_from_time(dst, prefix, suffix, earliest, latest);
  return dst;
}

bool _filename_from_time(char* dst, const char* prefix, const char* suffix, int32_t earliest,
                         int32_t latest) noexcept {
  ST_ASSERT_TEXT(prefix != nullptr, "prefix != ((void *)0)");
  ST_ASSERT_TEXT(*prefix != '\0', "*prefix != '\\0'");
  // The prefix is used as a copy without its trailing '/'.
  size_t plen = strlen(prefix);
  if (plen > 0 && prefix[plen - 1] == '/') --plen;
  char tail[96];
  snprintf(tail, sizeof(tail), "/%d-%d-%llu", latest, earliest,
           static_cast<unsigned long long>(st_unique_id()));
  const char* sfx = suffix == nullptr ? "" : suffix;
  // Assembled by hand, cut at the buffer's end like a formatted write would be.
  size_t pos = 0;
  bool whole = true;
  for (const auto& [p, n] : {std::pair<const char*, size_t>{prefix, plen},
                             std::pair<const char*, size_t>{tail, strlen(tail)},
                             std::pair<const char*, size_t>{sfx, strlen(sfx)}}) {
    size_t take = n < PATH_BUF_SZ - 1 - pos ? n : PATH_BUF_SZ - 1 - pos;
    whole = whole && take == n;
    memcpy(dst + pos, p, take);
    pos += take;
  }
  dst[pos] = '\0';
  return whole;
}

}  // namespace tarnix
