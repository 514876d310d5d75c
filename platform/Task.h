// A move-only `void()` callable that keeps small closures inline, so that posting a task that
// captures a few words allocates nothing.
#ifndef KELO_PLATFORM_TASK_H_
#define KELO_PLATFORM_TASK_H_

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

namespace kelo::platform {

class Task {
 public:
  static constexpr std::size_t kInlineSize = 40;

  Task() noexcept = default;

  template <class F, class = std::enable_if_t<!std::is_same_v<std::decay_t<F>, Task>>>
  Task(F&& f) {  // NOLINT(google-explicit-constructor): tasks are made from lambdas in place
    using Fn = std::decay_t<F>;
    if constexpr (sizeof(Fn) <= kInlineSize && alignof(Fn) <= alignof(std::max_align_t) &&
                  std::is_nothrow_move_constructible_v<Fn>) {
      ::new (static_cast<void*>(storage_)) Fn(std::forward<F>(f));
      ops_ = &kInlineOps<Fn>;
    } else {
      *reinterpret_cast<Fn**>(storage_) = new Fn(std::forward<F>(f));
      ops_ = &kHeapOps<Fn>;
    }
  }

  Task(Task&& other) noexcept : ops_(other.ops_) {
    if (ops_ != nullptr) {
      ops_->move(other.storage_, storage_);
      other.ops_ = nullptr;
    }
  }
  Task& operator=(Task&& other) noexcept {
    if (this != &other) {
      reset();
      ops_ = other.ops_;
      if (ops_ != nullptr) {
        ops_->move(other.storage_, storage_);
        other.ops_ = nullptr;
      }
    }
    return *this;
  }
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;
  ~Task() { reset(); }

  explicit operator bool() const noexcept { return ops_ != nullptr; }
  void operator()() { ops_->invoke(storage_); }

  void reset() noexcept {
    if (ops_ != nullptr) {
      ops_->destroy(storage_);
      ops_ = nullptr;
    }
  }

 private:
  struct Ops {
    void (*invoke)(void*);
    void (*move)(void* from, void* to) noexcept;
    void (*destroy)(void*) noexcept;
  };

  template <class Fn>
  static constexpr Ops kInlineOps = {
      [](void* s) { (*static_cast<Fn*>(s))(); },
      [](void* from, void* to) noexcept {
        ::new (to) Fn(std::move(*static_cast<Fn*>(from)));
        static_cast<Fn*>(from)->~Fn();
      },
      [](void* s) noexcept { static_cast<Fn*>(s)->~Fn(); },
  };
  template <class Fn>
  static constexpr Ops kHeapOps = {
      [](void* s) { (**static_cast<Fn**>(s))(); },
      [](void* from, void* to) noexcept {
        *static_cast<Fn**>(to) = *static_cast<Fn**>(from);
      },
      [](void* s) noexcept { delete *static_cast<Fn**>(s); },
  };

  alignas(std::max_align_t) unsigned char storage_[kInlineSize];
  const Ops* ops_ = nullptr;
};

}  // namespace kelo::platform

#endif  // KELO_PLATFORM_TASK_H_
