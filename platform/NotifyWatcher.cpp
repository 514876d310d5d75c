// The watcher thread: inotify events on the notification folder become deliveries.
#include <errno.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/Facts.h"
#include "platform/Notify.h"
#include "platform/NotifyRegistry.h"
#include "platform/NotifyRules.h"

namespace kelo::platform::notify {

uint32_t Notifier::startWatcherLocked() {
  if (inotifyFd_ >= 0) return kNotifyStatusOk;
  const int fd = ::inotify_init1(IN_CLOEXEC);
  if (fd < 0) return kNotifyStatusFailed;
  if (::inotify_add_watch(fd, folderPath().c_str(), kWatchMask) < 0) {
    ::close(fd);
    return kNotifyStatusFailed;
  }
  try {
    std::thread([this, fd] { watch(fd); }).detach();
  } catch (...) {
    ::close(fd);
    return kNotifyStatusFailed;
  }
  inotifyFd_ = fd;
  return kNotifyStatusOk;
}

void Notifier::watch(int fd) {
  alignas(inotify_event) char buffer[16 * 1024];
  bool reportedError = false;
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n <= 0) {
      if (n < 0 && errno == EINTR) continue;
      if (!reportedError) {
        reportedError = true;
        char line[160];
        std::snprintf(line, sizeof line, "notify: reading inotify events failed: %s",
                      std::strerror(errno));
        systemLog(LOG_ERR, line);
      }
      ::usleep(100 * 1000);
      continue;
    }
    try {
      handleEvents(fd, buffer, static_cast<size_t>(n));
    } catch (...) {
      // Out of memory: the events of this batch are lost, as in an overflow.
      try {
        rescanAll();
      } catch (...) {
      }
    }
  }
}

void Notifier::handleEvents(int fd, const char* buffer, size_t size) {
  bool lost = false;
  std::vector<std::string> touched;
  std::unordered_set<std::string> recreated;
  for (size_t offset = 0; offset < size;) {
    const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
    offset += sizeof(inotify_event) + event->len;
    if ((event->mask & IN_Q_OVERFLOW) != 0) {
      lost = true;
    } else if ((event->mask & IN_IGNORED) != 0) {
      // The folder went away (removed or replaced); watch the one that posters re-create.
      const std::string folder = folderPath();
      makeFolder(folder);
      if (::inotify_add_watch(fd, folder.c_str(), kWatchMask) < 0) {
        systemLog(LOG_ERR, "notify: the notification folder can no longer be watched");
      }
      lost = true;
    } else if (event->len > 0) {
      std::string name(event->name);
      if ((event->mask & (IN_CREATE | IN_MOVED_TO)) != 0) recreated.insert(name);
      if (std::find(touched.begin(), touched.end(), name) == touched.end()) {
        touched.push_back(std::move(name));
      }
    }
  }
  if (lost) {
    rescanAll();
    return;
  }
  for (const std::string& name : touched) check(name, recreated.count(name) != 0);
}

void Notifier::rescanAll() {
  for (const std::string& name : registeredNames()) check(name, true);
}

std::vector<std::string> Notifier::registeredNames() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> names;
  names.reserve(names_.size());
  for (const auto& [name, watched] : names_) names.push_back(name);
  return names;
}

void Notifier::check(const std::string& name, bool reopen) {
  std::shared_ptr<StateFile> file;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = names_.find(name);
    if (it == names_.end()) return;
    file = it->second.file;
  }
  if (reopen) {
    std::shared_ptr<StateFile> fresh;
    if (openStateFile(name.c_str(), Access::kRead, &fresh) == kNotifyStatusOk) {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = names_.find(name);
      if (it == names_.end()) return;
      std::swap(it->second.file, fresh);  // the old one closes after the lock
      file = it->second.file;
    }
  }
  Record record;
  if (!file->read(&record)) return;
  std::vector<std::shared_ptr<Registration>> due;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = names_.find(name);
    if (it == names_.end() || it->second.generation == record.generation) return;
    it->second.generation = record.generation;
    due = it->second.registrations;
  }
  for (std::shared_ptr<Registration>& registration : due) deliver(std::move(registration));
}

void Notifier::deliver(std::shared_ptr<Registration> registration) {
  if (registration->cancelled.load(std::memory_order_acquire)) return;
  // A delivery already queued will read the latest state when it runs.
  if (registration->pending.exchange(true, std::memory_order_acq_rel)) return;
  SerialQueue* queue = registration->queue;
  queue->runOrPost([registration = std::move(registration)] {
    registration->pending.store(false, std::memory_order_release);
    if (registration->cancelled.load(std::memory_order_acquire)) return;
    try {
      registration->handler(registration->token);
    } catch (...) {
      systemLog(LOG_ERR, "notify: a notification handler threw an exception");
    }
  });
}

}  // namespace kelo::platform::notify
