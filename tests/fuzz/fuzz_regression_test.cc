// Replays every input the fuzzers found troublesome (tests/fuzz/corpus/
// <target>/<name>) through the same target functions the fuzz programs run,
// and pins the result codes that the fixes for them settled on.
#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "searchthing/fclex.h"
#include "searchthing/result.h"
#include "searchthing/warmslice.h"
#include "searchthing/warmslice_merge.h"
#include "testutil/fuzz_targets.h"
#include "testutil/testutil.h"

namespace {

using testutil::FUZZ_TARGETS;

std::string corpus_dir() {
  std::string here = __FILE__;
  return here.substr(0, here.rfind('/')) + "/corpus";
}

std::vector<uint8_t> corpus_file(const std::string& target, const std::string& name) {
  return testutil::read_file(corpus_dir() + "/" + target + "/" + name);
}

// Runs every input below root/<target>/ through its target (a broken
// promise or a memory error aborts the test program); the number run.
int replay(const std::string& root) {
  int replayed = 0;
  for (const auto& t : FUZZ_TARGETS) {
    for (const std::string& name : testutil::list_dir(root + "/" + t.name)) {
      SCOPED_TRACE(std::string(t.name) + "/" + name);
      std::vector<uint8_t> bytes = testutil::read_file(root + "/" + t.name + "/" + name);
      EXPECT_EQ(0, t.fn(bytes.data(), bytes.size()));
      ++replayed;
    }
  }
  return replayed;
}

TEST(FuzzCorpus, EveryKeptInputReplays) { EXPECT_GT(replay(corpus_dir()), 0); }

// The seeds themselves go through every target too: valid files must read
// back completely, and merging each with the two valid partners succeeds.
TEST(FuzzCorpus, GeneratedSeedsRunThroughEveryTarget) {
  testutil::TempDir d;
  ASSERT_GT(testutil::fuzz_make_seeds(d.path()), 20);
  for (const auto& t : FUZZ_TARGETS) EXPECT_FALSE(testutil::list_dir(d.file(t.name)).empty()) << t.name;
  replay(d.path());
}

// Writes bytes to a file in d and opens it read-only.
int open_bytes(const testutil::TempDir& d, const std::string& name, const std::vector<uint8_t>& bytes) {
  testutil::write_file(d.file(name), bytes);
  return open(d.file(name).c_str(), O_RDONLY | O_CLOEXEC);
}

// A lexicon header whose term count and block size ask for a block cache of
// gigabytes, over a blocks area of 7 bytes: no block can be larger than the
// blocks area, so the cache holds one whole term (2052 bytes) and no more,
// and lookups in the damaged block find nothing.
TEST(FuzzRegression, LexiconCacheBoundedByTheBlocksArea) {
  std::vector<uint8_t> bytes = corpus_file("lexicon", "cache-claims-gigabytes");
  ASSERT_FALSE(bytes.empty());
  testutil::TempDir d;
  int fd = open_bytes(d, "in.lex", bytes);
  ASSERT_GE(fd, 0);
  tarnix::fclex* h = tarnix::st_fclex_open_fd(fd, 0);
  ASSERT_NE(nullptr, h);
  EXPECT_EQ(2052u, h->block_cache_size);
  uint32_t got = tarnix::st_fclex_get(h, "error", nullptr);
  EXPECT_TRUE(got == tarnix::NOT_FOUND || got == static_cast<uint32_t>(tarnix::WS_EDATA));
  tarnix::st_fclex_close(h);

  // Cut short inside the blocks area, the same header is refused.
  bytes.resize(20);
  int fd2 = open_bytes(d, "short.lex", bytes);
  EXPECT_EQ(nullptr, tarnix::st_fclex_open_fd(fd2, 0));
  close(fd2);
  close(fd);
}

// The same claim inside an index file: the descriptor-based open reports a
// file shorter than its lexicon (-7), like the mapped open.
TEST(FuzzRegression, IndexFileLexiconBeyondTheFile) {
  std::vector<uint8_t> bytes = corpus_file("index_file", "lexicon-cache-claims-gigabytes");
  ASSERT_FALSE(bytes.empty());
  testutil::TempDir d;
  testutil::write_file(d.file("in.tsidx"), bytes);
  tarnix::wrc rc{};
  EXPECT_EQ(nullptr, tarnix::st_warm_slice_open_fd(d.file("in.tsidx").c_str(), 0, &rc));
  EXPECT_EQ(tarnix::WS_ETRUNC, rc.warm_rc);
}

// Merges the files of d named in sources into d/out.tsidx; the merge's code.
int merge_in(const testutil::TempDir& d, const std::vector<std::string>& sources, tarnix::wrc* w) {
  std::vector<int> fds;
  for (const auto& s : sources) fds.push_back(open(d.file(s).c_str(), O_RDONLY | O_CLOEXEC));
  int tgt = open(d.file("out.tsidx").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  int rc = tarnix::st_warm_slice_merge_n(0, tgt, fds.data(), static_cast<uint32_t>(fds.size()), 4, 0, w, 0);
  for (int fd : fds) close(fd);
  close(tgt);
  return rc;
}

// A source whose lexicon holds "id28" before "id24": the merge used to copy
// the disorder into a merged lexicon in which lookups fail. Now the merge
// refuses the source as inconsistent data, naming it.
TEST(FuzzRegression, MergeRefusesLexiconOutOfOrder) {
  testutil::TempDir d;
  testutil::write_file(d.file("bad.tsidx"), corpus_file("merge", "lexicon-terms-out-of-order"));
  testutil::write_file(d.file("copy.tsidx"), corpus_file("merge", "lexicon-terms-out-of-order"));
  for (const auto& sources : std::vector<std::vector<std::string>>{{"bad.tsidx"}, {"bad.tsidx", "copy.tsidx"}}) {
    tarnix::wrc w{};
    EXPECT_EQ(tarnix::WS_EDATA, merge_in(d, sources, &w));
    EXPECT_EQ(tarnix::WS_EDATA, w.warm_rc);
    EXPECT_EQ(0, w.source_index);
    EXPECT_STREQ("terms out of order in st_fclex_merge_n", w.message);
    // The target never got a header.
    std::vector<uint8_t> out = testutil::read_file(d.file("out.tsidx"));
    ASSERT_GE(out.size(), 8u);
    EXPECT_EQ(std::vector<uint8_t>(8, 0), std::vector<uint8_t>(out.begin(), out.begin() + 8));
  }
}

// An index file whose magic says "TarLex1" (a lexicon-only file) among the
// sources: the metadata phase used to abort on its short entries after the
// postings were written. Refused up front, naming the source.
TEST(FuzzRegression, MergeRefusesLexiconOnlySource) {
  testutil::TempDir d;
  testutil::write_file(d.file("lexonly.tsidx"), corpus_file("merge", "lexicon-only-source"));
  testutil::write_file(d.file("good.tsidx"), corpus_file("merge", "lexicon-terms-out-of-order"));
  tarnix::wrc w{};
  EXPECT_EQ(tarnix::WS_EMAGIC, merge_in(d, {"good.tsidx", "lexonly.tsidx"}, &w));
  EXPECT_EQ(1, w.source_index);
  EXPECT_STREQ("lexicon-only file as merge source", w.message);
  EXPECT_TRUE(testutil::read_file(d.file("out.tsidx")).empty());
}

}  // namespace
