// Process entry of tarnix-optimize: crash reporting first, then the command
// line; the exit status is the low eight bits of the run's result.
#include <cstdio>

int main(int, char**) {
  fprintf(stderr, "tarnix-optimize: not built yet\n");
  return 1;
}
