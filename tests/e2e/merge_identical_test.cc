// The merged file of a fixed generated bucket, byte for byte: its checksum
// was taken from the merge as it stood before the performance work, so any
// change to the merge that alters a single byte of its output fails here.
// The final name holds a time-based id, so the content is compared.
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testutil/testutil.h"

namespace tarnix {
namespace {

std::vector<std::string> index_files(const std::string& dir) {
  std::vector<std::string> out;
  for (const std::string& f : testutil::list_dir(dir)) {
    if (f.size() > 6 && f.compare(f.size() - 6, 6, ".tsidx") == 0) out.push_back(f);
  }
  return out;
}

uint64_t fnv1a64(const std::vector<uint8_t>& b) {
  uint64_t h = 0xcbf29ce484222325ull;
  for (uint8_t c : b) h = (h ^ c) * 0x100000001b3ull;
  return h;
}

struct identical_case {
  const char* name;
  bool twice;         // the events indexed twice: every value has a twin
  uint64_t size;      // bytes of the merged file
  uint64_t checksum;  // FNV-1a 64 of its bytes
};

TEST(MergeIdentical, GeneratedBucketMergesToTheRecordedBytes) {
  // 20000 events in 33 files of at most 700 values: a merge of 32 and then
  // of 2; with the events twice, 66 files and values merged with their twins.
  const identical_case cases[] = {
      {"once", false, 1465748, 0xb504ffe49c0b9245ull},
      {"twice", true, 1465748, 0xb504ffe49c0b9245ull},
  };
  testutil::TempDir tmp;
  const std::string events = tmp.file("events.tsv");
  testutil::RunResult gen =
      testutil::run({testutil::bin("tarnix-index"), "--generate", "20000", "--seed", "1", "--emit-events"});
  ASSERT_EQ(gen.status, 0) << gen.err;
  testutil::write_file(events, std::vector<uint8_t>(gen.out.begin(), gen.out.end()));
  for (const identical_case& c : cases) {
    const std::string dir = tmp.file(std::string("bucket-") + c.name);
    ASSERT_EQ(testutil::run({"/bin/mkdir", dir}).status, 0);
    const std::vector<std::string> index = {testutil::bin("tarnix-index"), "-d", dir, "-q", "--max-values", "700",
                                            "--max-terms", "100000", "--max-term-chars", "10000000",
                                            "--max-postings", "100000", events};
    for (int k = 0; k < (c.twice ? 2 : 1); ++k) {
      testutil::RunResult r = testutil::run(index);
      ASSERT_EQ(r.status, 0) << c.name << ": " << r.err;
    }
    EXPECT_EQ(index_files(dir).size(), c.twice ? 66u : 33u) << c.name;
    testutil::RunResult opt = testutil::run({testutil::bin("tarnix-optimize"), "-m", "all", "-d", dir});
    ASSERT_EQ(opt.status, 0) << c.name << ": " << opt.err;
    std::vector<std::string> left = index_files(dir);
    ASSERT_EQ(left.size(), 1u) << c.name;
    const std::vector<uint8_t> merged = testutil::read_file(dir + "/" + left[0]);
    EXPECT_EQ(merged.size(), c.size) << c.name;
    EXPECT_EQ(fnv1a64(merged), c.checksum) << c.name;
  }
}

}  // namespace
}  // namespace tarnix
