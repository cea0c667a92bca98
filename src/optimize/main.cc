// Process entry of tarnix-optimize: crash reporting first, then the command
// line; the exit status is the low eight bits of the run's result.
#include "libzero/create-crash-dump.h"
#include "optimize/optimize_main.h"

int main(int argc, char** argv) {
  (void)tarnix::crash_log_creator_init_with_default_prefix();
  return tarnix::optimize_main(argc, argv);
}
