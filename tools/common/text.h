// Terms as text for the extra tools' line-oriented output.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

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

}  // namespace tools
