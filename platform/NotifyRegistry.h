// The registrations of this process and the watcher thread that serves the dispatch ones.
#ifndef KELO_PLATFORM_NOTIFYREGISTRY_H_
#define KELO_PLATFORM_NOTIFYREGISTRY_H_

#include <sys/inotify.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/NotifyStateFile.h"
#include "platform/SerialQueue.h"

namespace kelo::platform::notify {

// Lets the maps be searched with the caller's C string without building a std::string.
struct NameHash {
  using is_transparent = void;
  size_t operator()(std::string_view name) const { return std::hash<std::string_view>{}(name); }
};

struct Registration {
  Registration(int t, std::string n, SerialQueue* q, std::function<void(int)> h)
      : token(t), name(std::move(n)), queue(q), handler(std::move(h)) {}
  const int token;
  const std::string name;
  SerialQueue* const queue;  // null for a check registration
  const std::function<void(int)> handler;
  std::atomic<bool> cancelled{false};
  // True while a delivery is queued and has not started: further posts coalesce into it.
  std::atomic<bool> pending{false};
};

// Every registration of this process and the watcher that serves the dispatch ones.
class Notifier {
 public:
  static Notifier& instance();

  // The name's file opened for writing. A process keeps the files it posts to open and reuses
  // them while they are still the names' files (StateFile::stillValid).
  uint32_t writableFile(const char* name, std::shared_ptr<StateFile>* out);

  uint32_t post(const char* name);

  uint32_t registerCheck(const char* name, int* outToken);

  uint32_t registerDispatch(const char* name, int* outToken, SerialQueue* queue,
                            std::function<void(int)> handler);

  uint32_t setState(int token, uint64_t state);

  uint32_t getState(int token, uint64_t* outState);

  uint32_t cancel(int token);

 private:
  struct Entry {
    std::shared_ptr<Registration> registration;
    std::shared_ptr<StateFile> file;  // check registrations only; dispatch ones use names_
  };
  struct Watched {
    std::shared_ptr<StateFile> file;
    uint64_t generation = 0;  // the last generation delivered (or seen at registration)
    std::vector<std::shared_ptr<Registration>> registrations;
  };

  Notifier();

  // The child of fork(2) has this process's registrations but not its watcher thread, and must
  // not read events from the inotify descriptor it shares with the parent. Its dispatch
  // registrations end (their queues' workers are gone too); a new one starts a watcher of its
  // own. Check registrations and kept files stay usable. mutex_ was held across the fork, so no
  // thread of the parent left it locked.
  void afterForkInChild();

  int newTokenLocked();

  std::shared_ptr<StateFile> fileOf(int token);

  // The folder rather than each file: a state file created (or replaced) after registration is
  // noticed by its name.
  static constexpr uint32_t kWatchMask =
      IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_ONLYDIR | IN_DONT_FOLLOW;

  uint32_t startWatcherLocked();

  void watch(int fd);

  void handleEvents(int fd, const char* buffer, size_t size);

  // Lost events may have hidden posts and re-created files of any name.
  void rescanAll();

  std::vector<std::string> registeredNames();

  // Delivers the name's registrations if its generation moved since the last delivery.
  void check(const std::string& name, bool reopen);

  static void deliver(std::shared_ptr<Registration> registration);

  std::mutex mutex_;
  int nextToken_ = 1;                               // guarded by mutex_
  std::unordered_map<int, Entry> tokens_;           // guarded by mutex_
  std::unordered_map<std::string, Watched> names_;  // guarded by mutex_
  // Files this process posts to, by name; guarded by mutex_.
  std::unordered_map<std::string, std::shared_ptr<StateFile>, NameHash, std::equal_to<>> writable_;
  int inotifyFd_ = -1;  // guarded by mutex_
};

}  // namespace kelo::platform::notify

#endif  // KELO_PLATFORM_NOTIFYREGISTRY_H_
