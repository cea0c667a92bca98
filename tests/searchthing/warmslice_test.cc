#include "searchthing/warmslice.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "searchthing/codes.h"
#include "searchthing/hotslice.h"
#include "testutil/testutil.h"
#include "testutil/warmfile.h"

namespace tarnix {
namespace {

using event = std::pair<std::string, tsval>;

struct warm_closer {
  void operator()(warm* w) const {
    if (w != nullptr) {
      EXPECT_EQ(st_warm_slice_close(w), 0);
    }
  }
};
using warm_ptr = std::unique_ptr<warm, warm_closer>;

enum class mode { mapped, updating, by_fd };
const mode ALL_MODES[] = {mode::mapped, mode::updating, mode::by_fd};

warm_ptr open_as(const std::string& path, mode m, wrc* rc) {
  switch (m) {
    case mode::mapped:
      return warm_ptr(st_warm_slice_open(path.c_str(), 0, rc));
    case mode::updating:
      return warm_ptr(st_warm_slice_open(path.c_str(), 1, rc));
    case mode::by_fd:
      return warm_ptr(st_warm_slice_open_fd(path.c_str(), 0, rc));
  }
  return nullptr;
}

// Everything a reader can learn about an open file through the library.
struct contents {
  std::vector<tsval> values;
  std::vector<std::string> terms;
  std::vector<std::vector<uint32_t>> lists;
  std::vector<st_term_metadata> meta;
};

contents read_all(warm* w) {
  contents c;
  tsval_reader r;
  EXPECT_EQ(_tsval_reader_open(&r, w, 3, nullptr), 0);
  for (uint32_t i = 0; i < st_warm_slice_values(w); ++i) {
    tsval v{};
    EXPECT_EQ(_tsval_reader_decode(&r, i, &v), 0);
    c.values.push_back(v);
  }
  _tsval_reader_close(&r);

  const uint32_t nt = st_warm_slice_terms(w);
  std::vector<uint8_t> answers(static_cast<size_t>(nt + 1) * FCLEX_ENUM_RECORD_SZ);
  const int n = st_warm_slice_enum(w, nullptr, 1, answers.data(), nt + 1);
  EXPECT_EQ(n, static_cast<int>(nt));
  auto reader = std::make_unique<plist_reader>();
  EXPECT_EQ(_init_reader(reader.get(), w, 2, nullptr), 0);
  for (int t = 0; t < n; ++t) {
    const uint8_t* rec = answers.data() + static_cast<size_t>(t) * FCLEX_ENUM_RECORD_SZ;
    c.terms.emplace_back(reinterpret_cast<const char*>(rec));
    uint32_t count;
    memcpy(&count, rec + TERM_BUF_SZ, 4);
    st_term_metadata m{};
    EXPECT_EQ(st_warm_slice_meta(w, c.terms.back().c_str(), &m), 0);
    EXPECT_EQ(m.count, count);
    EXPECT_EQ(get_metadata_entry(w, static_cast<uint32_t>(t)), count);
    c.meta.push_back(m);
    std::vector<uint32_t> ids;
    EXPECT_EQ(_seek_reader(reader.get(), static_cast<uint32_t>(t)), 0);
    for (;;) {
      uint32_t v;
      EXPECT_EQ(_next(reader.get(), &v), 0);
      if (v == END_OF_LIST) break;
      ids.push_back(v);
      if (ids.size() > st_warm_slice_values(w)) break;
    }
    c.lists.push_back(ids);
  }
  close_plist_reader(reader.get());
  st_term_metadata m{};
  EXPECT_EQ(st_warm_slice_meta(w, "\x01no such term", &m), -14);
  return c;
}

// What the file must hold, from the events alone.
void expect_contents(const contents& got, const testutil::ModelFile& want) {
  std::vector<testutil::ModelValue> got_values, want_values;
  for (const tsval& v : got.values) got_values.push_back(testutil::model_value(v));
  for (const auto& v : want.values) want_values.push_back(testutil::model_value(testutil::to_tsval(v)));
  EXPECT_EQ(got_values, want_values);
  // A term's count is its number of postings.
  std::vector<testutil::ModelTerm> got_terms, want_terms = want.terms;
  for (size_t t = 0; t < got.terms.size(); ++t) {
    got_terms.push_back({got.terms[t], got.lists[t], got.meta[t].count, got.meta[t].earliest, got.meta[t].latest});
  }
  for (auto& t : want_terms) t.count = static_cast<uint32_t>(t.ids.size());
  EXPECT_EQ(got_terms, want_terms);
}

// Events with every attribute width from 1 to 31 bits, deleted values,
// negative times, repeated (term, event) pairs, terms shared by many events.
std::vector<event> make_events(bool streaming, uint32_t seed, uint32_t n_events) {
  std::mt19937 rng(seed);
  std::vector<event> out;
  std::vector<tsval> evs;
  for (uint32_t e = 0; e < n_events; ++e) {
    const uint32_t bits = 1 + e % 31;
    const uint32_t top = bits == 32 ? 0xFFFFFFFFu : (1u << bits) - 1;
    tsval v{};
    v.timestamp = static_cast<int32_t>(rng() % 2000) - 1000;
    v.event_address = e * 7919u + 3;
    v.event_type = top;
    v.source = e % 9 == 4 ? DELETED_SOURCE : static_cast<uint32_t>(rng()) & top;
    v.source_type = static_cast<uint32_t>(rng()) & (top >> 1);
    v.host = e % 5 == 0 ? 0 : top - 1;
    evs.push_back(v);
  }
  if (streaming) {
    std::sort(evs.begin(), evs.end(), [](const tsval& a, const tsval& b) {
      return a.timestamp != b.timestamp ? a.timestamp < b.timestamp : a.event_address < b.event_address;
    });
  }
  for (const tsval& v : evs) {
    const uint32_t k = 1 + rng() % 4;
    for (uint32_t j = 0; j < k; ++j) {
      out.emplace_back("term" + std::to_string(rng() % 40), v);
      if (j == 0) out.emplace_back("common", v);
    }
    out.emplace_back("common", v);  // the same pair twice in a row
  }
  if (!streaming) {
    // Some events come back later, out of order.
    for (uint32_t e = 0; e < n_events; e += 3) out.emplace_back("late", evs[e]);
    // A pair seen long before: one posting, and one in the term's count.
    out.emplace_back("common", evs[0]);
  }
  return out;
}

hot_slice* fill(const std::vector<event>& events, bool streaming) {
  wrc rc{};
  hot_slice* h = st_hot_slice_create(1 << 16, 1024, 1 << 14, 4096, streaming ? 1 : 0, &rc);
  EXPECT_NE(h, nullptr);
  for (const event& e : events) {
    const tsval& v = e.second;
    EXPECT_EQ(st_hot_slice_put(h, e.first.c_str(), static_cast<uint32_t>(e.first.size()), v.timestamp,
                               v.event_address, v.event_type, v.source, v.source_type, v.host),
              0);
  }
  return h;
}

std::string create_file(hot_slice* h, const std::string& dir, warm_ptr* out = nullptr) {
  char name[PATH_BUF_SZ];
  wrc rc{};
  warm_ptr w(st_warm_slice_create(h, name, (dir + "/").c_str(), ".tsidx", &rc));
  EXPECT_NE(w, nullptr) << rc.warm_rc;
  EXPECT_EQ(rc.warm_rc, 0);
  if (out != nullptr) *out = std::move(w);
  return name;
}

// The last set has the extreme timestamps: ordered as signed numbers in the
// values, the terms' times and the file name.
TEST(WarmSliceRoundTrip, HotSliceToFileAndBack) {
  for (bool streaming : {false, true}) {
    const std::vector<event> sets[] = {
        make_events(streaming, 1, 50),
        make_events(streaming, 2, 100),
        make_events(streaming, 3, 150),
        {{"x", tsval{INT32_MIN, 1, 0, 0, 0, 0}},
         {"lo", tsval{INT32_MIN, 1, 0, 0, 0, 0}},
         {"x", tsval{0, 2, 0, 0, 0, 0}},
         {"x", tsval{INT32_MAX, 3, 0, 0, 0, 0}},
         {"hi", tsval{INT32_MAX, 3, 0, 0, 0, 0}}},
    };
    for (const std::vector<event>& events : sets) {
      SCOPED_TRACE(testing::Message() << "streaming " << streaming << " set " << (&events - sets));
      const testutil::ModelFile want = testutil::model_from_events(events);
      hot_slice* h = fill(events, streaming);
      testutil::TempDir dir;
      warm_ptr mem;
      const std::string path = create_file(h, dir.path(), &mem);
      st_hot_slice_close(h);
      ASSERT_NE(mem, nullptr);

      // The name: "<dir>/<latest>-<earliest>-<unique>.tsidx".
      const std::string prefix = dir.path() + "/" + std::to_string(want.values.front().ts) + "-" +
                                 std::to_string(want.values.back().ts) + "-";
      EXPECT_EQ(path.compare(0, prefix.size(), prefix), 0) << path;
      EXPECT_EQ(path.substr(path.size() - 6), ".tsidx");
      struct stat st;
      ASSERT_EQ(stat(path.c_str(), &st), 0);
      EXPECT_EQ(st.st_mode & 0777, 0600u);

      // Byte for byte what the layout rules give for these events (runs are
      // not written by this writer), except num_postings, which counts the
      // last term's duplicate postings.
      testutil::ModelFile plain = want;
      plain.runs = false;
      std::vector<uint8_t> expected = testutil::build_index_file(plain);
      std::vector<uint8_t> bytes = testutil::read_file(path);
      ASSERT_EQ(bytes.size(), expected.size());
      EXPECT_GE(load_be32(bytes.data() + 12), load_be32(expected.data() + 12));
      store_be32(bytes.data() + 12, load_be32(expected.data() + 12));
      EXPECT_TRUE(bytes == expected);

      // The writer's own handle describes the file and reads like it,
      // postings included, although it has no descriptor.
      EXPECT_EQ(st_warm_slice_size(mem.get()), bytes.size());
      EXPECT_EQ(st_warm_slice_values(mem.get()), want.values.size());
      EXPECT_EQ(st_warm_slice_terms(mem.get()), want.terms.size());
      EXPECT_EQ(st_warm_slice_latest(mem.get()), want.values.front().ts);
      EXPECT_EQ(st_warm_slice_earliest(mem.get()), want.values.back().ts);
      EXPECT_EQ(st_warm_slice_blocksize(mem.get()), 8u);
      expect_contents(read_all(mem.get()), want);

      for (mode m : ALL_MODES) {
        SCOPED_TRACE(static_cast<int>(m));
        wrc rc{};
        warm_ptr w = open_as(path, m, &rc);
        ASSERT_NE(w, nullptr) << rc.warm_rc;
        const uint64_t lex_off = size_without_vardata(w.get());
        EXPECT_EQ(bytes.size(), lex_off + testutil::lexicon_size(bytes.data() + lex_off) +
                                    st_warm_slice_postings_size(w.get()));
        EXPECT_EQ(st_warm_slice_latest(w.get()), want.values.front().ts);
        EXPECT_EQ(st_warm_slice_earliest(w.get()), want.values.back().ts);
        EXPECT_EQ(w->metadata == nullptr, m == mode::by_fd);
        expect_contents(read_all(w.get()), want);
      }
    }
  }
}

TEST(WarmSliceWriter, ColumnWidthsAndNames) {
  wrc rc{};
  hot_slice* h = st_hot_slice_create(4096, 258, 64, 64, 0, &rc);
  ASSERT_NE(h, nullptr);
  ASSERT_EQ(st_hot_slice_put(h, "a", 1, 5, 1, 0, 0, 0, 0), 0);
  ASSERT_EQ(st_hot_slice_put(h, "b", 1, 6, 2, 300, 1, 2, 0), 0);
  testutil::TempDir dir;
  warm_ptr w1, w2;
  const std::string p1 = create_file(h, dir.path(), &w1);
  // Prepared already: the same slice written again gets another name.
  const std::string p2 = create_file(h, dir.path(), &w2);
  EXPECT_NE(p1, p2);
  EXPECT_EQ(testutil::read_file(p1), testutil::read_file(p2));
  const warm_header* hd = warm_hdr(w1.get());
  EXPECT_EQ(et_nbits(hd), 9u);
  EXPECT_EQ(s_nbits(hd), 1u);
  EXPECT_EQ(st_nbits(hd), 2u);
  EXPECT_EQ(h_nbits(hd), 1u);  // largest host 0
  EXPECT_EQ(d_nbits(hd), 1u);
  EXPECT_EQ(h_size(hd), 1u);
  EXPECT_EQ(et_size(hd), 9u);

  // A directory that does not exist: -4, nothing returned.
  char name[PATH_BUF_SZ];
  EXPECT_EQ(st_warm_slice_create(h, name, dir.file("missing").c_str(), ".tsidx", &rc), nullptr);
  EXPECT_EQ(rc.warm_rc, -4);
  st_hot_slice_close(h);

  // An empty normal-mode slice cannot be written.
  h = st_hot_slice_create(4096, 258, 64, 64, 0, &rc);
  EXPECT_EQ(st_warm_slice_create(h, name, dir.path().c_str(), ".tsidx", &rc), nullptr);
  EXPECT_NE(rc.warm_rc, 0);
  st_hot_slice_close(h);
}

// A column of 32 bits would read back as all zeros, so the writer refuses
// an attribute that needs one and leaves no file; the widest value that
// fits, and the deletion mark as a source, come back exactly.
TEST(WarmSliceWriter, AttributesNeedingThirtyTwoBitsAreRefused) {
  constexpr uint32_t WIDE = 0x80000000u, WIDEST_OK = 0x7FFFFFFFu;
  struct row {
    uint32_t et, s, st, h;
    int rc;
  };
  const row rows[] = {
      {WIDE, 1, 1, 1, -36},        {1, WIDE, 1, 1, -36},      {1, 1, WIDE, 1, -36},
      {1, 1, 1, WIDE, -36},        {1, 0xFFFFFFFEu, 1, 1, -36}, {WIDEST_OK, WIDEST_OK, WIDEST_OK, WIDEST_OK, 0},
      {3, 0xFFFFFFFFu, 1, 1, 0},  // the deletion mark
  };
  for (const row& r : rows) {
    SCOPED_TRACE(testing::Message() << r.et << " " << r.s << " " << r.st << " " << r.h);
    const tsval wide{7, 1, r.et, r.s, r.st, r.h};
    const tsval small{8, 2, 2, 2, 2, 2};
    hot_slice* h = fill({{"x", wide}, {"x", small}}, false);
    testutil::TempDir dir;
    char name[PATH_BUF_SZ];
    wrc rc{};
    warm_ptr w(st_warm_slice_create(h, name, dir.path().c_str(), ".tsidx", &rc));
    st_hot_slice_close(h);
    EXPECT_EQ(rc.warm_rc, r.rc);
    if (r.rc != 0) {
      EXPECT_EQ(w, nullptr);
      EXPECT_STREQ(rc.message, "attribute value needs a 32-bit column in st_warm_slice_create");
      EXPECT_TRUE(testutil::list_dir(dir.path()).empty());
      continue;
    }
    ASSERT_NE(w, nullptr);
    const warm_ptr by_fd = open_as(name, mode::by_fd, &rc);
    ASSERT_NE(by_fd, nullptr);
    for (warm* f : {w.get(), by_fd.get()}) {
      const contents c = read_all(f);
      ASSERT_EQ(c.values.size(), 2u);
      const tsval& v = c.values[1];  // latest first
      EXPECT_EQ(v.event_type, r.et);
      EXPECT_EQ(v.source, r.s);
      EXPECT_EQ(v.source_type, r.st);
      EXPECT_EQ(v.host, r.h);
    }
  }
}

// A small file made by the library's writer, for the failure paths.
std::vector<uint8_t> small_file(const std::string& dir, bool streaming = false) {
  std::vector<event> ev;
  for (uint32_t i = 0; i < 12; ++i) {
    ev.emplace_back(i % 2 ? "beta" : "alpha", tsval{static_cast<int32_t>(i), i, i, i, i, i});
    ev.emplace_back("gamma", tsval{static_cast<int32_t>(i), i, i, i, i, i});
  }
  hot_slice* h = fill(ev, streaming);
  const std::string path = create_file(h, dir);
  st_hot_slice_close(h);
  std::vector<uint8_t> b = testutil::read_file(path);
  unlink(path.c_str());
  return b;
}

TEST(WarmSliceOpen, FailureCodes) {
  testutil::TempDir dir;
  const std::vector<uint8_t> good = small_file(dir.path());
  const warm_header* gh = reinterpret_cast<const warm_header*>(good.data());
  const uint64_t lex_off = size_without_vardata(gh);
  const std::string path = dir.file("f.tsidx");

  // The good file with one big-endian word replaced.
  auto patched = [&good](uint64_t offset, uint32_t word) {
    std::vector<uint8_t> b = good;
    store_be32(b.data() + offset, word);
    return b;
  };
  std::vector<uint8_t> bad_magic = good;
  bad_magic[6] = '7';
  struct row {
    const char* what;
    std::vector<uint8_t> bytes;
    int mapped, updating, by_fd;
  } rows[] = {
      {"good", good, 0, 0, 0},
      {"empty", {}, -8, -5, -8},
      {"short header", std::vector<uint8_t>(good.begin(), good.begin() + 40), -8, -8, -8},
      {"bad magic", bad_magic, -13, -13, -13},
      {"truncated in lexicon", std::vector<uint8_t>(good.begin(), good.begin() + lex_off + 20), -7, -7, -7},
      // Lexicon count 4 against 3 terms in the header (same block count).
      {"lexicon term count", patched(lex_off, 4), -12, -12, -14},
      {"lexicon without terms", patched(lex_off, 0), -14, -14, -14},
      {"lexicon block size 0", patched(lex_off + 4, 0), -14, -14, -14},
      {"column wider than 32 bits", patched(HDR_ET_NBITS, 33), -12, -12, -12},
      {"column too small for its width", patched(HDR_H_NBITS, 20), -12, -12, -12},
      // A deleted flag of no bits could not be set by a delete.
      {"deleted flags 0 bits wide", patched(HDR_D_NBITS, 0), -12, -12, -12},
      // Huge counts move every section far beyond the end of the file.
      {"huge value count", patched(HDR_NUM_VALUES, 0xFFFFFFF0u), -14, -14, -7},
      {"huge term count", patched(HDR_NUM_TERMS, 0xFFFFFFF0u), -14, -14, -7},
      {"huge column", patched(HDR_S_SIZE, 0xFFFFFFF0u), -14, -14, -7},
      // The last block end offset points past the end of the file.
      {"lexicon longer than the file", patched(lex_off + 12, 0x7FFFFFFF), -7, -7, -7},
  };
  for (const row& r : rows) {
    testutil::write_file(path, r.bytes);
    const int want[] = {r.mapped, r.updating, r.by_fd};
    for (mode m : ALL_MODES) {
      wrc rc{};
      warm_ptr w = open_as(path, m, &rc);
      EXPECT_EQ(rc.warm_rc, want[static_cast<int>(m)]) << r.what << " mode " << static_cast<int>(m);
      EXPECT_EQ(w == nullptr, want[static_cast<int>(m)] != 0);
    }
  }

  wrc rc{};
  EXPECT_EQ(st_warm_slice_open_fd(nullptr, 0, &rc), nullptr);
  EXPECT_EQ(rc.warm_rc, -37);
  EXPECT_EQ(st_warm_slice_open(dir.file("none").c_str(), 0, &rc), nullptr);
  EXPECT_EQ(rc.warm_rc, -4);
  EXPECT_EQ(st_warm_slice_open_fd(dir.file("none").c_str(), 0, &rc), nullptr);
  EXPECT_EQ(rc.warm_rc, -4);

  // A failed descriptor-based open leaves the caller's descriptor open.
  testutil::write_file(path, std::vector<uint8_t>(good.begin(), good.begin() + 10));
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(st_warm_slice_open_from_fd(fd, 0, &rc), nullptr);
  EXPECT_EQ(rc.warm_rc, -8);
  EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
  close(fd);
}

// System calls that fail on a sound file: a descriptor that is not open
// (-6), an address space too small for the mapping (-3), and a mapping that
// is gone when the handle is closed (-1, the descriptor and handle kept).
TEST(WarmSliceOpen, FailedSystemCalls) {
  testutil::TempDir dir;
  const std::vector<uint8_t> good = small_file(dir.path());
  const std::string path = dir.file("f.tsidx");
  testutil::write_file(path, good);

  wrc rc{};
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  close(fd);
  EXPECT_EQ(st_warm_slice_open_from_fd(fd, 0, &rc), nullptr);
  EXPECT_EQ(rc.warm_rc, -6);

  warm* w = st_warm_slice_open(path.c_str(), 0, &rc);
  ASSERT_NE(w, nullptr);
  ASSERT_EQ(munmap(w->map.ptr, w->map.len), 0);
  ASSERT_EQ(st_warm_slice_close(w), -1);  // on anything else w is gone
  EXPECT_GE(fcntl(w->fd, F_GETFD), 0);
  close(w->fd);
  free(w);

  // Every section moved 4 GiB further by the value count, the lexicon and
  // postings copied to where the header now puts them: a sparse file that
  // opens up to its mapping.
  std::vector<uint8_t> head(good.begin(), good.begin() + WARM_HEADER_SZ);
  const uint64_t lex_off = size_without_vardata(reinterpret_cast<const warm_header*>(head.data()));
  store_be32(head.data() + HDR_NUM_VALUES, load_be32(head.data() + HDR_NUM_VALUES) + (1u << 29));
  const uint64_t far_off = size_without_vardata(reinterpret_cast<const warm_header*>(head.data()));
  ASSERT_GT(far_off, 1ull << 32);
  const std::string big = dir.file("big.tsidx");
  fd = open(big.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(pwrite(fd, head.data(), head.size(), 0), static_cast<ssize_t>(head.size()));
  const size_t tail = good.size() - lex_off;
  ASSERT_EQ(pwrite(fd, good.data() + lex_off, tail, static_cast<off_t>(far_off)), static_cast<ssize_t>(tail));
  close(fd);
  // Unlimited, the opens get past the mapping and fail on the columns.
  for (mode m : ALL_MODES) {
    EXPECT_EQ(open_as(big, m, &rc), nullptr);
    EXPECT_EQ(rc.warm_rc, -12) << static_cast<int>(m);
  }
  // With 256 MiB of address space to spare, none of the mappings fits.
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    const std::vector<uint8_t> text = testutil::read_file("/proc/self/status");
    const std::string status(text.begin(), text.end());
    const size_t at = status.find("VmSize:");
    if (at == std::string::npos) _exit(100);
    const rlim_t limit = (strtoull(status.c_str() + at + 7, nullptr, 10) << 10) + (256ull << 20);
    const rlimit rl{limit, limit};
    if (setrlimit(RLIMIT_AS, &rl) != 0) _exit(101);
    int failed_modes = 0;
    for (mode m : ALL_MODES) {
      wrc child_rc{};
      if (open_as(big, m, &child_rc) != nullptr || child_rc.warm_rc != -3) failed_modes |= 1 << static_cast<int>(m);
    }
    _exit(failed_modes);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "bit k set: mode k did not give -3";
}

TEST(WarmSliceOpen, EveryTruncationFailsCleanly) {
  testutil::TempDir dir;
  const std::vector<uint8_t> good = small_file(dir.path(), true);
  const std::string path = dir.file("t.tsidx");
  const warm_header* gh = reinterpret_cast<const warm_header*>(good.data());
  const uint64_t lex_off = size_without_vardata(gh);
  const uint64_t lex_end = lex_off + testutil::lexicon_size(good.data() + lex_off);
  const std::set<int> allowed = {-5, -7, -8, -12, -13, -14};
  for (size_t len = 0; len < good.size(); ++len) {
    testutil::write_file(path, std::vector<uint8_t>(good.begin(), good.begin() + len));
    for (mode m : ALL_MODES) {
      wrc rc{};
      warm_ptr w = open_as(path, m, &rc);
      if (len < lex_end) {
        EXPECT_EQ(w, nullptr) << len;
        EXPECT_TRUE(allowed.count(rc.warm_rc)) << len << " rc " << rc.warm_rc;
      } else {
        // Only postings are missing; the open cannot see that.
        ASSERT_NE(w, nullptr) << len;
        EXPECT_EQ(st_warm_slice_terms(w.get()), 3u);
      }
    }
  }
}

TEST(WarmSliceOpen, OlderVersionsReadAlike) {
  std::vector<event> events = make_events(false, 7, 60);
  const testutil::ModelFile base = testutil::model_from_events(events);
  for (const char* magic : {"Tarnix3", "Tarnix4", "Tarnix5", "Tarnix6"}) {
    for (uint32_t tperb : {1u, 3u, 64u}) {
      SCOPED_TRACE(testing::Message() << magic << " tperb " << tperb);
      testutil::ModelFile recipe = base;
      recipe.magic = magic;
      recipe.tperb = tperb;
      testutil::TempDir dir;
      const std::string path = dir.file("old.tsidx");
      const std::vector<uint8_t> bytes = testutil::build_index_file(recipe);
      testutil::write_file(path, bytes);
      for (mode m : ALL_MODES) {
        wrc rc{};
        warm_ptr w = open_as(path, m, &rc);
        ASSERT_NE(w, nullptr) << rc.warm_rc << " mode " << static_cast<int>(m);
        EXPECT_EQ(w->plo64, strcmp(magic, "Tarnix3") != 0);
        EXPECT_EQ(st_warm_slice_blocksize(w.get()), tperb);
        // The postings start after the reverse lexicon in versions 3 to 5.
        const uint64_t postings_sz = st_warm_slice_postings_size(w.get());
        EXPECT_EQ(static_cast<uint64_t>(w->postings - w->body) + postings_sz, bytes.size());
        expect_contents(read_all(w.get()), recipe);
      }
    }
  }
}

TEST(WarmSliceOpen, ReverseLexiconCountAsymmetry) {
  testutil::ModelFile recipe = testutil::model_from_events(make_events(false, 9, 20));
  recipe.magic = "Tarnix5";
  recipe.tperb = 64;  // one block: a different count keeps the block count
  std::vector<uint8_t> b = testutil::build_index_file(recipe);
  const uint64_t lex_off = size_without_vardata(reinterpret_cast<const warm_header*>(b.data()));
  const uint64_t rev_off = (lex_off + testutil::lexicon_size(b.data() + lex_off) + 3) & ~3ull;
  store_be32(b.data() + rev_off, load_be32(b.data() + rev_off) + 1);
  testutil::TempDir dir;
  const std::string path = dir.file("rev.tsidx");
  testutil::write_file(path, b);
  const int want[] = {-12, -12, -1};
  for (mode m : ALL_MODES) {
    wrc rc{};
    warm_ptr w = open_as(path, m, &rc);
    EXPECT_EQ(w, nullptr);
    EXPECT_EQ(rc.warm_rc, want[static_cast<int>(m)]) << static_cast<int>(m);
  }
}

TEST(WarmSliceUpdate, DeleteByTsvalIsFlushedAtClose) {
  testutil::TempDir dir;
  testutil::ModelFile recipe = testutil::model_from_events(make_events(false, 4, 30));
  const std::string path = dir.file("d.tsidx");
  testutil::write_file(path, testutil::build_index_file(recipe));
  // Every third value, plus one that the file does not hold.
  std::vector<tsval> del;
  for (size_t i = 0; i < recipe.values.size(); i += 3) {
    if (i == 6) del.push_back(tsval{recipe.values[i].ts, recipe.values[i].addr + 1, 0, 0, 0, 0});
    del.push_back(testutil::to_tsval(recipe.values[i]));
  }
  std::sort(del.begin(), del.end(), [](const tsval& a, const tsval& b) { return st_tsval_compare(&a, &b) < 0; });
  {
    wrc rc{};
    warm_ptr w = open_as(path, mode::updating, &rc);
    ASSERT_NE(w, nullptr);
    EXPECT_EQ(st_warm_slice_delete_by_tsval(w.get(), del.data(), static_cast<uint32_t>(del.size())),
              (recipe.values.size() + 2) / 3);
  }
  for (size_t i = 0; i < recipe.values.size(); i += 3) recipe.values[i].src = DELETED_SOURCE;
  wrc rc{};
  warm_ptr w = open_as(path, mode::by_fd, &rc);
  ASSERT_NE(w, nullptr);
  expect_contents(read_all(w.get()), recipe);
}

}  // namespace
}  // namespace tarnix
