#include "platform/Notify.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "platform/NotifyRegistry.h"
#include "platform/NotifyRules.h"

namespace kelo::platform {

namespace notify {

Notifier& Notifier::instance() {
  static Notifier* notifier = new Notifier();  // never destroyed: the watcher may still run
  return *notifier;
}

uint32_t Notifier::writableFile(const char* name, std::shared_ptr<StateFile>* out) {
  if (!validName(name)) return kNotifyStatusInvalidName;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = writable_.find(std::string_view(name));
    if (it != writable_.end()) *out = it->second;
  }
  if (*out != nullptr && (*out)->stillValid()) return kNotifyStatusOk;
  out->reset();
  if (const uint32_t status = openStateFile(name, Access::kWrite, out); status != kNotifyStatusOk) {
    return status;
  }
  std::shared_ptr<StateFile> replaced;  // closed after the lock
  std::lock_guard<std::mutex> lock(mutex_);
  auto [it, inserted] = writable_.try_emplace(name, *out);
  if (!inserted) {
    replaced = std::move(it->second);
    it->second = *out;
  }
  return kNotifyStatusOk;
}

uint32_t Notifier::post(const char* name) {
  std::shared_ptr<StateFile> file;
  if (const uint32_t status = writableFile(name, &file); status != kNotifyStatusOk) {
    return status;
  }
  return file->post() ? kNotifyStatusOk : kNotifyStatusFailed;
}

uint32_t Notifier::registerCheck(const char* name, int* outToken) {
  std::shared_ptr<StateFile> file;
  if (const uint32_t status = writableFile(name, &file); status != kNotifyStatusOk) {
    return status;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  const int token = newTokenLocked();
  tokens_.emplace(
      token, Entry{std::make_shared<Registration>(token, name, nullptr, nullptr), std::move(file)});
  *outToken = token;
  return kNotifyStatusOk;
}

uint32_t Notifier::registerDispatch(const char* name, int* outToken, SerialQueue* queue,
                                    std::function<void(int)> handler) {
  std::shared_ptr<StateFile> file;
  if (const uint32_t status = openStateFile(name, Access::kRead, &file);
      status != kNotifyStatusOk) {
    return status;
  }
  std::shared_ptr<StateFile> unused;  // released after the lock
  std::lock_guard<std::mutex> lock(mutex_);
  if (const uint32_t status = startWatcherLocked(); status != kNotifyStatusOk) return status;
  Watched& watched = names_[name];
  if (watched.file == nullptr) {
    // The folder is watched already, so a post after this read is seen.
    Record record;
    if (!file->read(&record)) {
      names_.erase(name);
      return kNotifyStatusFailed;
    }
    watched.file = std::move(file);
    watched.generation = record.generation;
  } else {
    unused = std::move(file);
  }
  const int token = newTokenLocked();
  auto registration = std::make_shared<Registration>(token, name, queue, std::move(handler));
  watched.registrations.push_back(registration);
  tokens_.emplace(token, Entry{std::move(registration), nullptr});
  *outToken = token;
  return kNotifyStatusOk;
}

uint32_t Notifier::setState(int token, uint64_t state) {
  std::shared_ptr<StateFile> file = fileOf(token);
  if (file == nullptr) return kNotifyStatusInvalidToken;
  return file->setState(state) ? kNotifyStatusOk : kNotifyStatusFailed;
}

uint32_t Notifier::getState(int token, uint64_t* outState) {
  std::shared_ptr<StateFile> file = fileOf(token);
  if (file == nullptr) return kNotifyStatusInvalidToken;
  Record record;
  if (!file->read(&record)) return kNotifyStatusFailed;
  *outState = record.state;
  return kNotifyStatusOk;
}

uint32_t Notifier::cancel(int token) {
  // Released after the lock: closing a file and destroying a handler run outside it.
  std::shared_ptr<StateFile> closing;
  std::shared_ptr<Registration> registration;
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = tokens_.find(token);
  if (it == tokens_.end()) return kNotifyStatusInvalidToken;
  registration = std::move(it->second.registration);
  closing = std::move(it->second.file);
  tokens_.erase(it);
  registration->cancelled.store(true, std::memory_order_release);
  if (registration->queue != nullptr) {
    auto named = names_.find(registration->name);
    if (named != names_.end()) {
      auto& list = named->second.registrations;
      std::erase(list, registration);
      if (list.empty()) {
        closing = std::move(named->second.file);
        names_.erase(named);
      }
    }
  }
  return kNotifyStatusOk;
}

Notifier::Notifier() {
  ::pthread_atfork([] { instance().mutex_.lock(); }, [] { instance().mutex_.unlock(); },
                   [] { instance().afterForkInChild(); });
}

void Notifier::afterForkInChild() {
  if (inotifyFd_ >= 0) {
    ::close(inotifyFd_);
    inotifyFd_ = -1;
  }
  for (auto it = tokens_.begin(); it != tokens_.end();) {
    if (it->second.registration->queue != nullptr) {
      it->second.registration->cancelled.store(true, std::memory_order_relaxed);
      it = tokens_.erase(it);
    } else {
      ++it;
    }
  }
  names_.clear();
  mutex_.unlock();
}

int Notifier::newTokenLocked() {
  for (;;) {
    const int token = nextToken_;
    nextToken_ = nextToken_ == INT_MAX ? 1 : nextToken_ + 1;
    if (tokens_.find(token) == tokens_.end()) return token;
  }
}

std::shared_ptr<StateFile> Notifier::fileOf(int token) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = tokens_.find(token);
  if (it == tokens_.end()) return nullptr;
  if (it->second.file != nullptr) return it->second.file;
  auto named = names_.find(it->second.registration->name);
  return named == names_.end() ? nullptr : named->second.file;
}

}  // namespace notify

namespace {

using notify::Notifier;

template <class F>
uint32_t guarded(F f) noexcept {
  try {
    return f();
  } catch (...) {
    return kNotifyStatusFailed;
  }
}

}  // namespace

uint32_t notify_register_check(const char* name, int* outToken) {
  if (outToken == nullptr) return kNotifyStatusInvalidArgument;
  return guarded([&] { return Notifier::instance().registerCheck(name, outToken); });
}

uint32_t notify_set_state(int token, uint64_t state) {
  return guarded([&] { return Notifier::instance().setState(token, state); });
}

uint32_t notify_get_state(int token, uint64_t* outState) {
  if (outState == nullptr) return kNotifyStatusInvalidArgument;
  return guarded([&] { return Notifier::instance().getState(token, outState); });
}

uint32_t notify_post(const char* name) {
  return guarded([&] { return Notifier::instance().post(name); });
}

uint32_t notify_cancel(int token) {
  return guarded([&] { return Notifier::instance().cancel(token); });
}

uint32_t notify_register_dispatch(const char* name, int* outToken, SerialQueue* queue,
                                  std::function<void(int token)> handler) {
  if (outToken == nullptr || queue == nullptr || !handler) return kNotifyStatusInvalidArgument;
  return guarded([&] {
    return Notifier::instance().registerDispatch(name, outToken, queue, std::move(handler));
  });
}

}  // namespace kelo::platform
