// Work handed to a second thread. A merge that cannot have one (no thread
// left, or no memory for its state) does the work itself, in turn, and
// arrives at the same bytes, codes and messages.
#pragma once

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <thread>
#include <utility>

namespace tarnix {

// A thread's own alternate signal stack, between two no-access pages, for
// as long as it lives: a fault handler installed with SA_ONSTACK (the crash
// log's) can then also report a thread that ran out of stack. Without it
// the thread has none. Nothing is set when the memory cannot be had.
class worker_signal_stack {
 public:
  worker_signal_stack() noexcept {
    const long page = sysconf(_SC_PAGESIZE);
    if (page <= 0) return;
    const size_t page_sz = static_cast<size_t>(page);
    const size_t usable = (2047 / page_sz + 9) * page_sz;
    void* m = mmap(nullptr, usable + 2 * page_sz, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED) return;
    map_ = static_cast<char*>(m);
    map_sz_ = usable + 2 * page_sz;
    stack_t ss{};
    ss.ss_sp = map_ + page_sz;
    ss.ss_size = usable;
    if (mprotect(map_ + page_sz, usable, PROT_READ | PROT_WRITE) != 0 || sigaltstack(&ss, nullptr) != 0) {
      munmap(map_, map_sz_);
      map_ = nullptr;
    }
  }
  ~worker_signal_stack() {
    if (map_ == nullptr) return;
    stack_t off{};
    off.ss_flags = SS_DISABLE;
    (void)sigaltstack(&off, nullptr);
    munmap(map_, map_sz_);
  }
  worker_signal_stack(const worker_signal_stack&) = delete;
  worker_signal_stack& operator=(const worker_signal_stack&) = delete;

 private:
  char* map_ = nullptr;
  size_t map_sz_ = 0;
};

// Starts work() on *thread. The thread begins with the caller's errno, which
// the work would have found had it run on the caller's thread: a failure it
// records without a system error of its own reports what the caller's would.
// False, with *thread left as it was, when no thread could be started.
template <typename Work>
bool start_worker(std::thread* thread, Work&& work) noexcept {
  const int caller_errno = errno;
  try {
    *thread = std::thread([work = std::forward<Work>(work), caller_errno]() mutable {
      worker_signal_stack signal_stack;
      errno = caller_errno;
      work();
    });
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace tarnix
