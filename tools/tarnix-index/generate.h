// Synthetic, log-like events for tarnix-index: a fixed vocabulary drawn
// with a Zipf-like skew, ip-like and numeric tokens, key=value pairs and
// field terms ("host::web07"). The same count and seed always give the same
// events, on every platform (the generator is its own: no library
// distributions). Every event has a unique, increasing address; timestamps
// increase by about four events per second, with a few seconds of jitter
// unless the events are asked for in time order. After its three field
// terms an event holds between a minimum and a maximum number of text tokens
// (by default 4 to 14, about 12 terms an event in all).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tarnix_index {

struct event {
  int32_t timestamp = 0;
  uint32_t event_address = 0;
  uint32_t event_type = 0;
  uint32_t source = 0;
  uint32_t source_type = 0;
  uint32_t host = 0;
  std::vector<std::string> terms;
};

constexpr uint32_t DEFAULT_MIN_TOKENS = 4;
constexpr uint32_t DEFAULT_MAX_TOKENS = 14;
constexpr uint32_t MAX_TOKENS = 1000;

class event_generator {
 public:
  // ordered: timestamps never decrease (what a streaming slice needs).
  // min_tokens <= max_tokens <= MAX_TOKENS: text tokens an event holds
  // beside its field terms.
  event_generator(uint64_t count, uint64_t seed, bool ordered,
                  uint32_t min_tokens = DEFAULT_MIN_TOKENS, uint32_t max_tokens = DEFAULT_MAX_TOKENS);
  // The next event, false after the last one.
  bool next(event* out);

 private:
  uint64_t next_u64();
  uint32_t below(uint32_t n);   // uniform in [0, n)
  uint32_t zipf_rank();         // skewed toward 0, in [0, vocabulary size)

  uint64_t count_;
  uint64_t done_ = 0;
  uint64_t state_;
  bool ordered_;
  uint32_t min_tokens_;
  uint32_t token_choices_;   // max_tokens - min_tokens + 1
  std::vector<std::string> vocabulary_;
};

// The event as one input line (without the line end): timestamp,
// event_address, event_type, source, source_type, host, then the terms
// separated by single spaces; fields separated by tabs.
std::string format_event(const event& e);

}  // namespace tarnix_index
