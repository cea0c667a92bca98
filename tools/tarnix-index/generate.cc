#include "generate.h"

#include <cmath>
#include <cstdio>

namespace tarnix_index {

namespace {

constexpr uint32_t VOCABULARY_SZ = 4000;
constexpr int32_t BASE_TIME = 1600000000;
constexpr uint32_t FIRST_ADDRESS = 1000;

constexpr const char* SYLLABLES[] = {"ka", "lo", "mi", "ne", "ru", "ta", "vo", "shi", "qua", "zen",
                                     "pre", "dor", "ix", "um", "bel", "gor", "tan", "fi", "wex", "yo"};
constexpr uint32_t SYLLABLE_CNT = sizeof(SYLLABLES) / sizeof(SYLLABLES[0]);

constexpr const char* HOST_KINDS[] = {"web", "db", "app", "cache", "mail"};
constexpr const char* SOURCE_TYPES[] = {"access_combined", "syslog", "json_app", "csv_audit"};
constexpr const char* KEYS[] = {"status", "user", "bytes", "method", "path", "pid"};
constexpr const char* METHODS[] = {"GET", "POST", "PUT", "DELETE"};

// splitmix64: a full-period 64-bit sequence from any seed.
uint64_t splitmix(uint64_t* s) {
  uint64_t z = (*s += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

}  // namespace

event_generator::event_generator(uint64_t count, uint64_t seed, bool ordered, uint32_t min_tokens,
                                 uint32_t max_tokens)
    : count_(count),
      state_(seed),
      ordered_(ordered),
      min_tokens_(min_tokens),
      token_choices_(max_tokens - min_tokens + 1) {
  // The vocabulary depends on the seed too: different seeds, different words.
  vocabulary_.reserve(VOCABULARY_SZ);
  for (uint32_t i = 0; i < VOCABULARY_SZ; ++i) {
    std::string w;
    uint32_t syllables = 1 + below(4);
    for (uint32_t s = 0; s < syllables; ++s) w += SYLLABLES[below(SYLLABLE_CNT)];
    w += std::to_string(i % 97);   // keeps words distinct enough without a set
    vocabulary_.push_back(std::move(w));
  }
}

uint64_t event_generator::next_u64() { return splitmix(&state_); }

uint32_t event_generator::below(uint32_t n) {
  return static_cast<uint32_t>((next_u64() >> 32) * n >> 32);
}

uint32_t event_generator::zipf_rank() {
  // exp(u * ln(V + 1)) - 1 for uniform u: rank r has probability about
  // proportional to 1 / (r + 1), as word frequencies in text do.
  double u = static_cast<double>(next_u64() >> 11) * (1.0 / 9007199254740992.0);
  double r = std::exp(u * std::log(static_cast<double>(VOCABULARY_SZ) + 1.0)) - 1.0;
  uint32_t rank = static_cast<uint32_t>(r);
  return rank < VOCABULARY_SZ ? rank : VOCABULARY_SZ - 1;
}

bool event_generator::next(event* out) {
  if (done_ >= count_) return false;
  const uint64_t i = done_++;
  event& e = *out;
  e.terms.clear();
  e.event_address = FIRST_ADDRESS + static_cast<uint32_t>(i);
  int32_t jitter = 0;
  if (!ordered_ && below(8) == 0) jitter = static_cast<int32_t>(below(7)) - 3;
  e.timestamp = BASE_TIME + static_cast<int32_t>(i / 4) + jitter;
  e.host = below(40);
  e.source = below(12);
  e.source_type = below(4);
  e.event_type = below(16);

  const char* kind = HOST_KINDS[e.host % 5];
  char buf[64];
  snprintf(buf, sizeof buf, "host::%s%02u", kind, e.host);
  e.terms.emplace_back(buf);
  snprintf(buf, sizeof buf, "source::/var/log/%s%u.log", kind, e.source);
  e.terms.emplace_back(buf);
  e.terms.emplace_back(std::string("sourcetype::") + SOURCE_TYPES[e.source_type]);

  const uint32_t tokens = min_tokens_ + below(token_choices_);
  for (uint32_t t = 0; t < tokens; ++t) {
    uint32_t kind_of_token = below(20);
    if (kind_of_token < 13) {
      e.terms.push_back(vocabulary_[zipf_rank()]);
    } else if (kind_of_token < 15) {
      snprintf(buf, sizeof buf, "10.%u.%u.%u", below(4), below(256), below(256));
      e.terms.emplace_back(buf);
    } else if (kind_of_token < 17) {
      snprintf(buf, sizeof buf, "%u", below(t == 0 ? 100000 : 1000));
      e.terms.emplace_back(buf);
    } else {
      const char* key = KEYS[below(6)];
      if (key[0] == 'm') {
        snprintf(buf, sizeof buf, "%s=%s", key, METHODS[below(4)]);
      } else if (key[0] == 's') {
        static constexpr uint32_t STATUS[] = {200, 200, 200, 201, 304, 404, 500, 503};
        snprintf(buf, sizeof buf, "%s=%u", key, STATUS[below(8)]);
      } else if (key[0] == 'p' && key[1] == 'a') {
        snprintf(buf, sizeof buf, "%s=/%s/%s", key, vocabulary_[zipf_rank()].c_str(),
                 vocabulary_[zipf_rank()].c_str());
      } else {
        snprintf(buf, sizeof buf, "%s=%u", key, below(5000));
      }
      e.terms.emplace_back(buf);
    }
  }
  return true;
}

std::string format_event(const event& e) {
  std::string line = std::to_string(e.timestamp) + '\t' + std::to_string(e.event_address) + '\t' +
                     std::to_string(e.event_type) + '\t' + std::to_string(e.source) + '\t' +
                     std::to_string(e.source_type) + '\t' + std::to_string(e.host) + '\t';
  for (size_t i = 0; i < e.terms.size(); ++i) {
    if (i != 0) line += ' ';
    line += e.terms[i];
  }
  return line;
}

}  // namespace tarnix_index
