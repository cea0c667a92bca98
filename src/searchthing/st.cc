#include "searchthing/st.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>

#include "searchthing/tsidx.h"
#include "searchthing/tsidx_optimize.h"
#include "searchthing/warmslice_util.h"

namespace tarnix {

namespace {

constexpr int32_t UNLIMITED_ITERATIONS = 2147483647;

long now_s() noexcept { return static_cast<long>(time(nullptr)); }

}  // namespace

char* so_status_filename(const char* dir, char* buffer) noexcept {
  snprintf(buffer, PATH_BUF_SZ, "%s/optimize.result", dir);
  return buffer;
}

int32_t st_optimize(const char* dir, int32_t mode, int isfinal, int32_t max_iteration,
                    uint32_t min_src_count, uint32_t lex_tpb, uint64_t page_size, FILE* log,
                    wrc* wrc_o, uint64_t max_allowed_size, int tstats) noexcept {
  if (log != nullptr) {
    // verbose is "true" by construction: the line is only written when logging.
    fprintf(log,
            "tm=%ld tarnix-optimize start: dir=%s mode=%i verbose=%s isfinal=%s max_iteration=%i "
            "min_src_count=%u lex_tpb=%u\n",
            now_s(), dir, mode, "true", isfinal ? "true" : "false", max_iteration, min_src_count,
            lex_tpb);
  }

  int32_t last = 0;
  bool stopped_by_limit = false;
  tsidx* t = st_tsidx_open(dir, 1, 0, 0xFFFFFFFFu);
  if (t == nullptr) {
    last = WS_ENOTAVAIL;
    // No line end here: kept as the run has always written it.
    if (log != nullptr) fprintf(log, "tm=%ld unable to open tsidx: %s", now_s(), dir);
  } else {
    // The marker goes before any work: an indexer that sets it again while
    // this run is busy asks for another run.
    (void)st_tsidx_clear_need_optimize(t);
    for (int64_t passes = 1;; ++passes) {
      int32_t rc = st_tsidx_optimize_n(t, mode, log, min_src_count, lex_tpb, page_size, wrc_o,
                                       max_allowed_size, tstats);
      if (rc != 0) {
        last = rc;
        break;
      }
      if (passes >= max_iteration && max_iteration != UNLIMITED_ITERATIONS) {
        last = 0;
        stopped_by_limit = true;
        break;
      }
    }
    (void)st_tsidx_close(t);
  }

  if (isfinal && dir != nullptr) {
    // An empty file that says a final run has finished, whatever its
    // outcome; an existing one is left as it is.
    char status[PATH_BUF_SZ];
    int fd = open(so_status_filename(dir, status), O_RDWR | O_CREAT | O_EXCL | O_TRUNC | O_CLOEXEC,
                  0600);
    if (fd >= 0) close(fd);
  }

  if (log != nullptr) fprintf(log, "tm=%ld exiting tarnix-optimize process with rc=%i\n", now_s(), last);

  if (stopped_by_limit || last == ST_EFEWFILES || last == ST_ENOGROUP) return 0;
  return last;
}

int32_t st_optimize_ex(tsidx* thing, int32_t mode) noexcept {
  wrc private_rc{};
  return st_tsidx_optimize_n(thing, mode, nullptr, 8, 64, 0, &private_rc, 0, 0);
}

}  // namespace tarnix
