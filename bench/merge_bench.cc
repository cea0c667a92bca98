// Merge throughput: a group of 32 index files written by the index file
// writer (overlapping times, shared and private terms) merged into one.
// Reports postings merged per second and source bytes per second.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "searchthing/hotslice.h"
#include "searchthing/warmslice.h"
#include "searchthing/warmslice_merge.h"

namespace {

using namespace tarnix;

struct Group {
  std::string dir;
  std::vector<std::string> files;
  uint64_t postings = 0;
  uint64_t bytes = 0;
  ~Group() {
    for (const std::string& f : files) unlink(f.c_str());
    if (!dir.empty()) rmdir(dir.c_str());
  }
};

// Builds the group once per process: sources x events, terms per event.
const Group& group(uint32_t sources, uint32_t events, uint32_t terms_per_event) {
  static Group g;
  if (!g.files.empty()) return g;
  char templ[] = "/tmp/merge-bench-XXXXXX";
  if (mkdtemp(templ) == nullptr) abort();
  g.dir = templ;
  std::mt19937 rng(42);
  for (uint32_t s = 0; s < sources; ++s) {
    wrc w{};
    hot_slice* hot = st_hot_slice_create(64u << 20, 1u << 20, events * terms_per_event + 16, events + 16, 0, &w);
    if (hot == nullptr) abort();
    for (uint32_t e = 0; e < events; ++e) {
      const int32_t ts = 1700000000 + static_cast<int32_t>(rng() % 3600000);
      const uint32_t addr = rng();
      for (uint32_t k = 0; k < terms_per_event; ++k) {
        // A few very common terms, many rarer ones, some private to a source.
        char term[64];
        const uint32_t r = rng() % 100;
        if (r < 30) snprintf(term, sizeof term, "common%u", r % 8);
        else if (r < 90) snprintf(term, sizeof term, "word%u", static_cast<unsigned>(rng() % 5000));
        else snprintf(term, sizeof term, "src%u::id%u", s, static_cast<unsigned>(rng() % 20000));
        if (st_hot_slice_put(hot, term, static_cast<uint32_t>(strlen(term)), ts, addr, rng() % 30, rng() % 50,
                             rng() % 10, rng() % 200) != 0) {
          abort();
        }
      }
    }
    char name[PATH_BUF_SZ];
    warm* wf = st_warm_slice_create(hot, name, g.dir.c_str(), ".tsidx", &w);
    if (wf == nullptr) abort();
    g.postings += hdr_num_postings(warm_hdr(wf));
    st_warm_slice_close(wf);
    st_hot_slice_close(hot);
    struct stat st;
    stat(name, &st);
    g.bytes += static_cast<uint64_t>(st.st_size);
    g.files.push_back(name);
  }
  return g;
}

void BM_Merge32(benchmark::State& state) {
  const Group& g = group(32, static_cast<uint32_t>(state.range(0)), 8);
  std::vector<int> fds;
  for (const std::string& f : g.files) fds.push_back(open(f.c_str(), O_RDONLY | O_CLOEXEC));
  const std::string target = g.dir + "/target.merge";
  for (auto _ : state) {
    unlink(target.c_str());
    int tfd = open(target.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    wrc w{};
    int rc = st_warm_slice_merge_n(0, tfd, fds.data(), static_cast<uint32_t>(fds.size()), 64, 0, &w, 0);
    close(tfd);
    if (rc != 0) state.SkipWithError("merge failed");
  }
  unlink(target.c_str());
  for (int fd : fds) close(fd);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * g.postings));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * g.bytes));
  state.counters["postings"] = static_cast<double>(g.postings);
}
BENCHMARK(BM_Merge32)->Arg(20000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
