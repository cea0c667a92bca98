// Process entry of tarnix-optimize: crash reporting first, then the command
// line; the exit status is the low eight bits of the run's result.
#include <csignal>

#include "libzero/create-crash-dump.h"
#include "libzero/standard-descriptors.h"
#include "optimize/optimize_main.h"

int main(int argc, char** argv) {
  // Before anything is opened: a log line must never land in a merged file.
  (void)tarnix::keep_standard_descriptors_open();
  (void)tarnix::crash_log_creator_init_with_default_prefix();
  // A log reader that goes away, or a limit on file sizes, must fail a
  // write, not end the process: between moving a merged file into place
  // and removing its sources, dying would leave every event twice.
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);
  return tarnix::optimize_main(argc, argv);
}
