#include "searchthing/fclex.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "searchthing/fclex_io.h"
#include "testutil/lexutil.h"
#include "testutil/testutil.h"

using namespace tarnix;

namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

using bytes = std::vector<uint8_t>;

bytes be32(uint32_t v) {
  return {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 8),
          static_cast<uint8_t>(v)};
}

bytes cat(std::initializer_list<bytes> parts) {
  bytes out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

bytes str(const std::string& s) { return bytes(s.begin(), s.end()); }

// A file holding `pad` junk bytes and then section; closes on destruction.
struct section_file {
  testutil::TempDir dir;
  int fd = -1;
  uint64_t offset = 0;
  section_file(const bytes& section, uint64_t pad) : offset(pad) {
    bytes all(pad, 0xEE);
    all.insert(all.end(), section.begin(), section.end());
    testutil::write_file(dir.file("lex"), all);
    fd = open(dir.file("lex").c_str(), O_RDONLY | O_CLOEXEC);
  }
  ~section_file() { close(fd); }
};

struct golden_case {
  const char* name;
  std::vector<std::string> terms;
  uint32_t tperb;
  bytes section;  // with the block writer's uncompressed size
};

std::vector<golden_case> golden_cases() {
  std::string long_term(MAX_TERM_LEN, 'q');
  return {
      {"worked_example",
       {"apple", "apply", "apt", "bat", "bath"},
       4,
       cat({be32(5), be32(4), be32(20), be32(16), be32(21), {0x05}, str("apple"), {0x04, 0x01},
            str("y"), {0x02, 0x01}, str("t"), {0x00}, str("bat"), {0x04}, str("bath")})},
      // 5 terms, 2 per block: blocks 0 and 1 end with an implicit length,
      // block 2 holds one term whole.
      {"five_terms_two_per_block",
       {"a", "ab", "b", "bc", "c"},
       2,
       cat({be32(5), be32(2), be32(7), be32(4), be32(8), be32(10), {0x01, 'a', 0x01, 'b'},
            {0x01, 'b', 0x01, 'c'}, {0x01, 'c'}})},
      // Two full blocks: positions 3 and 7 carry no suffix length.
      {"eight_terms_four_per_block",
       {"ant", "anthem", "apple", "apply", "bat", "bath", "bathe", "cat"},
       4,
       cat({be32(8), be32(4), be32(34), be32(17), be32(31), {0x03}, str("ant"), {0x03, 0x03},
            str("hem"), {0x01, 0x04}, str("pple"), {0x04}, str("y"), {0x03}, str("bat"),
            {0x03, 0x01}, str("h"), {0x04, 0x01}, str("e"), {0x00}, str("cat")})},
      {"first_term_of_2047_bytes",
       {long_term},
       4,
       cat({be32(1), be32(4), be32(2047), be32(2049), {0xFF, 0x0F}, str(long_term)})},
  };
}

bytes worked_example() { return golden_cases()[0].section; }

// The worked example with bytes replaced from offset at.
bytes patched(size_t at, const bytes& with) {
  bytes s = worked_example();
  std::copy(with.begin(), with.end(), s.begin() + static_cast<long>(at));
  return s;
}

TEST(FclexFormat, BothBuildersProduceTheGoldenBytes) {
  for (const auto& c : golden_cases()) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(testutil::build_with_create(c.terms, c.tperb, testutil::total_length(c.terms)), c.section);
    EXPECT_EQ(testutil::build_with_writer(c.terms, c.tperb), c.section);
  }
}

TEST(FclexFormat, CreateReturnsAHandleOverTheBuffer) {
  const char* terms[] = {"apple", "apply", "apt", "bat", "bath"};
  bytes body(64, 0);
  fclex* h = st_fclex_create(body.data(), body.size(), terms, 5, 4, 20);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->blocks, body.data() + 20);
  EXPECT_EQ(h->fd, -1);
  EXPECT_EQ(st_fclex_size(h), 41u);
  EXPECT_EQ(st_fclex_terms(h), 5u);
  EXPECT_EQ(st_fclex_blocksize(h), 4u);
  EXPECT_EQ(st_fclex_uncompressed_size(h), 20u);
  EXPECT_EQ(st_fclex_how_many_blocks(h), 2u);
  EXPECT_EQ(st_fclex_get(h, "bath", nullptr), 4u);

  // Relocation copies the section and keeps lookups working.
  bytes other(64, 0);
  EXPECT_EQ(st_fclex_relocate(h, other.data()), other.data() + 20);
  std::fill(body.begin(), body.end(), 0);
  EXPECT_EQ(st_fclex_get(h, "apt", nullptr), 2u);
  EXPECT_EQ(st_fclex_get(h, "bath", nullptr), 4u);
  st_fclex_close(h);
}

TEST(FclexFormat, CreateRejectsBadInput) {
  bytes body(256, 0);
  struct bad {
    std::vector<const char*> terms;
    uint32_t tperb;
    uint32_t usize;
  } cases[] = {
      {{"b", "a"}, 4, 2},       // descending
      {{"a", "a"}, 4, 2},       // repeated
      {{"a", "b", "b"}, 2, 3},  // repeated at the end
      {{"a", "b"}, 0, 2},       // no terms per block
      {{"a", "b"}, 4, 0},       // no uncompressed size
  };
  for (const auto& c : cases) {
    EXPECT_EQ(st_fclex_create(body.data(), body.size(), c.terms.data(), static_cast<uint32_t>(c.terms.size()),
                              c.tperb, c.usize),
              nullptr)
        << c.terms.size() << " terms, tperb " << c.tperb;
  }
}

// ---- Round trips -------------------------------------------------------------------------

// Keys next to the terms that are not terms: each term with a byte added
// (or its last byte changed), each term less its last byte, and a few others.
std::vector<std::string> absent_terms(const std::vector<std::string>& terms) {
  std::set<std::string> have(terms.begin(), terms.end());
  std::vector<std::string> out = {"\x01", std::string(5, '\xFF'), "a\x01", "zzzz"};
  for (size_t i = 0; i < terms.size(); i += 1 + terms.size() / 50) {
    std::string t = terms[i];
    if (t.size() < MAX_TERM_LEN) {
      t += '\x01';
    } else {
      t.back() = static_cast<char>(t.back() == '\x01' ? '\x02' : '\x01');
    }
    out.push_back(t);
    if (terms[i].size() > 1) out.push_back(terms[i].substr(0, terms[i].size() - 1));
  }
  std::erase_if(out, [&](const std::string& t) { return have.count(t) != 0; });
  return out;
}

// Looks up every stride-th term, the last one, and keys that are absent;
// closes the handle.
void check_handle(fclex* h, const std::vector<std::string>& terms, size_t stride, uint64_t size) {
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(st_fclex_terms(h), terms.size());
  EXPECT_EQ(st_fclex_size(h), size);
  for (size_t i = 0; i < terms.size(); i += stride) {
    ASSERT_EQ(st_fclex_get(h, terms[i].c_str(), nullptr), i) << "term " << i;
  }
  ASSERT_EQ(st_fclex_get(h, terms.back().c_str(), nullptr), terms.size() - 1);
  for (const auto& t : absent_terms(terms)) {
    EXPECT_EQ(st_fclex_get(h, t.c_str(), nullptr), NOT_FOUND) << t.size();
  }
  EXPECT_EQ(st_fclex_get(h, "", nullptr), NOT_FOUND);
  EXPECT_EQ(st_fclex_get(h, nullptr, nullptr), NOT_FOUND);
  st_fclex_close(h);
}

struct trip_case {
  size_t n;
  uint32_t tperb;
  bool long_terms;
  uint64_t page_sz;
  size_t fd_stride;  // every fd_stride-th term is looked up through the descriptor handle
};

class FclexRoundTrip : public ::testing::TestWithParam<trip_case> {};

TEST_P(FclexRoundTrip, EveryBuilderAndReaderAgree) {
  const trip_case c = GetParam();
  std::mt19937 rng(static_cast<uint32_t>(c.n * 131 + c.tperb));
  std::vector<std::string> terms = testutil::random_terms(rng, c.n, c.long_terms);

  bytes section = testutil::build_with_writer(terms, c.tperb, c.page_sz);
  ASSERT_FALSE(section.empty());
  if (c.tperb > 1) {
    EXPECT_EQ(testutil::build_with_create(terms, c.tperb, testutil::total_length(terms)), section);
  }
  // Memory mode: every term. Descriptor mode and the block reader: behind
  // some unrelated bytes.
  check_handle(st_fclex_open(section.data()), terms, kSanitized && c.n > 10000 ? 5 : 1, section.size());
  section_file f(section, 37);
  EXPECT_EQ(st_fclex_size_fd(f.fd, f.offset), section.size());
  check_handle(st_fclex_open_fd(f.fd, f.offset), terms, c.fd_stride, section.size());
  std::vector<std::string> back;
  ASSERT_EQ(testutil::read_with_reader(f.fd, f.offset, &back), 0);
  EXPECT_EQ(back, terms);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, FclexRoundTrip,
    ::testing::Values(trip_case{1, 1, false, 0, 1}, trip_case{1, 2, true, 0, 1}, trip_case{2, 1, true, 9, 1},
                      trip_case{3, 2, false, 9, 1}, trip_case{17, 8, true, 9, 1}, trip_case{64, 64, false, 0, 1},
                      trip_case{65, 64, true, 0, 1}, trip_case{500, 1, true, 9, 1}, trip_case{2000, 2, true, 9, 3},
                      trip_case{5000, 8, true, 100, 7}, trip_case{20000, 64, true, 4096, 11},
                      trip_case{100000, 64, false, 0, 97}, trip_case{30000, 8, true, 0, 101}));

TEST(FclexLookup, LongKeyFindsItsTruncatedTerm) {
  std::string stored(MAX_TERM_LEN, 'k');
  std::vector<std::string> terms = {"a", "b", stored, "m", "z"};
  std::string key = stored + std::string(3000 - MAX_TERM_LEN, 'x');
  // A long key that differs within the first 2047 bytes is absent.
  std::string other = key;
  other[100] = 'j';
  for (uint32_t tperb : {1u, 2u, 4u}) {
    SCOPED_TRACE(tperb);
    bytes section = testutil::build_with_writer(terms, tperb);
    fclex* mem = st_fclex_open(section.data());
    EXPECT_EQ(st_fclex_get(mem, key.c_str(), nullptr), 2u);
    EXPECT_EQ(st_fclex_get(mem, other.c_str(), nullptr), NOT_FOUND);
    st_fclex_close(mem);
    section_file f(section, 0);
    fclex* fdh = st_fclex_open_fd(f.fd, 0);
    EXPECT_EQ(st_fclex_get(fdh, key.c_str(), nullptr), 2u);
    st_fclex_close(fdh);
  }
}

TEST(FclexLookup, HistogramCountsDescriptorReads) {
  std::mt19937 rng(7);
  std::vector<std::string> terms = testutil::random_terms(rng, 300, false);
  section_file f(testutil::build_with_writer(terms, 4), 0);
  fclex* h = st_fclex_open_fd(f.fd, 0);
  uint32_t hist[READ_HISTOGRAM_SZ] = {};
  EXPECT_EQ(st_fclex_get(h, terms[123].c_str(), hist), 123u);
  // A binary search over 75 blocks plus fetching one block takes several reads.
  EXPECT_GE(std::accumulate(hist, hist + READ_HISTOGRAM_SZ, 0u), 3u);
  st_fclex_close(h);
}

// ---- Walks ---------------------------------------------------------------------------------

using id_terms = std::vector<std::pair<uint32_t, std::string>>;

uint32_t collect(uint32_t id, const char* term, uint32_t len, void* cookie) {
  static_cast<id_terms*>(cookie)->emplace_back(id, std::string(term, len));
  return 2;
}

TEST(FclexWalk, ApplyVisitsExactlyThePrefixRange) {
  std::mt19937 rng(11);
  std::vector<std::string> terms = testutil::random_terms(rng, 3000, true);
  for (uint32_t tperb : {1u, 3u, 64u}) {
    bytes section = testutil::build_with_writer(terms, tperb);
    section_file f(section, 5);
    fclex* handles[2] = {st_fclex_open(section.data()), st_fclex_open_fd(f.fd, 5)};
    for (fclex* h : handles) {
      for (std::string prefix : {std::string(), std::string("a"), std::string("cab"), terms[1500], terms[2999],
                                 std::string("\xFF\xFF\xFF")}) {
        SCOPED_TRACE(prefix.substr(0, 20));
        id_terms got, want;
        uint32_t sum = st_fclex_apply(h, prefix.empty() ? nullptr : prefix.c_str(), collect, &got, nullptr);
        for (uint32_t i = 0; i < terms.size(); ++i) {
          if (terms[i].compare(0, prefix.size(), prefix) == 0) want.emplace_back(i, terms[i]);
        }
        EXPECT_EQ(got, want);
        EXPECT_EQ(sum, 2 * want.size());
      }
    }
    for (fclex* h : handles) st_fclex_close(h);
  }
}

uint32_t stop_at_third(uint32_t, const char*, uint32_t, void* cookie) {
  auto* n = static_cast<int*>(cookie);
  return ++*n == 3 ? NOT_FOUND : 1;
}

TEST(FclexWalk, ApplyStopsWhenACallbackReturnsAllOnes) {
  bytes section = testutil::build_with_writer({"a", "b", "c", "d", "e"}, 2);
  fclex* h = st_fclex_open(section.data());
  int calls = 0;
  EXPECT_EQ(st_fclex_apply(h, nullptr, stop_at_third, &calls, nullptr), NOT_FOUND);
  EXPECT_EQ(calls, 3);
  st_fclex_close(h);
}

TEST(FclexWalk, EnumFillsRecordsUpToCapacity) {
  std::vector<std::string> terms = {"car", "card", "care", "cart", "dog"};
  bytes section = testutil::build_with_writer(terms, 2);
  fclex* h = st_fclex_open(section.data());
  std::vector<uint8_t> recs(4 * FCLEX_ENUM_RECORD_SZ, 0xAB);
  EXPECT_EQ(st_fclex_enum(h, "car", recs.data(), 4), 4u);
  for (uint32_t i = 0; i < 4; ++i) {
    const uint8_t* r = recs.data() + i * FCLEX_ENUM_RECORD_SZ;
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(r)), terms[i]);
    EXPECT_EQ(r[TERM_BUF_SZ - 1], 0);
    uint32_t id;
    memcpy(&id, r + TERM_BUF_SZ, 4);
    EXPECT_EQ(id, i);
  }
  EXPECT_EQ(st_fclex_enum(h, "car", recs.data(), 2), 2u);
  EXPECT_EQ(st_fclex_enum(h, "do", recs.data(), 4), 1u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(recs.data())), "dog");
  EXPECT_EQ(st_fclex_enum(h, "e", recs.data(), 4), 0u);
  st_fclex_close(h);
}

// ---- Damaged sections ------------------------------------------------------------------------

TEST(FclexDamage, TruncatedSectionsFailCleanly) {
  const bytes full = worked_example();
  for (size_t len : {0, 8, 15, 19, 20, 30}) {
    SCOPED_TRACE(len);
    section_file f(bytes(full.begin(), full.begin() + static_cast<long>(len)), 0);
    lex_reader r{};
    EXPECT_TRUE(len >= 12 || _lex_reader_open(&r, f.fd, 0) == WS_EREAD);  // the header
    EXPECT_TRUE(len >= 20 || st_fclex_size_fd(f.fd, 0) == 0);             // the last block end
    std::vector<std::string> back;
    EXPECT_LT(testutil::read_with_reader(f.fd, 0, &back), 0);
    fclex* h = st_fclex_open_fd(f.fd, 0);
    EXPECT_TRUE(len >= 16 || h == nullptr);  // the handle's 16-byte header copy
    if (h != nullptr) {
      EXPECT_EQ(st_fclex_get(h, "bath", nullptr), NOT_FOUND);
      st_fclex_close(h);
    }
  }
}

TEST(FclexDamage, MalformedBlocksGiveDataError) {
  struct damage {
    const char* name;
    size_t at;  // offset within the section
    bytes with;
  } cases[] = {
      {"invalid five-byte VBE", 20, {0x80, 0x80, 0x80, 0x80, 0x80}},
      {"first length past the block end", 20, {0x30}},
      {"zero-length term", 20, {0x00}},
      {"prefix longer than the previous term", 26, {0x09}},
      {"suffix length past the block end", 27, {0x20}},
      {"NUL inside a term", 22, {0x00}},
      {"first length of the last block too long", 36, {0x84}},
  };
  for (const auto& d : cases) {
    SCOPED_TRACE(d.name);
    bytes s = patched(d.at, d.with);
    const char* probe = d.at < 36 ? "apt" : "bath";
    section_file f(s, 3);
    for (fclex* h : {st_fclex_open(s.data()), st_fclex_open_fd(f.fd, 3)}) {
      EXPECT_EQ(st_fclex_get(h, probe, nullptr), static_cast<uint32_t>(WS_EDATA));
      st_fclex_close(h);
    }
    std::vector<std::string> back;
    EXPECT_EQ(testutil::read_with_reader(f.fd, 3, &back), WS_EDATA);
  }
}

// A term's suffix is copied many bytes at a time: a NUL anywhere in it is
// refused, a NUL or anything else just past it is not, whether the block
// ends right after the suffix or goes on.
TEST(FclexDamage, NulInsideASuffixOnlyIsRefused) {
  const std::string prev = "source::/var/log/";
  for (uint32_t suffix = 1; suffix <= 20; ++suffix) {
    for (int tail : {0, 1, 24}) {  // bytes after the suffix: none, a NUL, 24 NULs
      for (int nul = -1; nul < static_cast<int>(suffix); ++nul) {
        SCOPED_TRACE("suffix " + std::to_string(suffix) + " tail " + std::to_string(tail) + " nul " +
                     std::to_string(nul));
        bytes block = {8, static_cast<uint8_t>(suffix)};  // prefix 8 of prev, then the suffix
        std::string want = prev.substr(0, 8);
        for (uint32_t k = 0; k < suffix; ++k) {
          want += static_cast<char>('a' + k);
          block.push_back(static_cast<int>(k) == nul ? 0 : static_cast<uint8_t>(want.back()));
        }
        block.insert(block.end(), static_cast<size_t>(tail), 0);
        char term[TERM_BUF_SZ];
        memset(term, 'z', sizeof(term));
        memcpy(term, prev.c_str(), prev.size() + 1);
        uint32_t len = static_cast<uint32_t>(prev.size());
        uint64_t off = 0;
        const int rc = _fclex_decode_term(block.data(), block.size(), &off, 1, 8, term, &len);
        if (nul >= 0) {
          EXPECT_EQ(rc, WS_EDATA);
          EXPECT_EQ(off, 0u);
        } else {
          ASSERT_EQ(rc, 0);
          EXPECT_EQ(std::string(term), want);
          EXPECT_EQ(len, want.size());
          EXPECT_EQ(off, 2 + suffix);
        }
      }
    }
  }
}

TEST(FclexDamage, CorruptOffsetsAndCountsAreRejected) {
  struct damage {
    const char* name;
    size_t at;
    bytes with;
    int reader_rc;  // WS_EEMPTYLEX: no handle in either mode, and no size
  } cases[] = {
      {"zero term count", 0, be32(0), WS_EEMPTYLEX},
      {"zero terms per block", 4, be32(0), WS_EEMPTYLEX},
      {"huge terms per block", 4, be32(0xFFFFFFFF), WS_EDATA},
      {"huge term count", 0, be32(0xFFFFFFFF), WS_EREAD},
      {"block end offsets out of order", 12, be32(30), WS_EDATA},
      {"last block end past the file", 16, be32(4000), WS_EREAD},
      {"more terms than bytes", 0, cat({be32(22), be32(22)}), WS_EDATA},
  };
  for (const auto& d : cases) {
    SCOPED_TRACE(d.name);
    bytes s = patched(d.at, d.with);
    section_file f(s, 0);
    std::vector<std::string> back;
    EXPECT_EQ(testutil::read_with_reader(f.fd, 0, &back), d.reader_rc);
    if (d.reader_rc == WS_EEMPTYLEX) {
      EXPECT_EQ(st_fclex_open(s.data()), nullptr);
      EXPECT_EQ(st_fclex_open_fd(f.fd, 0), nullptr);
      EXPECT_EQ(st_fclex_size_fd(f.fd, 0), 0u);
    } else if (fclex* h = st_fclex_open_fd(f.fd, 0)) {
      uint32_t id = st_fclex_get(h, "bath", nullptr);
      EXPECT_TRUE(id == NOT_FOUND || id == static_cast<uint32_t>(WS_EDATA)) << id;
      st_fclex_close(h);
    }
  }
}

// ---- Invariants ---------------------------------------------------------------------------------

TEST(FclexDeath, NamedAssertions) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  using testutil::re_escape;
  EXPECT_DEATH(_how_many_blocks_helper(0, 4), re_escape("terms > 0"));
  EXPECT_DEATH(_how_many_blocks_helper(4, 0), re_escape("tperb > 0"));
  const char* two[] = {"a", "b"};
  bytes body(64, 0);
  // The in-memory builder needs at least two terms per block.
  EXPECT_DEATH(st_fclex_create(body.data(), body.size(), two, 2, 1, 2), re_escape("*j == tperb - 1"));
  EXPECT_DEATH(st_fclex_create(body.data(), 18, two, 2, 4, 2), re_escape("k < body_size"));
  fclex bodiless{};
  EXPECT_DEATH(st_fclex_blocksize(&bodiless), re_escape("handle->body != ((void *)0)"));
}

}  // namespace
