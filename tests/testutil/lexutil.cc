#include "testutil/lexutil.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <set>
#include <stdexcept>

#include "searchthing/fclex.h"
#include "searchthing/fclex_io.h"
#include "testutil/testutil.h"

namespace testutil {

std::vector<std::string> random_terms(std::mt19937& rng, size_t n, bool long_terms) {
  std::set<std::string> out;
  std::uniform_int_distribution<int> kind(0, 99);
  std::uniform_int_distribution<int> small_len(1, 12);
  std::uniform_int_distribution<int> alpha('a', 'f');  // few letters: many shared prefixes
  std::uniform_int_distribution<int> any_byte(1, 255);
  while (out.size() < n) {
    int k = kind(rng);
    if (long_terms && k < 2) {
      std::string t(tarnix::MAX_TERM_LEN, static_cast<char>(alpha(rng)));
      for (int i = 0; i < 3; ++i) t[rng() % t.size()] = static_cast<char>(any_byte(rng));
      out.insert(t);
      t.back() = static_cast<char>(any_byte(rng));  // a neighbour sharing 2046 bytes
      out.insert(t);
    } else if (k < 6) {
      std::string t;
      int len = small_len(rng);
      for (int i = 0; i < len && out.size() < n; ++i) {
        t += static_cast<char>(alpha(rng));
        out.insert(t);  // a prefix chain
      }
    } else if (k < 10) {
      std::string t(static_cast<size_t>(small_len(rng)), 'x');
      for (auto& c : t) c = static_cast<char>(any_byte(rng));
      out.insert(t);
    } else {
      std::string t(static_cast<size_t>(small_len(rng)), 'x');
      for (auto& c : t) c = static_cast<char>(alpha(rng));
      out.insert(t);
    }
  }
  std::vector<std::string> v(out.begin(), out.end());
  v.resize(n);
  return v;
}

std::vector<uint8_t> build_with_create(const std::vector<std::string>& terms, uint32_t tperb,
                                       uint32_t uncompressed_size) {
  size_t room = 12 + 4 * (terms.size() + 1);
  for (const auto& t : terms) room += t.size() + 10;
  std::vector<uint8_t> body(room);
  std::vector<const char*> ptrs;
  for (const auto& t : terms) ptrs.push_back(t.c_str());
  tarnix::fclex* h = tarnix::st_fclex_create(body.data(), body.size(), ptrs.data(),
                                             static_cast<uint32_t>(ptrs.size()), tperb,
                                             uncompressed_size);
  if (h == nullptr) return {};
  body.resize(tarnix::st_fclex_size(h));
  tarnix::st_fclex_close(h);
  return body;
}

int write_with_writer(int fd, uint64_t offset, const std::vector<std::string>& terms,
                      uint32_t tperb, uint64_t page_sz, uint64_t* end) {
  tarnix::lex_writer w{};
  int rc = tarnix::_lex_writer_open(0, &w, tperb, page_sz, static_cast<uint32_t>(terms.size()));
  if (rc != 0) return rc;
  for (const auto& t : terms) {
    rc = tarnix::_lex_writer_put(&w, t.data(), t.size());
    if (rc != 0) {
      tarnix::_lex_writer_discard(&w);
      return rc;
    }
  }
  return tarnix::_lex_writer_close(0, &w, fd, offset, end);
}

std::vector<uint8_t> build_with_writer(const std::vector<std::string>& terms, uint32_t tperb,
                                       uint64_t page_sz) {
  TempDir dir;
  std::string path = dir.file("lex");
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) throw std::runtime_error("open failed");
  uint64_t end = 0;
  int rc = write_with_writer(fd, 0, terms, tperb, page_sz, &end);
  close(fd);
  if (rc != 0) return {};
  std::vector<uint8_t> bytes = read_file(path);
  if (bytes.size() != end) throw std::runtime_error("end offset differs from file size");
  return bytes;
}

int read_with_reader(int fd, uint64_t offset, std::vector<std::string>* terms) {
  auto c = std::make_unique<tarnix::lex_merge_cxt>();
  int rc = tarnix::_lex_reader_open(&c->_reader, fd, offset);
  if (rc != 0) return rc;
  terms->clear();
  rc = tarnix::_reload_term(c.get());
  while (rc == 0) {
    terms->emplace_back(c->_cur_term, c->_cur_len);
    uint32_t r = tarnix::_increment_cursor(c.get());
    if (c->_cursor >= c->_reader._bor._nterms) break;
    rc = static_cast<int>(r);
  }
  tarnix::_lex_reader_close(&c->_reader);
  return rc;
}

uint32_t total_length(const std::vector<std::string>& terms) {
  uint32_t n = 0;
  for (const auto& t : terms) n += static_cast<uint32_t>(t.size());
  return n;
}

std::string re_escape(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) out += '\\';
    out += c;
  }
  return out;
}
}  // namespace testutil
