// Streaming readers for index files and lexicon-only files, shared by
// tarnix-check and tarnix-dump. They are a second, independent reading of the
// format: nothing here uses the library's open, lexicon or posting readers,
// only the byte codes (codes.h) and the header layout (warmslice_util.h).
//
// Every reader works through fixed-size buffers filled by positional reads,
// so memory stays bounded whatever the file's size, and every byte read from
// a file is checked before it is used: a damaged file yields a described
// problem, never a crash or a read out of bounds.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "searchthing/codes.h"
#include "searchthing/result.h"
#include "searchthing/warmslice_util.h"

namespace tarnix::inspect {

// The longest term a lexicon may hold, and the buffer that holds one.
inline constexpr uint32_t LEX_TERM_MAX = 2047;
inline constexpr uint32_t LEX_TERM_BUF = 2048;

// ---- Files -----------------------------------------------------------------

// Reads up to n bytes at off, looping over EINTR and partial reads. Returns
// the bytes read (less than n only at the end of the file), or -1.
inline int64_t pread_full(int fd, void* buf, size_t n, uint64_t off) noexcept {
  size_t done = 0;
  while (done < n) {
    ssize_t r = pread(fd, static_cast<uint8_t*>(buf) + done, n - done, static_cast<off_t>(off + done));
    if (r < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (r == 0) break;
    done += static_cast<size_t>(r);
  }
  return static_cast<int64_t>(done);
}

// The error of input_file::open for a path that is neither a regular file
// nor a directory (a FIFO, a socket, a device), and the text of its errors.
inline constexpr int NOT_REGULAR = -1;
inline const char* open_error(int err) { return err == NOT_REGULAR ? "not a regular file" : strerror(err); }

// A read-only descriptor and the file's size, closed on destruction.
class input_file {
 public:
  input_file() = default;
  input_file(const input_file&) = delete;
  input_file& operator=(const input_file&) = delete;
  ~input_file() { close(); }

  // Opens path, a regular file; false with the error number in err on
  // failure (NOT_REGULAR for anything else, see open_error). The open does
  // not wait: a FIFO would otherwise block it until a writer came.
  bool open(const std::string& path, int* err) noexcept {
    close();
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd_ < 0) {
      *err = errno;
      return false;
    }
    struct stat st;
    if (fstat(fd_, &st) != 0) {
      *err = errno;
      close();
      return false;
    }
    if (!S_ISREG(st.st_mode)) {
      *err = S_ISDIR(st.st_mode) ? EISDIR : NOT_REGULAR;
      close();
      return false;
    }
    size_ = static_cast<uint64_t>(st.st_size);
    return true;
  }
  void close() noexcept {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }
  int fd() const noexcept { return fd_; }
  uint64_t size() const noexcept { return size_; }

 private:
  int fd_ = -1;
  uint64_t size_ = 0;
};

// ---- Problems ----------------------------------------------------------------

// One finding: where it is (section, position) and what was expected and
// found. A note is worth telling but does not make a file unsound.
struct issue {
  std::string section;
  std::string position;
  std::string expected;
  std::string found;
  bool note = false;
};

inline std::string num(uint64_t v) { return std::to_string(v); }
inline std::string snum(int64_t v) { return std::to_string(v); }

// A term as text: printable ASCII as it is, everything else as \xNN.
inline std::string quote_term(std::string_view t) {
  std::string s = "'";
  for (unsigned char c : t) {
    if (c >= 0x20 && c < 0x7F && c != '\\' && c != '\'') {
      s += static_cast<char>(c);
    } else {
      char buf[8];
      snprintf(buf, sizeof(buf), "\\x%02X", c);
      s += buf;
    }
  }
  return s + "'";
}

// JSON string literal; bytes outside printable ASCII become \u00NN.
inline std::string json_str(std::string_view t) {
  std::string s = "\"";
  for (unsigned char c : t) {
    if (c == '"' || c == '\\') {
      s += '\\';
      s += static_cast<char>(c);
    } else if (c >= 0x20 && c < 0x7F) {
      s += static_cast<char>(c);
    } else {
      char buf[8];
      snprintf(buf, sizeof(buf), "\\u%04X", c);
      s += buf;
    }
  }
  return s + "\"";
}

// ---- Sequential reader ----------------------------------------------------------

// Reads the byte range [begin, end) of a file front to back through one
// fixed buffer. fill(n) makes up to n bytes contiguous at data().
class seq_reader {
 public:
  void open(int fd, uint64_t begin, uint64_t end, size_t bufsz) {
    fd_ = fd;
    begin_ = begin;
    end_ = std::max(begin, end);
    buf_.assign(std::max<size_t>(bufsz, 64), 0);
    buf_off_ = begin;
    pos_ = 0;
    valid_ = 0;
    io_error_ = false;
  }
  uint64_t pos() const noexcept { return buf_off_ + pos_; }
  uint64_t end() const noexcept { return end_; }
  uint64_t left() const noexcept { return end_ - pos(); }
  bool io_error() const noexcept { return io_error_; }
  const uint8_t* data() const noexcept { return buf_.data() + pos_; }

  // Returns the bytes available at data(), at least min(n, left()) unless a
  // read failed (n must not exceed the buffer).
  size_t fill(size_t n) noexcept {
    n = std::min<uint64_t>(std::min(n, buf_.size()), left());
    if (valid_ - pos_ >= n) return valid_ - pos_;
    const size_t keep = valid_ - pos_;
    memmove(buf_.data(), buf_.data() + pos_, keep);
    buf_off_ += pos_;
    pos_ = 0;
    valid_ = keep;
    const uint64_t want = std::min<uint64_t>(buf_.size() - keep, end_ - (buf_off_ + keep));
    int64_t r = pread_full(fd_, buf_.data() + keep, want, buf_off_ + keep);
    if (r < 0) {
      io_error_ = true;
      r = 0;
    }
    valid_ += static_cast<size_t>(r);
    return valid_ - pos_;
  }
  void skip(uint64_t n) noexcept {
    if (n <= valid_ - pos_) {
      pos_ += n;
    } else {
      seek(pos() + n);
    }
  }
  // Moves to absolute offset off (kept within the range).
  void seek(uint64_t off) noexcept {
    off = std::clamp(off, begin_, end_);
    if (off >= buf_off_ && off <= buf_off_ + valid_) {
      pos_ = off - buf_off_;
      return;
    }
    buf_off_ = off;
    pos_ = 0;
    valid_ = 0;
  }
  bool get_be32(uint32_t* v) noexcept {
    if (fill(4) < 4) return false;
    *v = load_be32(data());
    pos_ += 4;
    return true;
  }
  bool get_be64(uint64_t* v) noexcept {
    if (fill(8) < 8) return false;
    *v = load_be64(data());
    pos_ += 8;
    return true;
  }
  // 1 decoded, 0 at the end of the range, -1 malformed or cut off.
  int get_vbe(uint32_t* v) noexcept {
    size_t a = fill(5);
    if (a == 0) return 0;
    uint32_t n = vbe_get(data(), data() + a, v);
    if (n == 0) return -1;
    pos_ += n;
    return 1;
  }
  bool get_bytes(void* dst, size_t n) noexcept {
    if (fill(n) < n) return false;
    memcpy(dst, data(), n);
    pos_ += n;
    return true;
  }

 private:
  int fd_ = -1;
  uint64_t begin_ = 0, end_ = 0;
  std::vector<uint8_t> buf_;
  uint64_t buf_off_ = 0;  // file offset of buf_[0]
  size_t pos_ = 0;        // read position in buf_
  size_t valid_ = 0;      // valid bytes in buf_
  bool io_error_ = false;
};

// ---- Lexicon sections ------------------------------------------------------------

// The fixed facts of a lexicon section, read from its first 12 bytes and its
// last block end offset.
struct lex_layout {
  uint64_t offset = 0;       // file offset of the section
  uint32_t count = 0;        // term count
  uint32_t tperb = 0;        // terms per block
  uint32_t usize = 0;        // uncompressed size (informative)
  uint32_t blocks = 0;       // B
  uint64_t blocks_off = 0;   // file offset of the blocks area
  uint64_t blocks_len = 0;   // block end offset B-1
  uint64_t end() const noexcept { return blocks_off + blocks_len; }
  uint64_t size() const noexcept { return end() - offset; }
};

// Reads the section header at off. count_override, when not 0, sizes the
// block table instead of the section's own count (used to test whether the
// header's term count is the one that fits). False with a problem in *why.
inline bool read_lex_layout(int fd, uint64_t file_size, uint64_t off, uint32_t count_override,
                            lex_layout* out, issue* why) {
  why->section = "lexicon";
  why->position = "offset " + num(off);
  uint8_t h[12];
  if (off + 12 > file_size || pread_full(fd, h, 12, off) != 12) {
    why->expected = "a 12-byte lexicon header";
    why->found = "end of file at " + num(file_size);
    return false;
  }
  out->offset = off;
  out->count = load_be32(h);
  out->tperb = load_be32(h + 4);
  out->usize = load_be32(h + 8);
  const uint32_t count = count_override != 0 ? count_override : out->count;
  if (count == 0) {
    why->expected = "a term count of at least 1";
    why->found = "0";
    return false;
  }
  if (out->tperb == 0) {
    why->position = "offset " + num(off + 4) + " (terms per block)";
    why->expected = "at least 1 term per block";
    why->found = "0";
    return false;
  }
  out->blocks = static_cast<uint32_t>((static_cast<uint64_t>(count) + out->tperb - 1) / out->tperb);
  out->blocks_off = off + 12 + 4ull * out->blocks;
  if (out->blocks_off > file_size) {
    why->position = "offset " + num(off + 12) + " (block end offsets)";
    why->expected = num(out->blocks) + " block end offsets within the file";
    why->found = "end of file at " + num(file_size);
    return false;
  }
  uint8_t e[4];
  if (pread_full(fd, e, 4, out->blocks_off - 4) != 4) {
    why->position = "offset " + num(out->blocks_off - 4);
    why->expected = "the last block end offset";
    why->found = "a failed read";
    return false;
  }
  out->blocks_len = load_be32(e);
  if (out->end() > file_size) {
    why->position = "offset " + num(out->blocks_off - 4) + " (last block end offset)";
    why->expected = "blocks ending within the file (at most " + num(file_size - out->blocks_off) + " bytes)";
    why->found = num(out->blocks_len);
    return false;
  }
  return true;
}

// Walks the terms of a lexicon section in order, one block at a time,
// through two small buffers. Damage that makes further decoding impossible
// ends the walk (next() returns -1 and failure() says why); damage that
// leaves the walk possible (order, prefix lengths) goes to the sink.
class lex_walker {
 public:
  using sink_fn = void (*)(void* ctx, const issue& i);

  void open(int fd, const lex_layout& lay, sink_fn sink = nullptr, void* ctx = nullptr,
            const char* section = "lexicon") {
    lay_ = lay;
    sink_ = sink;
    ctx_ = ctx;
    section_ = section;
    offs_.open(fd, lay.offset + 12, lay.blocks_off, 1024);
    blocks_.open(fd, lay.blocks_off, lay.end(), 4096);
    t_ = 0;
    j_ = 0;
    b_ = 0;
    block_end_ = 0;
    prev_end_ = 0;
    len_ = 0;
    prev_len_ = 0;
    failed_ = false;
  }

  // Positions the walk at the start of block b (term b * tperb) without
  // checking the blocks before it.
  bool seek_block(uint32_t b) {
    if (b >= lay_.blocks) return false;
    uint32_t start = 0;
    if (b > 0) {
      offs_.seek(lay_.offset + 12 + 4ull * (b - 1));
      if (!offs_.get_be32(&start)) return fail_at(offs_.pos(), "block end offset " + num(b - 1), "a failed read");
    } else {
      offs_.seek(lay_.offset + 12);
    }
    prev_end_ = start;
    blocks_.seek(lay_.blocks_off + start);
    b_ = b;
    j_ = 0;
    t_ = b * lay_.tperb;
    len_ = 0;
    prev_len_ = 0;
    return true;
  }

  // 1 with the next term in *term (valid until the next call), 0 after the
  // last term, -1 when the section cannot be decoded further.
  int next(std::string_view* term) {
    if (failed_) return -1;
    if (t_ >= lay_.count) return 0;
    if (j_ == 0) {
      if (!start_block()) return -1;
    }
    memcpy(prev_, cur_, len_);
    prev_len_ = len_;
    uint32_t p = 0, l = 0;
    const uint64_t at = blocks_.pos();
    if (j_ == 0) {
      if (!vbe(&l, "term length")) return -1;
      if (l == 0 || l > LEX_TERM_MAX)
        return failx(at, "a term length from 1 to 2047", num(l));
    } else {
      if (!vbe(&p, "common prefix length")) return -1;
      if (p > prev_len_)
        return failx(at, "a common prefix length of at most " + num(prev_len_), num(p));
      uint32_t s = 0;
      if (j_ < lay_.tperb - 1) {
        if (!vbe(&s, "suffix length")) return -1;
      } else {
        s = static_cast<uint32_t>(std::min<uint64_t>(block_abs_end() - std::min(block_abs_end(), blocks_.pos()),
                                                     0xFFFFFFFFu));
      }
      if (static_cast<uint64_t>(p) + s > LEX_TERM_MAX)
        return failx(at, "a term of at most 2047 bytes", num(static_cast<uint64_t>(p) + s) + " bytes");
      l = p + s;
    }
    const uint32_t suffix = l - p;
    if (blocks_.pos() + suffix > block_abs_end())
      return failx(blocks_.pos(), num(suffix) + " term bytes within block " + num(b_),
                     num(block_abs_end() - std::min(block_abs_end(), blocks_.pos())) + " bytes left");
    if (!blocks_.get_bytes(cur_ + p, suffix))
      return failx(blocks_.pos(), num(suffix) + " term bytes", "a failed read");
    len_ = l;
    const std::string_view cur(cur_, len_);
    if (len_ == 0) report(at, "a non-empty term", "an empty term");
    if (cur.find('\0') != std::string_view::npos) report(at, "a term without NUL bytes", quote_term(cur));
    if (t_ > 0) {
      const std::string_view prev(prev_, prev_len_);
      if (!(prev < cur))
        report(at, "a term above " + quote_term(prev), quote_term(cur));
      else if (j_ > 0 && p < prev_len_ && p < len_ && prev_[p] == cur_[p])
        report(at, "the longest common prefix with the previous term as prefix length", num(p));
    }
    ++t_;
    ++j_;
    if (j_ == lay_.tperb || t_ == lay_.count) {
      if (blocks_.pos() != block_abs_end())
        return failx(blocks_.pos(), "block " + num(b_) + " to end at offset " + num(block_abs_end()),
                       "its terms ending at " + num(blocks_.pos()));
      j_ = 0;
      ++b_;
    }
    *term = cur;
    return 1;
  }

  uint32_t term_index() const noexcept { return t_; }  // of the next term
  uint32_t block_index() const noexcept { return b_; }
  const issue& failure() const noexcept { return failure_; }
  const lex_layout& layout() const noexcept { return lay_; }

 private:
  uint64_t block_abs_end() const noexcept { return lay_.blocks_off + block_end_; }

  bool start_block() {
    uint32_t e = 0;
    const uint64_t at = offs_.pos();
    if (!offs_.get_be32(&e)) return fail_at(at, "block end offset " + num(b_), "a failed read");
    if (e <= prev_end_)
      return fail_at(at, "block end offset " + num(b_) + " above " + num(prev_end_), num(e));
    if (e > lay_.blocks_len)
      return fail_at(at, "block end offset " + num(b_) + " of at most " + num(lay_.blocks_len), num(e));
    if (blocks_.pos() != lay_.blocks_off + prev_end_) blocks_.seek(lay_.blocks_off + prev_end_);
    block_end_ = e;
    prev_end_ = e;
    return true;
  }
  bool vbe(uint32_t* v, const char* what) {
    const uint64_t at = blocks_.pos();
    if (at >= block_abs_end())
      return fail_at(at, std::string("a ") + what + " within block " + num(b_), "the block's end");
    const int r = blocks_.get_vbe(v);
    if (r != 1 || blocks_.pos() > block_abs_end())
      return fail_at(at, std::string("a valid VBE ") + what, blocks_.io_error() ? "a failed read" : "a malformed code");
    return true;
  }
  void report(uint64_t at, std::string expected, std::string found) {
    if (sink_ == nullptr) return;
    issue i{section_, where(at), std::move(expected), std::move(found), false};
    sink_(ctx_, i);
  }
  std::string where(uint64_t at) const {
    return "offset " + num(at) + " (block " + num(b_) + ", term " + num(t_) + ")";
  }
  int failx(uint64_t at, std::string expected, std::string found) {
    fail_at(at, std::move(expected), std::move(found));
    return -1;
  }
  bool fail_at(uint64_t at, std::string expected, std::string found) {
    failed_ = true;
    failure_ = issue{section_, where(at), std::move(expected), std::move(found), false};
    return false;
  }
  lex_layout lay_;
  sink_fn sink_ = nullptr;
  void* ctx_ = nullptr;
  const char* section_ = "lexicon";
  seq_reader offs_, blocks_;
  uint32_t t_ = 0, j_ = 0, b_ = 0;
  uint32_t block_end_ = 0, prev_end_ = 0;  // relative to the blocks area
  char cur_[LEX_TERM_BUF];
  char prev_[LEX_TERM_BUF];
  uint32_t len_ = 0, prev_len_ = 0;
  bool failed_ = false;
  issue failure_;
};

// Reads the whole first term of block b (stored in full) by positional
// reads. False when it cannot be read.
inline bool block_first_term(int fd, const lex_layout& lay, uint32_t b, std::string* out) {
  uint32_t start = 0, end = 0;
  uint8_t e[4];
  if (b > 0) {
    if (pread_full(fd, e, 4, lay.offset + 12 + 4ull * (b - 1)) != 4) return false;
    start = load_be32(e);
  }
  if (pread_full(fd, e, 4, lay.offset + 12 + 4ull * b) != 4) return false;
  end = load_be32(e);
  if (end <= start || end > lay.blocks_len) return false;
  uint8_t buf[LEX_TERM_MAX + 5];
  const size_t want = std::min<size_t>(sizeof(buf), end - start);
  const int64_t r = pread_full(fd, buf, want, lay.blocks_off + start);
  if (r <= 0) return false;
  uint32_t l = 0;
  const uint32_t n = vbe_get(buf, buf + r, &l);
  if (n == 0 || l == 0 || l > LEX_TERM_MAX || n + l > static_cast<uint64_t>(r)) return false;
  out->assign(reinterpret_cast<const char*>(buf + n), l);
  return true;
}

// The block that holds key if it is present: the last block whose first term
// is not above key (0 when none is). Binary search over the blocks' first
// terms; damaged blocks end the search early.
inline uint32_t find_block(int fd, const lex_layout& lay, std::string_view key) {
  uint32_t lo = 0, hi = lay.blocks;  // answer in [lo, hi)
  while (hi - lo > 1) {
    const uint32_t mid = lo + (hi - lo) / 2;
    std::string first;
    if (!block_first_term(fd, lay, mid, &first)) return lo;
    if (std::string_view(first) <= key) {
      lo = mid;
    } else {
      hi = mid;
    }
  }
  return lo;
}

// ---- Posting lists ----------------------------------------------------------------

// Decodes one posting list from a sequential reader positioned at its start:
// VBE(first), then VBE(gap) or a zero byte and VBE(run length).
class plist_decoder {
 public:
  void start(seq_reader* r, uint64_t len) noexcept {
    r_ = r;
    end_ = r->pos() + len;
    returned_ = 0;
    pending_ = 0;
    current_ = 0;
  }
  // 1 with the next id, 0 at the end, -1 on damage (why()).
  int next(uint32_t* v) {
    if (pending_ > 0) {
      --pending_;
      ++current_;
      *v = current_;
      ++returned_;
      return 1;
    }
    if (r_->pos() >= end_) return 0;
    at_ = r_->pos();
    uint32_t x = 0;
    const size_t a = std::min<uint64_t>(r_->fill(5), end_ - r_->pos());
    if (a == 0) return fail("a posting code", r_->io_error() ? "a failed read" : "the end of the section");
    if (returned_ > 0 && r_->data()[0] == 0) {
      r_->skip(1);
      const size_t b = std::min<uint64_t>(r_->fill(5), end_ - r_->pos());
      const uint32_t n = vbe_get(r_->data(), r_->data() + b, &x);
      if (n == 0) return fail("a valid VBE run length within the list", "a malformed or cut-off code");
      r_->skip(n);
      if (x == 0) return fail("a run length of at least 1", "0");
      if (static_cast<uint64_t>(current_) + x > 0xFFFFFFFFull)
        return fail("ids below 2^32", "a run past " + num(current_));
      pending_ = x - 1;
      ++current_;
    } else {
      const uint32_t n = vbe_get(r_->data(), r_->data() + a, &x);
      if (n == 0) return fail("a valid VBE gap within the list", "a malformed or cut-off code");
      r_->skip(n);
      if (static_cast<uint64_t>(current_) + x > 0xFFFFFFFFull)
        return fail("ids below 2^32", "a gap of " + num(x) + " after " + num(current_));
      current_ += x;
    }
    *v = current_;
    ++returned_;
    return 1;
  }
  uint64_t at() const noexcept { return at_; }  // offset of the last code read
  const std::string& why_expected() const noexcept { return expected_; }
  const std::string& why_found() const noexcept { return found_; }

 private:
  int fail(std::string e, std::string f) {
    expected_ = std::move(e);
    found_ = std::move(f);
    return -1;
  }
  seq_reader* r_ = nullptr;
  uint64_t end_ = 0, at_ = 0;
  uint32_t returned_ = 0, pending_ = 0, current_ = 0;
  std::string expected_, found_;
};

// ---- Values -----------------------------------------------------------------------

// Random access to value records (timestamp, event address) through a small
// direct-mapped cache of 4 KiB pages of the value table.
class value_cache {
 public:
  static constexpr uint32_t PAGE_RECORDS = 512;
  static constexpr uint32_t SLOTS = 1024;  // 4 MiB in all

  void open(int fd, uint64_t values_off, uint32_t num_values) {
    fd_ = fd;
    off_ = values_off;
    n_ = num_values;
    tags_.assign(SLOTS, ~0u);
    pages_.assign(static_cast<size_t>(SLOTS) * PAGE_RECORDS * TSVAL_RECORD_SZ, 0);
  }
  // False when id is out of range or its page cannot be read.
  bool get(uint32_t id, int32_t* ts, uint32_t* addr) {
    if (id >= n_) return false;
    const uint32_t page = id / PAGE_RECORDS;
    const uint32_t slot = page % SLOTS;
    uint8_t* p = pages_.data() + static_cast<size_t>(slot) * PAGE_RECORDS * TSVAL_RECORD_SZ;
    if (tags_[slot] != page) {
      const uint64_t first = static_cast<uint64_t>(page) * PAGE_RECORDS;
      const uint64_t cnt = std::min<uint64_t>(PAGE_RECORDS, n_ - first);
      const int64_t want = static_cast<int64_t>(cnt * TSVAL_RECORD_SZ);
      if (pread_full(fd_, p, static_cast<size_t>(want), off_ + first * TSVAL_RECORD_SZ) != want) {
        tags_[slot] = ~0u;
        return false;
      }
      tags_[slot] = page;
    }
    const uint8_t* r = p + static_cast<size_t>(id % PAGE_RECORDS) * TSVAL_RECORD_SZ;
    *ts = static_cast<int32_t>(load_be32(r));
    *addr = load_be32(r + 4);
    return true;
  }

 private:
  int fd_ = -1;
  uint64_t off_ = 0;
  uint32_t n_ = 0;
  std::vector<uint32_t> tags_;
  std::vector<uint8_t> pages_;
};

// Element access to one bit-packed value column through a window that always
// starts at an element number divisible by 8 (a byte boundary, since eight
// elements of n bits fill exactly n bytes).
class column_reader {
 public:
  static constexpr uint32_t WINDOW_GROUPS = 512;  // 4096 elements per window

  void open(int fd, uint64_t col_off, uint64_t col_size, uint32_t nbits) {
    fd_ = fd;
    off_ = col_off;
    size_ = col_size;
    nbits_ = nbits;
    // A width outside 1..32 (a damaged header) reads as 0 everywhere.
    const uint32_t width = nbits >= 1 && nbits <= 32 ? nbits : 1;
    win_.assign(static_cast<size_t>(WINDOW_GROUPS) * width + 8, 0);
    base_ = ~0ull;
  }
  // Element i (0 where the column is shorter than it should be).
  uint32_t get(uint32_t i) {
    if (nbits_ == 0 || nbits_ > 32) return 0;
    const uint64_t group = i / 8;
    if (base_ == ~0ull || group < base_ || group >= base_ + WINDOW_GROUPS) {
      base_ = group;
      std::fill(win_.begin(), win_.end(), 0);
      const uint64_t from = base_ * nbits_;
      if (from < size_) {
        const uint64_t want = std::min<uint64_t>(static_cast<uint64_t>(WINDOW_GROUPS) * nbits_, size_ - from);
        if (pread_full(fd_, win_.data(), want, off_ + from) < 0) std::fill(win_.begin(), win_.end(), 0);
      }
    }
    return decode_from_byte_str(win_.data(), static_cast<uint32_t>(i - base_ * 8), nbits_);
  }

 private:
  int fd_ = -1;
  uint64_t off_ = 0, size_ = 0, base_ = ~0ull;
  uint32_t nbits_ = 0;
  std::vector<uint8_t> win_;
};

// The five columns of a file, for decoding whole values.
struct value_columns {
  column_reader et, s, st, h, d;
  void open(int fd, const warm_header& hdr, const warm_offsets& o) {
    et.open(fd, o.et, et_size(&hdr), et_nbits(&hdr));
    s.open(fd, o.s, s_size(&hdr), s_nbits(&hdr));
    st.open(fd, o.st, st_size(&hdr), st_nbits(&hdr));
    h.open(fd, o.h, h_size(&hdr), h_nbits(&hdr));
    d.open(fd, o.d, d_size(&hdr), d_nbits(&hdr));
  }
};

// ---- Header -------------------------------------------------------------------------

inline std::string magic_text(const warm_header& h) {
  std::string s;
  for (size_t i = 0; i < MAGIC_SZ; ++i) {
    const unsigned char c = h.b[i];
    if (c == 0) break;
    s += (c >= 0x20 && c < 0x7F) ? static_cast<char>(c) : '?';
  }
  return s;
}

inline std::string hex_bytes(const uint8_t* p, size_t n) {
  std::string s;
  char buf[4];
  for (size_t i = 0; i < n; ++i) {
    snprintf(buf, sizeof(buf), i == 0 ? "%02X" : " %02X", p[i]);
    s += buf;
  }
  return s;
}

// End of the postings section: the posting lists start right after the
// (last) lexicon, which for versions 3 to 5 is the reverse lexicon at the
// forward lexicon's end rounded up to a multiple of 4.
inline uint64_t round_up4(uint64_t x) noexcept { return (x + 3) & ~static_cast<uint64_t>(3); }

}  // namespace tarnix::inspect
