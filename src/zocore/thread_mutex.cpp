#include <system_error>

#include <zocore/thread_mutex.h>

namespace zocore {

int ThreadMutex::acquire() noexcept {
  try {
    mutex_.lock();
    return 0;
  } catch (std::system_error const&) {
    return -1;
  }
}

void ThreadMutex::release() noexcept {
  mutex_.unlock();
}

}  // namespace zocore
