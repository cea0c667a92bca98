// Work handed to a second thread. A merge that cannot have one (no thread
// left, or no memory for its state) does the work itself, in turn, and
// arrives at the same bytes, codes and messages.
#pragma once

#include <cerrno>
#include <exception>
#include <thread>
#include <utility>

namespace tarnix {

// Starts work() on *thread. The thread begins with the caller's errno, which
// the work would have found had it run on the caller's thread: a failure it
// records without a system error of its own reports what the caller's would.
// False, with *thread left as it was, when no thread could be started.
template <typename Work>
bool start_worker(std::thread* thread, Work&& work) noexcept {
  const int caller_errno = errno;
  try {
    *thread = std::thread([work = std::forward<Work>(work), caller_errno]() mutable {
      errno = caller_errno;
      work();
    });
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace tarnix
