// Terms as text for the extra tools' line-oriented output.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "searchthing/codes.h"
#include "searchthing/merged_lex.h"

namespace tools {

// Printable ASCII as it is, every other byte and the backslash as \xNN: one
// term stays on one line and its bytes can be recovered.
inline std::string plain_term(std::string_view t) {
  std::string s;
  for (unsigned char c : t) {
    if (c >= 0x20 && c < 0x7F && c != '\\') {
      s += static_cast<char>(c);
    } else {
      char b[8];
      snprintf(b, sizeof(b), "\\x%02X", c);
      s += b;
    }
  }
  return s;
}

// The filtered merged lexicon keeps its counts in the machine's own byte
// order (every other word of the format is big-endian): known by its name.
inline bool counts_in_native_order(std::string_view path) {
  const size_t slash = path.rfind('/');
  const std::string_view base = slash == std::string_view::npos ? path : path.substr(slash + 1);
  return base == tarnix::ST_FILTERED_LEX_NAME;
}

// A count as the file holds it.
inline uint32_t load_count(const uint8_t* p, bool native) {
  if (!native) return tarnix::load_be32(p);
  uint32_t v;
  memcpy(&v, p, 4);
  return v;
}

}  // namespace tools
