// Run-once creation of a process-wide service. The object is made on the heap the first time
// get() is called, exactly once even under concurrent first calls, and never destroyed: nothing
// runs at process exit.
#ifndef KELO_PLATFORM_SINGLETON_H_
#define KELO_PLATFORM_SINGLETON_H_

#include <atomic>
#include <mutex>

namespace kelo::platform {

template <class T>
class Singleton {
 public:
  constexpr Singleton() = default;

  template <class Make>
  T* get(Make&& make) {
    T* p = instance_.load(std::memory_order_acquire);
    if (p != nullptr) return p;
    std::call_once(once_, [&] { instance_.store(make(), std::memory_order_release); });
    return instance_.load(std::memory_order_acquire);
  }

  // The instance if it was created, else null; creates nothing.
  T* peek() const { return instance_.load(std::memory_order_acquire); }

 private:
  std::once_flag once_;
  std::atomic<T*> instance_{nullptr};
};

}  // namespace kelo::platform

#endif  // KELO_PLATFORM_SINGLETON_H_
