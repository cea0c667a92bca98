// Group choice of the optimize pass, driven by tables of file sizes: which
// positions of the size-sorted list end up in the merged group, per mode,
// minimum source count and extra-space limit.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "searchthing/result.h"
#include "searchthing/tsidx_optimize.h"

namespace tarnix {
namespace {

constexpr int64_t KiB = 1024;
constexpr int64_t MiB = 1024 * 1024;

std::vector<uint32_t> range(uint32_t from, uint32_t to) {
  std::vector<uint32_t> v;
  for (uint32_t i = from; i < to; ++i) v.push_back(i);
  return v;
}

struct plan_case {
  std::string name;
  std::vector<int64_t> sizes;  // sorted, smallest first
  int32_t mode;
  uint32_t min_src_count;
  uint64_t max_allowed_size;
  int expect_rc;
  std::vector<uint32_t> expect_pos;
};

std::vector<plan_case> plan_cases() {
  std::vector<int64_t> forty_small(40, 100);
  std::vector<int64_t> forty_growing;
  for (int i = 0; i < 40; ++i) forty_growing.push_back(100 * MiB + i * MiB);
  const std::vector<int64_t> ten_thousand(10000, 4096);
  return {
      // 2 x 10 is not above 30, but 30 is a small file.
      {"small pair, normal", {10, 30}, SO_MODE_NORMAL, 2, 0, 0, {0, 1}},
      {"small pair below minimum count, normal", {10, 30}, SO_MODE_NORMAL, 8, 0, ST_ENOGROUP, {}},
      {"small pair below minimum count, force", {10, 30}, SO_MODE_FORCE, 8, 0, 0, {0, 1}},
      // 2 x 2 MiB is not above 5 MiB and 5 MiB is not small.
      {"dissimilar pair, normal", {2 * MiB, 5 * MiB}, SO_MODE_NORMAL, 2, 0, ST_ENOGROUP, {}},
      {"dissimilar pair, force", {2 * MiB, 5 * MiB}, SO_MODE_FORCE, 2, 0, 0, {0, 1}},
      {"largest small file is 1 MiB - 1", {10, MiB - 1}, SO_MODE_NORMAL, 2, 0, 0, {0, 1}},
      {"1 MiB is no longer small", {10, MiB}, SO_MODE_NORMAL, 2, 0, ST_ENOGROUP, {}},
      {"seed found further up", {10, 5 * MiB, 6 * MiB}, SO_MODE_NORMAL, 2, 0, 0, {1, 2}},
      {"three files under minimum 8, normal", {100, 200, 300}, SO_MODE_NORMAL, 8, 0, ST_ENOGROUP, {}},
      {"three files under minimum 8, force", {100, 200, 300}, SO_MODE_FORCE, 8, 0, 0, {0, 1, 2}},
      {"three files under minimum 8, all", {100, 200, 300}, SO_MODE_ALL, 8, 0, 0, {0, 1, 2}},
      {"one file, force", {100}, SO_MODE_FORCE, 0, 0, ST_ENOGROUP, {}},
      {"no file, all", {}, SO_MODE_ALL, 0, 0, ST_ENOGROUP, {}},
      {"minimum 0 takes the seed and what fits", {100, 200, 300}, SO_MODE_NORMAL, 0, 0, 0, {0, 1, 2}},
      // A big file stops the extension when it outweighs the group so far.
      {"big file stops extension, normal", {10, 20, 800 * MiB}, SO_MODE_NORMAL, 2, 0, 0, {0, 1}},
      {"big file stops extension, force", {10, 20, 800 * MiB}, SO_MODE_FORCE, 2, 0, 0, {0, 1}},
      {"big file joins in mode all", {10, 20, 800 * MiB}, SO_MODE_ALL, 2, 0, 0, {0, 1, 2}},
      {"small third file always joins", {10, 20, MiB}, SO_MODE_NORMAL, 2, 0, 0, {0, 1, 2}},
      {"third file of the seed's total joins", {2 * MiB, 3 * MiB, 5 * MiB}, SO_MODE_NORMAL, 2, 0, 0,
       {0, 1, 2}},
      {"third file above the seed's total stops", {2 * MiB, 3 * MiB, 5 * MiB + 1}, SO_MODE_NORMAL, 2,
       0, 0, {0, 1}},
      // The stopping file ends the extension even if a later one would fit.
      {"extension stops at the first misfit", {2 * MiB, 3 * MiB, 50 * MiB, 50 * MiB},
       SO_MODE_FORCE, 2, 0, 0, {0, 1}},
      // Byte-total limit of 1500 MiB: modes normal and force only.
      {"byte total limit, force", {600 * MiB, 700 * MiB, 700 * MiB}, SO_MODE_FORCE, 2, 0, 0, {0, 1}},
      {"byte total exactly at the limit", {500 * MiB, 500 * MiB, 500 * MiB}, SO_MODE_FORCE, 2, 0, 0,
       {0, 1, 2}},
      {"byte total limit ignored in mode all", {600 * MiB, 700 * MiB, 700 * MiB}, SO_MODE_ALL, 2, 0, 0,
       {0, 1, 2}},
      {"seed pair never held against the byte limit", {1000 * MiB, 1000 * MiB}, SO_MODE_NORMAL, 2, 0,
       0, {0, 1}},
      // -x: the extra space limit cuts the extension in every mode.
      {"max allowed size keeps the seed pair", {100, 100, 100, 100}, SO_MODE_NORMAL, 2, 250, 0, {0, 1}},
      {"max allowed size equal to the total", {100, 100, 100, 100}, SO_MODE_NORMAL, 2, 300, 0,
       {0, 1, 2}},
      {"max allowed size, mode all", {100, 100, 100, 100}, SO_MODE_ALL, 2, 250, 0, {0, 1}},
      {"max allowed size smaller than the seed", {100, 100, 100}, SO_MODE_FORCE, 2, 50, 0, {0, 1}},
      {"max allowed size below minimum count, normal", {100, 100, 100, 100}, SO_MODE_NORMAL, 3, 250,
       ST_ENOGROUP, {}},
      {"max allowed size below minimum count, force", {100, 100, 100, 100}, SO_MODE_FORCE, 3, 250, 0,
       {0, 1}},
      // At most 32 files, the smallest ones.
      {"forty small files, normal", forty_small, SO_MODE_NORMAL, 8, 0, 0, range(0, 32)},
      {"forty files, mode all", forty_growing, SO_MODE_ALL, 8, 0, 0, range(0, 32)},
      {"minimum 32 of 10000, normal", ten_thousand, SO_MODE_NORMAL, 32, 0, 0, range(0, 32)},
      {"minimum 32 of 10000, force", ten_thousand, SO_MODE_FORCE, 32, 0, 0, range(0, 32)},
      {"minimum 32 of 10000, all", ten_thousand, SO_MODE_ALL, 32, 0, 0, range(0, 32)},
      // Normal mode resumes two places after the failed seed: the seed at 1
      // (which would collect 1, 2, 3 and 4) is never tried.
      {"resume two places after the seed",
       {2 * MiB, 3 * MiB, 5 * MiB + 512 * KiB, 6 * MiB, 7 * MiB}, SO_MODE_NORMAL, 3, 0, 0, {2, 3, 4}},
      {"resume finds nothing", {2 * MiB, 3 * MiB, 5 * MiB + 512 * KiB, 6 * MiB}, SO_MODE_NORMAL, 3, 0,
       ST_ENOGROUP, {}},
      {"resume with a fresh seed search", {2 * MiB, 3 * MiB, 20 * MiB, 50 * MiB, 60 * MiB, 70 * MiB},
       SO_MODE_NORMAL, 3, 0, 0, {3, 4, 5}},
  };
}

TEST(PlanGroup, TableOfSizes) {
  for (const plan_case& c : plan_cases()) {
    SCOPED_TRACE(c.name);
    so_group g;
    g.count = 99;
    int rc = _so_choose_group(c.sizes.data(), static_cast<uint32_t>(c.sizes.size()), c.mode,
                              c.min_src_count, c.max_allowed_size, &g);
    EXPECT_EQ(rc, c.expect_rc);
    if (rc == 0) {
      EXPECT_EQ(std::vector<uint32_t>(g.pos, g.pos + g.count), c.expect_pos);
    }
  }
}

}  // namespace
}  // namespace tarnix
