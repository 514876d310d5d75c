#include "platform/Metrics.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <unordered_map>

#include "platform/Facts.h"

namespace kelo::platform {

namespace {

constexpr char kSchema[] =
    "CREATE TABLE IF NOT EXISTS scalar_metrics("
    "key TEXT PRIMARY KEY NOT NULL, value INTEGER NOT NULL) WITHOUT ROWID";
constexpr char kSetSql[] =
    "INSERT INTO scalar_metrics(key, value) VALUES(?1, ?2) "
    "ON CONFLICT(key) DO UPDATE SET value = excluded.value";
// SQLite turns an overflowing integer sum into a float; a running total wraps instead.
constexpr char kAddSql[] =
    "INSERT INTO scalar_metrics(key, value) VALUES(?1, ?2) "
    "ON CONFLICT(key) DO UPDATE SET value = kelo_wrapping_add(value, excluded.value)";
constexpr char kSelectSql[] = "SELECT key, value FROM scalar_metrics ORDER BY key";

// How long a kept operation waits before the retry thread tries it again.
constexpr auto kRetryInterval = std::chrono::seconds(1);

std::atomic<int> gBusyTimeoutMs{5000};

int64_t wrappingAdd(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

void wrappingAddFunction(sqlite3_context* context, int, sqlite3_value** argv) {
  sqlite3_result_int64(context,
                       wrappingAdd(sqlite3_value_int64(argv[0]), sqlite3_value_int64(argv[1])));
}

// SQLite's own busy timeout sleeps in steps of up to 100 ms, so several processes writing at once
// spend most of their time asleep. This one polls in short, growing, jittered steps up to the
// same overall limit. `context` points at the limit in milliseconds.
int busyHandler(void* context, int attempt) {
  using Clock = std::chrono::steady_clock;
  thread_local Clock::time_point started;
  if (attempt == 0) started = Clock::now();
  const int limitMs = *static_cast<const int*>(context);
  if (Clock::now() - started >= std::chrono::milliseconds(limitMs)) return 0;
  const int shift = attempt < 5 ? attempt : 5;
  const long base = 50L << shift;  // 50 us .. 1.6 ms
  // Jitter from the clock and the pid, so that processes started together drift apart.
  const auto noise = static_cast<unsigned long>(Clock::now().time_since_epoch().count()) ^
                     (static_cast<unsigned long>(::getpid()) * 2654435761UL);
  ::usleep(
      static_cast<useconds_t>(base + static_cast<long>(noise % static_cast<unsigned long>(base))));
  return 1;
}

bool makeFolders(const std::string& path) {
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string prefix = slash == std::string::npos ? path : path.substr(0, slash);
    if (fileSystem().mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) return false;
    if (slash == std::string::npos) return true;
  }
}

// Creates the database file before SQLite does, so that it is writable only by its owner
// whatever the umask (SQLite gives its journal files the database file's mode).
bool prepareFile(const std::string& path, std::string* error) {
  const size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0 && !makeFolders(path.substr(0, slash))) {
    *error = "cannot create the folder of " + path + ": " + std::strerror(errno);
    return false;
  }
  const int fd =
      fileSystem().open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644);
  if (fd < 0) {
    *error = "cannot open " + path + ": " + std::strerror(errno);
    return false;
  }
  struct stat st;
  bool ok = fileSystem().fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  if (!ok) {
    *error = path + " is not a regular file";
  } else if (st.st_uid == ::geteuid() && (st.st_mode & 022) != 0) {
    ::fchmod(fd, st.st_mode & 0755);
  }
  fileSystem().close(fd);
  return ok;
}

enum class Op { kSet, kAdd };

struct PendingOp {
  Op op;
  std::string key;
  int64_t value;
};

// The operations of the calling thread's open batch, or null when none is open.
thread_local std::vector<PendingOp>* tBatch = nullptr;

// The default store. One connection, opened on first use and reopened after a failed open.
class SqliteStore {
 public:
  static SqliteStore& instance() {
    static SqliteStore* store = new SqliteStore();  // never destroyed: the retry thread uses it
    return *store;
  }

  void apply(Op op, const std::string& key, int64_t value) {
    writeOrKeep([&](std::string* error) { return executeLocked(op, key, value, error); },
                [&] { keepLocked(op, key, value); });
  }

  // Writes `ops` in one transaction, after what was kept before; keeps them all when that fails.
  void applyAll(const std::vector<PendingOp>& ops) {
    if (ops.empty()) return;
    writeOrKeep([&](std::string* error) { return executeAllLocked(ops, error); },
                [&] {
                  for (const PendingOp& pending : ops)
                    keepLocked(pending.op, pending.key, pending.value);
                });
  }

 private:
  // Writes through `write` after what was kept before; on failure `keep` keeps it in memory, the
  // first failure of an episode is reported and a retry is scheduled.
  template <class Write, class Keep>
  void writeOrKeep(Write write, Keep keep) {
    std::string episode;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      std::string error;
      if (flushLocked(&error) && write(&error)) {
        failing_ = false;
        return;
      }
      keep();
      if (!failing_) {
        failing_ = true;
        episode = "metrics: cannot write " + path_ + " (" + error +
                  "); keeping the values in memory and retrying";
      }
      startRetryLocked();
    }
    if (!episode.empty()) systemLog(LOG_WARNING, episode.c_str());
  }

  bool execLocked(const char* sql, std::string* error) {
    if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK) return true;
    *error = sqlite3_errmsg(db_);
    return false;
  }

  bool executeAllLocked(const std::vector<PendingOp>& ops, std::string* error) {
    if (!openLocked(error)) return false;
    timeoutMs_ = gBusyTimeoutMs.load(std::memory_order_relaxed);
    if (!execLocked("BEGIN IMMEDIATE", error)) return false;
    for (const PendingOp& pending : ops) {
      if (!executeLocked(pending.op, pending.key, pending.value, error)) {
        sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        return false;
      }
    }
    if (execLocked("COMMIT", error)) return true;
    sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    return false;
  }

  // Operations not yet written. Several operations on one key fold into one with the same
  // effect (a set followed by adds is a set of the sum), so the list stays as small as the set
  // of keys however long the database stays out of reach.
  struct Kept {
    std::string key;
    bool replace;  // a set is among the folded operations
    int64_t value;
  };

  SqliteStore() {
    ::pthread_atfork([] { instance().mutex_.lock(); }, [] { instance().mutex_.unlock(); },
                     [] { instance().afterForkInChild(); });
  }

  // A child of fork(2) must not use the parent's connection (SQLite's locks belong to the
  // parent), nor write the parent's kept values a second time, and has no retry thread. The
  // connection is abandoned, not closed, so that nothing of the parent's database state changes.
  void afterForkInChild() {
    db_ = nullptr;
    set_ = add_ = nullptr;
    kept_.clear();
    keptIndex_.clear();
    failing_ = false;
    retryStarted_ = false;
    mutex_.unlock();
  }

  bool openLocked(std::string* error) {
    if (db_ != nullptr) return true;
    path_ = metricsDatabasePath();
    if (!prepareFile(path_, error)) return false;
    sqlite3* db = nullptr;
    int rc = sqlite3_open_v2(path_.c_str(), &db,
                             SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW,
                             nullptr);
    if (rc == SQLITE_OK) {
      timeoutMs_ = gBusyTimeoutMs.load(std::memory_order_relaxed);
      sqlite3_busy_handler(db, busyHandler, &timeoutMs_);
      // WAL: one sync per commit, and readers never wait for the writer.
      rc = sqlite3_exec(db, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
    }
    if (rc == SQLITE_OK)
      rc = sqlite3_exec(db, "PRAGMA synchronous=FULL", nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK) rc = sqlite3_exec(db, kSchema, nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK) {
      rc = sqlite3_create_function(db, "kelo_wrapping_add", 2, SQLITE_UTF8 | SQLITE_DETERMINISTIC,
                                   nullptr, wrappingAddFunction, nullptr, nullptr);
    }
    if (rc == SQLITE_OK) rc = sqlite3_prepare_v2(db, kSetSql, -1, &set_, nullptr);
    if (rc == SQLITE_OK) rc = sqlite3_prepare_v2(db, kAddSql, -1, &add_, nullptr);
    if (rc != SQLITE_OK) {
      *error = db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
      sqlite3_finalize(set_);
      sqlite3_finalize(add_);
      set_ = add_ = nullptr;
      sqlite3_close(db);
      return false;
    }
    db_ = db;
    return true;
  }

  bool executeLocked(Op op, const std::string& key, int64_t value, std::string* error) {
    if (!openLocked(error)) return false;
    timeoutMs_ = gBusyTimeoutMs.load(std::memory_order_relaxed);
    sqlite3_stmt* statement = op == Op::kSet ? set_ : add_;
    sqlite3_bind_text(statement, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    sqlite3_bind_int64(statement, 2, value);
    const int rc = sqlite3_step(statement);
    if (rc != SQLITE_DONE) *error = sqlite3_errmsg(db_);
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    return rc == SQLITE_DONE;
  }

  void keepLocked(Op op, const std::string& key, int64_t value) {
    auto [it, inserted] = keptIndex_.try_emplace(key, kept_.size());
    if (inserted) {
      kept_.push_back({key, op == Op::kSet, value});
      return;
    }
    Kept& kept = kept_[it->second];
    if (op == Op::kSet) {
      kept.replace = true;
      kept.value = value;
    } else {
      kept.value = wrappingAdd(kept.value, value);
    }
  }

  // Writes the kept operations in order; true when none is left.
  bool flushLocked(std::string* error) {
    size_t done = 0;
    while (done < kept_.size()) {
      const Kept& kept = kept_[done];
      if (!executeLocked(kept.replace ? Op::kSet : Op::kAdd, kept.key, kept.value, error)) break;
      ++done;
    }
    if (done == 0) return kept_.empty();
    kept_.erase(kept_.begin(), kept_.begin() + static_cast<std::ptrdiff_t>(done));
    keptIndex_.clear();
    for (size_t i = 0; i < kept_.size(); ++i) keptIndex_.emplace(kept_[i].key, i);
    return kept_.empty();
  }

  // Kept values must reach the database even if no further operation comes.
  void startRetryLocked() {
    if (retryStarted_) return;
    try {
      std::thread([this] { retryLoop(); }).detach();
      retryStarted_ = true;
    } catch (...) {
      // Without the thread the next operation still writes them.
    }
  }

  // Runs while values are kept; the next failure starts it again.
  void retryLoop() {
    for (;;) {
      std::this_thread::sleep_for(kRetryInterval);
      std::lock_guard<std::mutex> lock(mutex_);
      std::string error;
      if (flushLocked(&error)) {
        failing_ = false;
        retryStarted_ = false;
        return;
      }
    }
  }

  std::mutex mutex_;
  // All guarded by mutex_.
  sqlite3* db_ = nullptr;
  sqlite3_stmt* set_ = nullptr;
  sqlite3_stmt* add_ = nullptr;
  std::string path_;
  int timeoutMs_ = 0;  // read by busyHandler during a statement
  std::vector<Kept> kept_;
  std::unordered_map<std::string, size_t> keptIndex_;
  bool failing_ = false;  // inside a failure episode, already reported
  bool retryStarted_ = false;
};

template <class Call>
void toSink(const char* what, Call call) noexcept {
  try {
    call();
  } catch (...) {
    char line[96];
    std::snprintf(line, sizeof line, "metrics: the installed metrics sink threw in %s", what);
    systemLog(LOG_ERR, line);
  }
}

}  // namespace

MetricsBatch::MetricsBatch() : outermost_(tBatch == nullptr) {
  if (outermost_) tBatch = new (std::nothrow) std::vector<PendingOp>();
}

MetricsBatch::~MetricsBatch() {
  if (!outermost_) return;
  std::unique_ptr<std::vector<PendingOp>> ops(tBatch);
  tBatch = nullptr;
  if (!ops) return;
  try {
    SqliteStore::instance().applyAll(*ops);
  } catch (...) {
    systemLog(LOG_ERR, "metrics: out of memory writing a batch of values; the batch is lost");
  }
}

void CumuClientSetValueForScalarKey(const std::string& key, int64_t value) {
  toSink("setValue", [&] {
    if (std::shared_ptr<MetricsSink> sink = installedMetricsSink()) {
      sink->setValue(key, value);
    } else if (tBatch != nullptr) {
      tBatch->push_back({Op::kSet, key, value});
    } else {
      SqliteStore::instance().apply(Op::kSet, key, value);
    }
  });
}

void CumuClientAddValueForScalarKey(const std::string& key, int64_t value) {
  toSink("addValue", [&] {
    if (std::shared_ptr<MetricsSink> sink = installedMetricsSink()) {
      sink->addValue(key, value);
    } else if (tBatch != nullptr) {
      tBatch->push_back({Op::kAdd, key, value});
    } else {
      SqliteStore::instance().apply(Op::kAdd, key, value);
    }
  });
}

std::string metricsDatabasePath() { return homeDirectory() + "/Library/Metrics/KeloMetrics.db"; }

void setMetricsBusyTimeoutMs(int milliseconds) {
  gBusyTimeoutMs.store(milliseconds < 0 ? 0 : milliseconds, std::memory_order_relaxed);
}

MetricsReadResult readMetricsDatabase(const std::string& path) {
  MetricsReadResult result;
  try {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) {  // a link is refused below, never followed
      result.error = (errno == ENOENT ? "no such file: " : "cannot read ") + path;
      if (errno != ENOENT) result.error += std::string(": ") + std::strerror(errno);
      return result;
    }
    if (!S_ISREG(st.st_mode)) {
      result.error = "not a metrics database: " + path + ": not a regular file";
      return result;
    }
    int timeoutMs = gBusyTimeoutMs.load(std::memory_order_relaxed);
    sqlite3* db = nullptr;
    int rc =
        sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
    sqlite3_stmt* select = nullptr;
    if (rc == SQLITE_OK) {
      sqlite3_busy_handler(db, busyHandler, &timeoutMs);
      rc = sqlite3_prepare_v2(db, kSelectSql, -1, &select, nullptr);
    }
    while (rc == SQLITE_OK) {
      const int step = sqlite3_step(select);
      if (step == SQLITE_DONE) break;
      if (step != SQLITE_ROW) {
        rc = step;
        break;
      }
      const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(select, 0));
      const int length = sqlite3_column_bytes(select, 0);
      result.rows.emplace_back(std::string(text != nullptr ? text : "", length),
                               sqlite3_column_int64(select, 1));
    }
    if (rc != SQLITE_OK) {
      result.rows.clear();
      const bool busy = (rc & 0xff) == SQLITE_BUSY || (rc & 0xff) == SQLITE_LOCKED;
      result.error = (busy ? "cannot read " : "not a metrics database: ") + path + ": " +
                     (db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
    } else {
      result.ok = true;
    }
    sqlite3_finalize(select);
    sqlite3_close(db);
  } catch (...) {
    result.ok = false;
    result.rows.clear();
    result.error = "out of memory reading " + path;
  }
  return result;
}

}  // namespace kelo::platform
