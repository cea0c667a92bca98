#include "searchthing/result.h"

#include <cerrno>
#include <cstring>

namespace tarnix {

int _set_rc_and_errno(wrc* w, int rc, int err) noexcept {
  _set_rc(w, rc);
  w->warm_errno = err;
  return rc;
}

int _set_rc_verbose(wrc* w, int rc, int index, const char* message) noexcept {
  w->warm_rc = rc;
  w->warm_errno = errno;
  w->source_index = index;
  if (message == nullptr) {
    w->message[0] = '\0';
  } else {
    size_t n = strnlen(message, sizeof(w->message) - 1);
    memcpy(w->message, message, n);
    w->message[n] = '\0';
  }
  return rc;
}

const char* st_rc_name(int rc) noexcept {
  switch (rc) {
    case 0: return "WS_SUCCESS";
    case WS_ENOTAVAIL: return "WS_ENOTAVAIL";
    case WS_ENOMEM: return "WS_ENOMEM";
    case WS_EMMAP: return "WS_EMMAP";
    case WS_EOPEN: return "WS_EOPEN";
    case WS_EEMPTY: return "WS_EEMPTY";
    case WS_ESTAT: return "WS_ESTAT";
    case WS_ETRUNC: return "WS_ETRUNC";
    case WS_EREAD: return "WS_EREAD";
    case WS_EWRITE: return "WS_EWRITE";
    case WS_ECLOSE: return "WS_ECLOSE";
    case WS_EDATA: return "WS_EDATA";
    case WS_EMAGIC: return "WS_EMAGIC";
    case WS_ELEX: return "WS_ELEX";
    case WS_EOVERRUN: return "WS_EOVERRUN";
    case ST_EEXISTS: return "ST_EEXISTS";
    case ST_ELOCK: return "ST_ELOCK";
    case ST_EFEWFILES: return "ST_EFEWFILES";
    case ST_ENOGROUP: return "ST_ENOGROUP";
    case ST_ETOOMANY: return "ST_ETOOMANY";
    case ST_EDIROPEN: return "ST_EDIROPEN";
    case ST_EMOVE: return "ST_EMOVE";
    case WS_E32BIT: return "WS_E32BIT";
    case WS_ENONAME: return "WS_ENONAME";
    case WS_EEMPTYLEX: return "WS_EEMPTYLEX";
    default: return "unknown";
  }
}

}  // namespace tarnix
