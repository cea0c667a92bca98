// Index files written by the library itself (hot slice and writer, and the
// n-way merge), for the tool tests that read them with the tools.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "searchthing/hotslice.h"
#include "searchthing/warmslice.h"
#include "searchthing/warmslice_merge.h"

namespace toolstest {

using namespace tarnix;

// Every 17th value deleted; streaming slices get ascending times and addresses.
// Writes a slice of n events with pseudo-random terms through the hot slice
// and the writer into dir; returns the path.
inline std::string write_slice(const std::string& dir, uint32_t seed, uint32_t n, int streaming) {
  wrc w{};
  hot_slice* hot = st_hot_slice_create(1 << 20, 1 << 14, 1 << 16, 1 << 12, streaming, &w);
  EXPECT_NE(hot, nullptr);
  std::mt19937 rng(seed);
  for (uint32_t i = 0; i < n; ++i) {
    const int32_t ts = streaming ? static_cast<int32_t>(1000 + i / 3) : static_cast<int32_t>(1000 + rng() % 500);
    const uint32_t addr = streaming ? i + 1 : static_cast<uint32_t>(seed * 100000 + i);
    const uint32_t src = (i % 17 == 0) ? 0xFFFFFFFFu : rng() % 9;
    const uint32_t et = rng() % 5, st = rng() % 3, host = rng() % 40;
    for (int k = 0; k < 4; ++k) {
      const std::string term = "t" + std::to_string(rng() % (k == 0 ? 7 : 300));
      EXPECT_EQ(st_hot_slice_put(hot, term.c_str(), static_cast<uint32_t>(term.size()), ts, addr, et, src, st, host),
                0);
    }
  }
  char name[PATH_BUF_SZ];
  warm* wm = st_warm_slice_create(hot, name, dir.c_str(), ".tsidx", &w);
  EXPECT_NE(wm, nullptr) << w.warm_rc;
  if (wm) st_warm_slice_close(wm);
  st_hot_slice_close(hot);
  return name;
}

// Merges srcs into the new file out; returns out.
inline std::string merge_files(const std::string& out, const std::vector<std::string>& srcs, uint32_t tpb) {
  std::vector<int> fds;
  for (const auto& s : srcs) fds.push_back(open(s.c_str(), O_RDONLY | O_CLOEXEC));
  const int tfd = open(out.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  wrc w{};
  const int rc = st_warm_slice_merge_n(0, tfd, fds.data(), static_cast<uint32_t>(fds.size()), tpb, 0, &w, 0);
  EXPECT_EQ(rc, 0) << w.message;
  for (int fd : fds) close(fd);
  close(tfd);
  return out;
}

}  // namespace toolstest
