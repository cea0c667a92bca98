// The merged file of a fixed generated bucket, byte for byte: its checksum
// was taken from the merge as it stood before the performance work, so any
// change to the merge that alters a single byte of its output fails here.
// The final name holds a time-based id, so the content is compared.
#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testutil/optimize_bucket.h"
#include "testutil/testutil.h"

namespace tarnix {
namespace {

using namespace testutil;

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
  TempDir tmp;
  const std::string events = tmp.file("events.tsv");
  RunResult gen = run_bin("tarnix-index", {"--generate", "20000", "--seed", "1", "--emit-events"});
  ASSERT_EQ(gen.status, 0) << gen.err;
  write_file(events, std::vector<uint8_t>(gen.out.begin(), gen.out.end()));
  for (const identical_case& c : cases) {
    const std::string dir = tmp.file(std::string("bucket-") + c.name);
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    for (int k = 0; k < (c.twice ? 2 : 1); ++k) {
      RunResult r = run_bin("tarnix-index", {"-d", dir, "-q", "--max-values", "700", "--max-terms", "100000",
                                             "--max-term-chars", "10000000", "--max-postings", "100000", events});
      ASSERT_EQ(r.status, 0) << c.name << ": " << r.err;
    }
    EXPECT_EQ(tsidx_names(dir).size(), c.twice ? 66u : 33u) << c.name;
    RunResult opt = run_bin("tarnix-optimize", {"-m", "all", "-d", dir});
    ASSERT_EQ(opt.status, 0) << c.name << ": " << opt.err;
    std::vector<std::string> left = tsidx_names(dir);
    ASSERT_EQ(left.size(), 1u) << c.name;
    const std::vector<uint8_t> merged = read_file(dir + "/" + left[0]);
    EXPECT_EQ(merged.size(), c.size) << c.name;
    EXPECT_EQ(fnv1a64(merged), c.checksum) << c.name;
  }
}

}  // namespace
}  // namespace tarnix
