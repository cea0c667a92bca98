#include "searchthing/tsidx.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "searchthing/hotslice.h"
#include "searchthing/lock.h"
#include "searchthing/warmslice.h"
#include "testutil/bucket_reader.h"
#include "testutil/testutil.h"
#include "testutil/warmfile.h"

using namespace tarnix;
using testutil::names_ending;
using testutil::TempDir;

namespace {

// Flushes take the need-optimize marker only; the walk test takes a lock.
const int lock_text_ready = tarnix::st_init();

struct TsidxCloser {
  void operator()(tsidx* t) const { st_tsidx_close(t); }
};
using TsidxPtr = std::unique_ptr<tsidx, TsidxCloser>;

TsidxPtr open_dir(const std::string& path, uint32_t flags = 0, int read_params = 0, uint32_t part_id = 0) {
  return TsidxPtr(st_tsidx_open(path.c_str(), flags, read_params, part_id));
}

// The handle's limits in the parameter file's order: terms, term characters,
// postings, values, then transactions per sync.
std::vector<uint64_t> params_of(const tsidx* t) {
  return {st_tsidx_max_terms(t), st_tsidx_max_term_chars(t), st_tsidx_max_postings(t), st_tsidx_max_values(t),
          st_tsidx_txn_per_sync(t)};
}
const std::vector<uint64_t> kDefaultParams = {16384, 16384, 16384, 16384, 0};

// An index file name's fields as read by the parser (the outputs start as -99, -99 and 99).
struct Parsed {
  int ok;
  int32_t latest, earliest;
  uint64_t id;
  bool operator==(const Parsed&) const = default;
};
void PrintTo(const Parsed& p, std::ostream* os) {
  *os << "{" << p.ok << ", " << p.latest << ", " << p.earliest << ", " << p.id << "}";
}
Parsed parse(const std::string& name) {
  Parsed p{0, -99, -99, 99};
  p.ok = st_tsidx_file_parse(name.c_str(), &p.earliest, &p.latest, &p.id);
  return p;
}

// Puts event e (address e, timestamp base + e) with terms "all", "e<e>" and
// "mod<e % 3>".
void put_event(tsidx* t, uint32_t e, int32_t base = 1000) {
  std::string terms[] = {"all", "e" + std::to_string(e), "mod" + std::to_string(e % 3)};
  for (const auto& term : terms) {
    ASSERT_EQ(st_tsidx_put(t, term.c_str(), static_cast<uint32_t>(term.size()), base + static_cast<int32_t>(e),
                           e, 1 + e % 4, 7, 2, e % 5),
              0)
        << e << " " << term;
  }
}

// ---- Names --------------------------------------------------------------------

TEST(TsidxNames, IndexFileGrammar) {
  struct Case {
    const char* name;
    Parsed want;
  } cases[] = {
      {"100-50-7.tsidx", {1, 100, 50, 7}},
      {"-5--10-3.tsidx", {1, -5, -10, 3}},
      {"2147483647--2147483648-18446744073709551615.tsidx", {1, INT32_MAX, INT32_MIN, UINT64_MAX}},
  };
  for (const auto& c : cases) EXPECT_EQ(parse(c.name), c.want) << c.name;
  // Refused names leave the outputs untouched.
  for (const char* name : {"x.tsidx", "100-50.tsidx", "100-50-7.tsidx.tmp", "100-50-7.pre-tsidx",
                           "100-50-7.0.1.part-tsidx", "100-50-7.tsidx.deleted", "100-50-7.tsidx.lock", ".tsidx",
                           "tsidx", "100-50-7x.tsidx", "2147483648-1-1.tsidx", "1-1-18446744073709551616.tsidx",
                           "1-1--1.tsidx", "100:50:7.tsidx", "1:2:3-4:5:6-7.merge", "tarnix-autogen-params.dat"}) {
    EXPECT_EQ(parse(name), (Parsed{0, -99, -99, 99})) << name;
  }
}

TEST(TsidxNames, PartFilesBelongToTheirWriter) {
  struct Case {
    const char* name;
    uint32_t part_id;
    int ok;
    uint32_t part;
  } cases[] = {
      {"100-50-7.3.9.part-tsidx", 9, 1, 3},
      {"100-50-7.31.0.part-tsidx", 0, 1, 31},
      {"100-50-7.3.9.part-tsidx", 8, 0, 0},
      {"100-50-7.3.part-tsidx", 3, 0, 0},
      {"100-50-7.tsidx", 0, 0, 0},
      {"100-50.3.9.part-tsidx", 9, 0, 0},
      {"100-50-7.3.9.part-tsidx.tmp", 9, 0, 0},
  };
  for (const auto& c : cases) {
    int32_t latest = 0, earliest = 0;
    uint64_t id = 0;
    uint32_t part = 999;
    EXPECT_EQ(st_tsidx_part_file_parse(c.name, c.part_id, &earliest, &latest, &id, &part), c.ok) << c.name;
    if (c.ok) {
      EXPECT_EQ(latest, 100);
      EXPECT_EQ(earliest, 50);
      EXPECT_EQ(id, 7u);
      EXPECT_EQ(part, c.part);
    }
  }
}

TEST(TsidxNames, DeleteMarkers) {
  struct Case {
    const char* name;
    int ok;
  } cases[] = {
      {"100-50-7.tsidx.deleted", 1}, {"-1--2-3.tsidx.deleted", 1}, {"100-50-7.deleted", 0},
      {"100-50.tsidx.deleted", 0},   {"100-50-7.tsidx", 0},        {".tsidx.deleted", 0},
  };
  for (const auto& c : cases) {
    int32_t latest = 0, earliest = 0;
    uint64_t id = 0;
    EXPECT_EQ(st_tsidx_deleted_file_parse(c.name, &earliest, &latest, &id), c.ok) << c.name;
  }
}

TEST(TsidxNames, TimeFilterKeepsOverlappingFiles) {
  struct Case {
    int32_t lo, hi;
    int ok;
  } cases[] = {{0, 49, 0}, {0, 50, 1}, {50, 60, 1}, {100, 100, 1}, {101, 200, 0}, {INT_MIN, INT_MAX, 1}};
  for (const auto& c : cases) {
    int32_t latest = INT_MAX, earliest = INT_MIN;
    uint64_t id = 0;
    EXPECT_EQ(_tsidx_time_filter(nullptr, "100-50-7.tsidx", &latest, &earliest, &id, c.hi, c.lo), c.ok)
        << c.lo << ".." << c.hi;
  }
  int32_t latest, earliest;
  uint64_t id;
  EXPECT_EQ(_tsidx_time_filter(nullptr, "x.tsidx", &latest, &earliest, &id, INT_MAX, INT_MIN), 0);
  EXPECT_EQ(_tsidx_name_filter(nullptr, "100-50-7.tsidx", &latest, &earliest, &id, 0, 0), 1);
}

// ---- Handle and parameter file ---------------------------------------------------------

TEST(TsidxHandle, OpenSetsDefaultsAndCopiesThePath) {
  std::string p = "/no/such/dir";
  TsidxPtr t = open_dir(p, ST_OPEN_STREAMING, 1, 4);
  ASSERT_NE(t, nullptr);
  p[1] = 'X';
  EXPECT_STREQ(t->path, "/no/such/dir");
  EXPECT_EQ(params_of(t.get()), kDefaultParams);
  EXPECT_EQ(t->part_id, 4u);
  EXPECT_EQ(t->open_flags, ST_OPEN_STREAMING);
  EXPECT_EQ(t->hot_slice, nullptr);
  st_tsidx_set_params(t.get(), 1, 2, 3, 4);
  EXPECT_EQ(params_of(t.get()), (std::vector<uint64_t>{1, 2, 3, 4, 0}));
  st_tsidx_autotune(t.get(), 5000);
  EXPECT_EQ(t->autotune, 1);
  EXPECT_EQ(t->autotune_target, 5000u);
  st_tsidx_autotune(t.get(), 0);
  EXPECT_EQ(t->autotune, 0);
  EXPECT_EQ(st_tsidx_close(t.release()), 0);
}

TEST(TsidxParams, FileCases) {
  const std::string H = ST_PARAMS_HEADER;
  const std::vector<uint64_t> none;  // the file is not taken: the defaults stay
  struct Case {
    const char* what;
    bool present;
    std::string text;
    std::vector<uint64_t> want;
  } cases[] = {
      {"valid", true, H + "1|2|3|4|5|", {1, 2, 3, 4, 5}},
      {"no final bar", true, H + "1|2|3|4|5", {1, 2, 3, 4, 5}},
      {"large", true, H + "18446744073709551615|20|30|40|50|", {UINT64_MAX, 20, 30, 40, 50}},
      {"empty field", true, H + "1|2||4|5|", none},
      {"four fields", true, H + "1|2|3|4|", none},
      {"four fields no bar", true, H + "1|2|3|4", none},
      {"letter", true, H + "1|2|3a|4|5|", none},
      {"trailing newline", true, H + "1|2|3|4|5|\n", none},
      {"extra field", true, H + "1|2|3|4|5|6|", none},
      {"space", true, H + " 1|2|3|4|5|", none},
      {"minus", true, H + "-1|2|3|4|5|", none},
      {"header only", true, H, none},
      {"header in lower case", true, "tarnix auto-generated file. do not modify.|1|2|3|4|5|", none},
      {"garbage", true, "\x01\x02garbage", none},
      {"empty", true, "", none},
      {"missing", false, "", none},
  };
  for (const auto& c : cases) {
    TempDir d;
    if (c.present) {
      testutil::write_file(d.file(ST_PARAMS_NAME), std::vector<uint8_t>(c.text.begin(), c.text.end()));
    }
    TsidxPtr t = open_dir(d.path(), 0, 1);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(params_of(t.get()), c.want.empty() ? kDefaultParams : c.want) << c.what;
    // Without read_params the file is not looked at.
    EXPECT_EQ(params_of(open_dir(d.path(), 0, 0).get()), kDefaultParams) << c.what;
  }
}

TEST(TsidxParams, WrittenThroughATemporaryAndReadBack) {
  const std::string saved = "TARNIX AUTO-GENERATED FILE. DO NOT MODIFY.|300|40000|50000|6000|77|";
  TempDir d;
  TsidxPtr t = open_dir(d.path(), 0, 0, 12);
  st_tsidx_set_params(t.get(), 300, 40000, 50000, 6000);
  t->txn_per_sync = 77;
  EXPECT_EQ(serialize_params(t.get()), 0);
  EXPECT_EQ(testutil::read_text(d.file(ST_PARAMS_NAME)), saved);
  EXPECT_EQ(testutil::list_dir(d.path()), std::vector<std::string>{ST_PARAMS_NAME});
  struct stat st;
  ASSERT_EQ(stat(d.file(ST_PARAMS_NAME).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(params_of(open_dir(d.path(), 0, 1).get()), (std::vector<uint64_t>{300, 40000, 50000, 6000, 77}));

  // A temporary of the same writer still in place: nothing is replaced.
  testutil::write_file(d.file(std::string(ST_PARAMS_NAME) + ".part.12"), {'x'});
  t->txn_per_sync = 88;
  EXPECT_EQ(serialize_params(t.get()), -1);
  EXPECT_EQ(testutil::read_text(d.file(ST_PARAMS_NAME)), saved);
}

TEST(TsidxParams, CloseWritesThemOnlyWhenTransactionsAreKnown) {
  const std::string saved = "TARNIX AUTO-GENERATED FILE. DO NOT MODIFY.|16384|16384|16384|16384|9|";
  TempDir d;
  EXPECT_EQ(st_tsidx_close(open_dir(d.path()).release()), 0);
  EXPECT_TRUE(testutil::list_dir(d.path()).empty());

  tsidx* u = st_tsidx_open(d.path().c_str(), 0, 0, 0);
  u->txn_per_sync = 5;
  u->txn_count = 9;
  EXPECT_EQ(st_tsidx_close(u), 0);
  EXPECT_EQ(testutil::read_text(d.file(ST_PARAMS_NAME)), saved);
  u = st_tsidx_open(d.path().c_str(), 0, 1, 0);
  u->txn_count = 2;
  EXPECT_EQ(st_tsidx_close(u), 0);
  EXPECT_EQ(testutil::read_text(d.file(ST_PARAMS_NAME)), saved);
}

// ---- Need-optimize marker -----------------------------------------------------------------

TEST(TsidxMarker, SetClearAndIdempotence) {
  TempDir d;
  TsidxPtr t = open_dir(d.path());
  std::string m = d.file(ST_NEED_OPTIMIZE_NAME);
  EXPECT_EQ(st_tsidx_need_optimize(t.get()), 0);
  EXPECT_EQ(st_tsidx_set_need_optimize(t.get()), 0);
  EXPECT_EQ(st_tsidx_need_optimize(t.get()), 1);
  struct stat st1, st2;
  ASSERT_EQ(stat(m.c_str(), &st1), 0);
  EXPECT_EQ(st1.st_size, 0);
  EXPECT_EQ(st1.st_mode & 0777, 0600u);
  EXPECT_EQ(st_tsidx_set_need_optimize(t.get()), 0);
  ASSERT_EQ(stat(m.c_str(), &st2), 0);
  EXPECT_EQ(st1.st_ino, st2.st_ino) << "an existing marker is left as it is";
  EXPECT_EQ(st_tsidx_clear_need_optimize(t.get()), 0);
  EXPECT_EQ(st_tsidx_need_optimize(t.get()), 0);
  EXPECT_EQ(st_tsidx_clear_need_optimize(t.get()), -1);

  TsidxPtr missing = open_dir(d.file("missing"));
  EXPECT_EQ(st_tsidx_set_need_optimize(missing.get()), -1);
  EXPECT_EQ(st_tsidx_need_optimize(missing.get()), 0);
}

// ---- Flush -------------------------------------------------------------------------------

class TsidxFlush : public ::testing::TestWithParam<uint32_t> {};

TEST_P(TsidxFlush, WritesOneIndexFileThatReopensWithTheSameContent) {
  TempDir d;
  TsidxPtr t = open_dir(d.path(), GetParam());
  EXPECT_EQ(st_tsidx_sync(t.get()), 0) << "no slice yet: nothing to write";
  for (uint32_t e = 1; e <= 40; ++e) put_event(t.get(), e);
  ASSERT_NE(t->hot_slice, nullptr);
  EXPECT_EQ(st_hot_slice_is_streaming(t->hot_slice), GetParam() == ST_OPEN_STREAMING);
  ASSERT_EQ(st_tsidx_sync(t.get()), 0);
  EXPECT_EQ(st_hot_slice_values(t->hot_slice), 0u) << "the slice is reset";
  EXPECT_EQ(st_tsidx_sync(t.get()), 0) << "an empty slice writes nothing";

  auto files = names_ending(d.path(), ".tsidx");
  ASSERT_EQ(files.size(), 1u);
  EXPECT_TRUE(names_ending(d.path(), ".pre-tsidx").empty());
  EXPECT_EQ(st_tsidx_need_optimize(t.get()), 1);
  const Parsed name = parse(files[0]);
  EXPECT_EQ(name.ok, 1);
  EXPECT_EQ(name.latest, 1040);
  EXPECT_EQ(name.earliest, 1001);
  struct stat st;
  ASSERT_EQ(stat(d.file(files[0]).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  testutil::IndexContent c = testutil::read_index_file(d.file(files[0]));
  ASSERT_EQ(c.rc, 0);
  ASSERT_EQ(c.problem, "");
  ASSERT_EQ(c.values.size(), 40u);
  for (uint32_t i = 0; i < 40; ++i) {
    uint32_t e = 40 - i;  // latest first
    EXPECT_EQ(testutil::model_value(c.values[i]),
              (testutil::ModelValue{1000 + static_cast<int32_t>(e), e, 1 + e % 4, 7, 2, e % 5}))
        << i;
  }
  EXPECT_EQ(c.postings.size(), 40u + 1 + 3);
  EXPECT_EQ(c.postings["all"].size(), 40u);
  EXPECT_EQ(c.postings["e7"], std::vector<uint32_t>{33});
  EXPECT_EQ(c.postings["mod0"].size(), 13u);
  EXPECT_EQ(c.metadata["mod1"].count, 14u);
  EXPECT_EQ(c.metadata["mod1"].earliest, 1001);
  EXPECT_EQ(c.metadata["mod1"].latest, 1040);
  EXPECT_EQ(c.num_postings, 120u);
}

INSTANTIATE_TEST_SUITE_P(Modes, TsidxFlush, ::testing::Values(0u, ST_OPEN_STREAMING));

TEST(TsidxFlushPart, CounterAbove31WritesNothing) {
  TempDir d;
  TsidxPtr t = open_dir(d.path(), 0, 0, 6);
  for (uint32_t e = 1; e <= 5; ++e) put_event(t.get(), e);
  for (uint32_t start : {32u, 1000u}) {
    uint32_t counter = start;
    EXPECT_EQ(_st_tsidx_sync_part(t.get(), &counter), 0);
    EXPECT_EQ(counter, start);
  }
  EXPECT_TRUE(testutil::list_dir(d.path()).empty());
  EXPECT_EQ(st_hot_slice_values(t->hot_slice), 5u) << "the slice keeps its events";

  uint32_t counter = 31;
  EXPECT_EQ(_st_tsidx_sync_part(t.get(), &counter), 0);
  EXPECT_EQ(counter, 32u);
  auto parts = names_ending(d.path(), ".part-tsidx");
  ASSERT_EQ(parts.size(), 1u);
  int32_t latest, earliest;
  uint64_t id;
  uint32_t part;
  ASSERT_EQ(st_tsidx_part_file_parse(parts[0].c_str(), 6, &earliest, &latest, &id, &part), 1)
      << parts[0];
  EXPECT_EQ(part, 31u);
  EXPECT_EQ(latest, 1005);
  EXPECT_EQ(earliest, 1001);
  EXPECT_TRUE(names_ending(d.path(), ".tsidx").empty()) << "part files are not moved";
  EXPECT_EQ(testutil::read_index_file(d.file(parts[0])).values.size(), 5u);

  // The walk with the part filter finds this writer's part file only.
  testutil::write_file(d.file("1-1-1.3.7.part-tsidx"), {});
  int seen = 0;
  auto count = [](tsidx*, warm*, int32_t, int32_t, void* ctx, const char*, uint64_t) {
    ++*static_cast<int*>(ctx);
    return 0;
  };
  EXPECT_EQ(_st_tsidx_apply(t.get(), INT_MIN, INT_MAX, count, &seen, 0, _tsidx_part_filter), 1);
  EXPECT_EQ(seen, 1);
}

// The bucket directory disappears under a slice with events in it.
TEST(TsidxFlushFailure, MissingDirectoryResetsTheSliceAndCloseReportsIt) {
  TempDir d;
  std::string gone = d.file("bucket");
  ASSERT_EQ(mkdir(gone.c_str(), 0700), 0);
  TsidxPtr t = open_dir(gone);
  for (uint32_t e = 1; e <= 5; ++e) put_event(t.get(), e);
  tsidx* u = st_tsidx_open(gone.c_str(), 0, 0, 0);
  put_event(u, 1);
  ASSERT_EQ(rmdir(gone.c_str()), 0);
  EXPECT_EQ(st_tsidx_sync(t.get()), -6);
  EXPECT_EQ(st_tsidx_warm_rc(t.get()), WS_EOPEN);
  EXPECT_EQ(st_hot_slice_values(t->hot_slice), 0u);
  EXPECT_EQ(st_tsidx_close(t.release()), 0) << "nothing left to flush";
  EXPECT_EQ(st_tsidx_close(u), -6);
}

// A bucket whose path leaves no room for a whole file name: the flush
// fails as an open of too long a name would, and makes no file under a
// name cut short (it would have lost its suffix).
TEST(TsidxFlushFailure, NameTooLongForTheBufferMakesNoFile) {
  TempDir d;
  std::string deep = d.path();
  while (deep.size() + 201 < PATH_BUF_SZ - 26) {
    deep += "/" + std::string(200, 'd');
    ASSERT_EQ(mkdir(deep.c_str(), 0700), 0);
  }
  deep += "/" + std::string(PATH_BUF_SZ - 26 - deep.size() - 1, 'e');
  ASSERT_EQ(mkdir(deep.c_str(), 0700), 0);
  TsidxPtr t = open_dir(deep);
  for (uint32_t e = 1; e <= 5; ++e) put_event(t.get(), e);
  EXPECT_EQ(st_tsidx_sync(t.get()), -6);
  EXPECT_EQ(st_tsidx_warm_rc(t.get()), WS_EOPEN);
  EXPECT_EQ(t->wrc.warm_errno, ENAMETOOLONG);
  EXPECT_EQ(testutil::list_dir(deep), std::vector<std::string>{});
}

// The move into place, with a scripted link.
struct MoveScript {
  std::vector<int> results;   // per call; the last repeats
  size_t calls = 0;
  std::vector<uint32_t> sleeps;
  std::vector<std::string> targets;
};
MoveScript* script = nullptr;

int scripted_move(const char*, const char* to, FILE*) {
  script->targets.emplace_back(to);
  size_t i = std::min(script->calls, script->results.size() - 1);
  ++script->calls;
  return script->results[i];
}
void recorded_sleep(uint32_t ms) { script->sleeps.push_back(ms); }

TEST(TsidxMove, OnlyResourceShortagesAreRetried) {
  TempDir d;
  TsidxPtr t = open_dir(d.path());
  put_event(t.get(), 3, 2000);
  uint32_t counter = 0;
  ASSERT_EQ(_st_tsidx_sync_part(t.get(), &counter), 0);   // a file to take names from
  auto parts = names_ending(d.path(), ".part-tsidx");
  ASSERT_EQ(parts.size(), 1u);
  wrc rc{};
  warm* w = st_warm_slice_open(d.file(parts[0]).c_str(), 0, &rc);
  ASSERT_NE(w, nullptr);

  // Always short of descriptors: 61 attempts, 60 sleeps doubling from 1 ms
  // to the 1000 ms ceiling.
  std::vector<uint32_t> backoff = {1, 2, 4, 8, 16, 32, 64, 128, 256, 512};
  backoff.resize(60, 1000);
  struct Case {
    std::vector<int> results;
    int expect;
    size_t calls;
    std::vector<uint32_t> sleeps;
  } cases[] = {
      {{0}, 0, 1, {}},
      {{ENOMEM, EMFILE, ENFILE, 0}, 0, 4, {1, 2, 4}},
      {{EEXIST}, EEXIST, 1, {}},
      {{ENOMEM, EXDEV}, EXDEV, 2, {1}},
      {{69}, 69, 1, {}},
      {{EMFILE}, EMFILE, 61, backoff},
  };
  for (const auto& c : cases) {
    MoveScript s;
    s.results = c.results;
    script = &s;
    char to[PATH_BUF_SZ];
    EXPECT_EQ(_st_tsidx_move_into_place("from", to, d.path().c_str(), w, scripted_move, recorded_sleep),
              c.expect) << c.calls;
    EXPECT_EQ(s.calls, c.calls);
    EXPECT_EQ(s.sleeps, c.sleeps) << c.calls;
    // Each attempt is under a fresh name with the file's times.
    for (const auto& target : s.targets) {
      const Parsed name = parse(target.substr(d.path().size() + 1));
      EXPECT_EQ(name.ok, 1) << target;
      EXPECT_EQ(name.latest, 2003);
      EXPECT_EQ(name.earliest, 2003);
    }
    std::sort(s.targets.begin(), s.targets.end());
    EXPECT_EQ(std::unique(s.targets.begin(), s.targets.end()), s.targets.end()) << c.calls;
  }
  script = nullptr;
  st_warm_slice_close(w);
}

// ---- Puts ----------------------------------------------------------------------------------

TEST(TsidxPut, FullSliceIsFlushedAndThePutRetried) {
  TempDir d;
  TsidxPtr t = open_dir(d.path());
  st_tsidx_set_params(t.get(), 300, 1 << 20, 1 << 20, 16);
  for (uint32_t e = 1; e <= 100; ++e) put_event(t.get(), e);
  ASSERT_EQ(st_tsidx_sync(t.get()), 0);
  EXPECT_GT(t->full_count, 0u);
  EXPECT_EQ(t->full_reasons[1], t->full_count) << "values were what ran out";
  testutil::BucketContent b = testutil::read_bucket(d.path());
  EXPECT_TRUE(b.problems.empty()) << b.problems[0];
  EXPECT_GE(b.files, 7);
  EXPECT_EQ(b.index.events.size(), 100u);
  EXPECT_EQ(b.index.term_addresses["all"].size(), 100u);
  EXPECT_EQ(b.index.term_addresses["mod2"].size(), 33u);
}

TEST(TsidxPut, ProbeFlushesASliceBeyondSevenEighths) {
  TempDir d;
  TsidxPtr t = open_dir(d.path());
  st_tsidx_set_params(t.get(), 300, 1 << 20, 1 << 20, 16);
  for (uint32_t e = 1; e <= 14; ++e) put_event(t.get(), e);
  EXPECT_EQ(st_tsidx_put(t.get(), "", 0, 0, 0, 0, 0, 0, 0), 0);
  EXPECT_EQ(names_ending(d.path(), ".tsidx").size(), 0u) << "14 of 16 is 7/8: still room";
  put_event(t.get(), 15);
  EXPECT_EQ(st_tsidx_put(t.get(), "", 0, 0, 0, 0, 0, 0, 0), 0);
  EXPECT_EQ(names_ending(d.path(), ".tsidx").size(), 1u);
  EXPECT_EQ(st_hot_slice_values(t->hot_slice), 0u);
}

TEST(TsidxPut, TermWithANulIsRefusedWithoutAFlush) {
  TempDir d;
  TsidxPtr t = open_dir(d.path());
  put_event(t.get(), 1);
  EXPECT_EQ(st_tsidx_put(t.get(), "a\0b", 3, 5, 9, 0, 0, 0, 0), -5);
  EXPECT_EQ(t->full_count, 0u);
  EXPECT_TRUE(testutil::list_dir(d.path()).empty());
}

// Attributes are written into columns of at most 31 bits, where they read
// back exactly; a wider one would read back as 0 for every event of the
// file, so it is refused before anything is stored.
TEST(TsidxPut, AttributesWiderThan31BitsAreRefused) {
  TempDir d;
  TsidxPtr t = open_dir(d.path());
  constexpr uint32_t TOP = 0x7FFFFFFFu, WIDE = 0x80000000u;
  ASSERT_EQ(st_tsidx_put(t.get(), "kept", 4, 7, 1, TOP, TOP, TOP, TOP), 0);
  const uint32_t nodes = t->hot_slice->nodes_used;
  struct {
    uint32_t event_type, source, source_type, host;
  } wide[] = {{WIDE, 0, 0, 0}, {0, WIDE, 0, 0}, {0, 0xFFFFFFFEu, 0, 0}, {0, 0, WIDE, 0}, {0, 0, 0, 0xFFFFFFFFu}};
  for (const auto& w : wide) {
    EXPECT_EQ(st_tsidx_put(t.get(), "lost", 4, 8, 2, w.event_type, w.source, w.source_type, w.host), WS_ENONAME);
  }
  EXPECT_EQ(t->hot_slice->nodes_used, nodes);
  // A deleted event's source is no attribute value.
  ASSERT_EQ(st_tsidx_put(t.get(), "gone", 4, 9, 3, 1, 0xFFFFFFFFu, 1, 1), 0);
  ASSERT_EQ(st_tsidx_sync(t.get()), 0);

  testutil::BucketContent b = testutil::read_bucket(d.path());
  EXPECT_TRUE(b.problems.empty()) << b.problems[0];
  ASSERT_EQ(b.index.events.count(1), 1u);
  EXPECT_EQ(testutil::model_value(b.index.events[1]), (testutil::ModelValue{7, 1, TOP, TOP, TOP, TOP}));
  EXPECT_EQ(b.index.term_addresses.count("lost"), 0u);
}

TEST(TsidxPut, OddOrSmallTermLimitsStillMakeASlice) {
  TempDir d;
  TsidxPtr t = open_dir(d.path());
  st_tsidx_set_params(t.get(), 7, 4096, 64, 64);
  put_event(t.get(), 1);
  ASSERT_NE(t->hot_slice, nullptr);
  EXPECT_EQ(t->hot_slice->term_capacity, 258u);
  TsidxPtr u = open_dir(d.path());
  st_tsidx_set_params(u.get(), 1001, 4096, 64, 64);
  put_event(u.get(), 1);
  EXPECT_EQ(u->hot_slice->term_capacity, 1002u);
}

TEST(TsidxAutotune, LimitsFollowTheTarget) {
  // Ratio 2: target 2000 for an estimated 1000 bytes.
  tsidx_limits l = _st_tsidx_autotuned_limits(2000, 1000, 100, 3, 10, 7);
  EXPECT_DOUBLE_EQ(l.ratio, 2.0);
  EXPECT_EQ(l.max_term_chars, 200u + 1048576);
  EXPECT_EQ(l.max_terms, 6u + 65536);
  EXPECT_EQ(l.max_postings, 20u + 1048576);
  EXPECT_EQ(l.max_values, 14u + 32768);
  // Ratio 1 with odd results: made even by adding one.
  l = _st_tsidx_autotuned_limits(1000, 1000, 5, 3, 5, 1);
  EXPECT_EQ(l.max_terms, 65540u);
  EXPECT_EQ(l.max_values, 32770u);
  EXPECT_EQ(l.max_term_chars, 1048581u) << "term characters are not made even";
  // Truncation: 1.5 * 3 = 4.5.
  l = _st_tsidx_autotuned_limits(3000, 2000, 3, 3, 3, 3);
  EXPECT_EQ(l.max_term_chars, 1048580u);
  EXPECT_EQ(l.max_terms, 65540u);
  // The slice's own maxima cap postings and values.
  l = _st_tsidx_autotuned_limits(4000000000000ull, 1000, 1, 1, 4000000000ull, 4000000000ull);
  EXPECT_EQ(l.max_postings, 0xFFFFFFFFu);
  EXPECT_EQ(l.max_values, 0x100000000ull);
}

TEST(TsidxAutotune, AFullSliceRescalesTheHandle) {
  TempDir d;
  TsidxPtr t = open_dir(d.path());
  st_tsidx_set_params(t.get(), 300, 1 << 20, 1 << 20, 16);
  st_tsidx_autotune(t.get(), 1 << 20);
  for (uint32_t e = 1; e <= 17; ++e) put_event(t.get(), e);
  EXPECT_EQ(t->full_count, 1u);
  EXPECT_EQ(t->full_reasons[1], 1u);
  EXPECT_GT(st_tsidx_max_values(t.get()), 32768u);
  EXPECT_EQ(st_tsidx_max_values(t.get()) % 2, 0u);
  EXPECT_EQ(st_tsidx_max_terms(t.get()) % 2, 0u);
  ASSERT_NE(t->hot_slice, nullptr);
  EXPECT_EQ(t->hot_slice->value_capacity, st_tsidx_max_values(t.get())) << "the next slice uses them";
  ASSERT_EQ(st_tsidx_sync(t.get()), 0);
  EXPECT_EQ(testutil::read_bucket(d.path()).index.events.size(), 17u);
}

TEST(TsidxNoteFull, CountsReasonsAndTransactions) {
  tsidx* t = st_tsidx_open("/nowhere", 0, 0, 0);
  t->txn_count = 12;
  _st_tsidx_note_full(t, -3);
  _st_tsidx_note_full(t, -3);
  _st_tsidx_note_full(t, -4);
  _st_tsidx_note_full(t, -1);
  EXPECT_EQ(t->full_count, 4u);
  EXPECT_EQ(std::vector<uint32_t>(t->full_reasons, t->full_reasons + 4), (std::vector<uint32_t>{1, 0, 2, 1}));
  EXPECT_EQ(t->txn_per_sync, 12u);
  EXPECT_EQ(t->txn_count, 0u);
  t->txn_per_sync = 0;   // keep close from writing into /nowhere
  EXPECT_EQ(st_tsidx_close(t), 0);
}

// ---- Walk --------------------------------------------------------------------------------

struct Seen {
  std::vector<std::string> paths;
  std::vector<int32_t> latest, earliest;
  std::vector<uint32_t> values;
  int stop_after = -1;
};

int record(tsidx*, warm* w, int32_t latest, int32_t earliest, void* ctx, const char* path, uint64_t) {
  auto* s = static_cast<Seen*>(ctx);
  if (s->stop_after >= 0 && static_cast<int>(s->latest.size()) >= s->stop_after) return -77;
  s->paths.emplace_back(path != nullptr ? path : "");
  s->latest.push_back(latest);
  s->earliest.push_back(earliest);
  s->values.push_back(w != nullptr ? st_warm_slice_values(w) : 0);
  return 0;
}

TEST(TsidxWalk, WithAndWithoutOpenIndexFiles) {
  TempDir d;
  TsidxPtr t = open_dir(d.path());
  for (uint32_t e = 1; e <= 3; ++e) put_event(t.get(), e, 100);
  ASSERT_EQ(st_tsidx_sync(t.get()), 0);
  for (uint32_t e = 1; e <= 5; ++e) put_event(t.get(), e, 200);
  ASSERT_EQ(st_tsidx_sync(t.get()), 0);
  testutil::write_file(d.file("7-7-7.tsidx"), {});                     // cannot be opened
  testutil::write_file(d.file("8-8-8.tsidx"), {'j', 'u', 'n', 'k'});    // not an index file
  testutil::write_file(d.file("x.tsidx"), {});
  testutil::write_file(d.file("100-50.tsidx"), {});
  ASSERT_EQ(st_lock(d.file("7-7-7.tsidx").c_str()), 0);   // its ".lock" is no index file

  // Names only: every accepted name, with its path and the name's times.
  Seen names;
  EXPECT_EQ(_st_tsidx_apply(t.get(), INT_MIN, INT_MAX, record, &names, 0, _tsidx_name_filter), 4);
  EXPECT_EQ(names.paths.size(), 4u);
  for (const auto& p : names.paths) EXPECT_EQ(p.rfind(d.path() + "/", 0), 0u) << p;
  EXPECT_EQ(std::count(names.values.begin(), names.values.end(), 0u), 4);

  // Open index files: the two real ones, no path, times from the files.
  Seen warm_seen;
  EXPECT_EQ(st_tsidx_apply(t.get(), INT_MIN, INT_MAX, record, &warm_seen), 2);
  ASSERT_EQ(warm_seen.values.size(), 2u);
  for (const auto& p : warm_seen.paths) EXPECT_EQ(p, "");
  std::vector<uint32_t> counts = warm_seen.values;
  std::sort(counts.begin(), counts.end());
  EXPECT_EQ(counts, (std::vector<uint32_t>{3, 5}));
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(warm_seen.latest[i], warm_seen.values[i] == 3 ? 103 : 205);
    EXPECT_EQ(warm_seen.earliest[i], warm_seen.values[i] == 3 ? 101 : 201);
  }

  // The time filter: only the later file overlaps [150, 300].
  Seen later;
  EXPECT_EQ(st_tsidx_apply(t.get(), 150, 300, record, &later), 1);
  EXPECT_EQ(later.values, std::vector<uint32_t>{5});

  // A negative result stops the walk and is returned, in both forms.
  Seen stop;
  stop.stop_after = 1;
  EXPECT_EQ(st_tsidx_apply(t.get(), INT_MIN, INT_MAX, record, &stop), -77);
  Seen stop_names;
  stop_names.stop_after = 2;
  EXPECT_EQ(_st_tsidx_apply(t.get(), INT_MIN, INT_MAX, record, &stop_names, 0, _tsidx_name_filter), -77);
  EXPECT_EQ(stop_names.paths.size(), 2u);

  // Without a filter every entry is visited, "." and ".." included.
  Seen all;
  int n = _st_tsidx_apply(t.get(), INT_MIN, INT_MAX, record, &all, 0, nullptr);
  EXPECT_EQ(n, static_cast<int>(testutil::list_dir(d.path()).size()) + 2);
  EXPECT_EQ(std::count(all.paths.begin(), all.paths.end(), d.path() + "/."), 1);

  TsidxPtr missing = open_dir(d.file("missing"));
  EXPECT_EQ(st_tsidx_apply(missing.get(), INT_MIN, INT_MAX, record, &all), -1);
  EXPECT_EQ(_st_tsidx_apply(missing.get(), INT_MIN, INT_MAX, record, &all, 0, nullptr), -1);
  EXPECT_EQ(st_unlock(d.file("7-7-7.tsidx").c_str()), 0);
}

TEST(TsidxWalk, ManyFilesGrowTheDescriptorList) {
  TempDir d;
  TsidxPtr t = open_dir(d.path());
  for (uint32_t f = 0; f < 300; ++f) {
    put_event(t.get(), f, 10);
    ASSERT_EQ(st_tsidx_sync(t.get()), 0);
  }
  Seen s;
  EXPECT_EQ(st_tsidx_apply(t.get(), INT_MIN, INT_MAX, record, &s), 300);
}

TEST(TsidxWalkDeathTest, OpenFilesNeedAFilter) {
  TempDir d;
  TsidxPtr t = open_dir(d.path());
  testutil::write_file(d.file("a"), {});
  Seen s;
  EXPECT_DEATH(_st_tsidx_apply(t.get(), 0, 0, record, &s, 1, nullptr), "!pass_warm");
}

}  // namespace
