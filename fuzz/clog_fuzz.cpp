// Arbitrary text through the C logging front into the live detailed log, and through the system
// log service into a file of our own. Each call must add exactly one line, holding the text with
// its control characters escaped; KELO_CLOG cuts the text to 511 bytes, KELO_ConsoleLog and
// vsl_log with "%s" keep it whole; a level outside 0..7 writes nothing.
//
// The first input byte picks the call (and vsl_log's level), the rest up to a NUL is the text.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>

#include "fuzz/FuzzPlatform.h"
#include "kelo/KeloLogger.h"
#include "kelo/logging.h"
#include "kelo/vsl.h"

namespace {

// Both files are emptied when they grow past this, so a long run does not fill the disk.
constexpr off_t kTruncateAt = off_t{4} << 20;
constexpr size_t kLineLimit = 511;

constexpr const char* kLevelNames[8] = {"<Emergency>: ", "<Alert>: ",  "<Critical>: ", "<Error>: ",
                                        "<Warning>: ",   "<Notice>: ", "<Info>: ",     "<Debug>: "};

// A log file we read behind its writer: `offset` is where the lines not yet checked begin.
struct Watched {
  std::string path;
  int fd = -1;
  off_t offset = 0;
};

struct Target {
  Watched live;  // the detailed logger's file
  Watched own;   // the file of our own vsl client
  vsl_client_t client = nullptr;
  vsl_msg_t message = nullptr;
  std::string stamp;  // the time stamp every line carries (the clock is fixed)
  std::string ident;  // " kelofuzz[pid] "
};

Target* gTarget = nullptr;

// The line text as the definition of the service gives it, written apart from its code.
std::string escaped(const std::string& text) {
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c < 0x20 || c == 0x7f) {
      out += "\\x";
      out += kHex[c >> 4];
      out += kHex[c & 0xf];
    } else {
      out += ch;
    }
  }
  return out;
}

std::string newBytes(Watched& w) {
  struct stat st;
  if (::fstat(w.fd, &st) != 0) kelo::fuzz::fail("%s: cannot stat", w.path.c_str());
  std::string bytes;
  if (st.st_size > w.offset) {
    bytes.resize(static_cast<size_t>(st.st_size - w.offset));
    size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = ::pread(w.fd, bytes.data() + done, bytes.size() - done,
                                w.offset + static_cast<off_t>(done));
      if (n <= 0) kelo::fuzz::fail("%s: cannot read", w.path.c_str());
      done += static_cast<size_t>(n);
    }
  }
  w.offset = st.st_size;
  if (w.offset > kTruncateAt) {
    // Both writers append (O_APPEND), so their next line lands at the new end.
    if (::ftruncate(w.fd, 0) != 0) kelo::fuzz::fail("%s: cannot truncate", w.path.c_str());
    w.offset = 0;
  }
  return bytes;
}

void expectLine(Watched& w, int level, const std::string& text, const char* call) {
  const std::string got = newBytes(w);
  const std::string want =
      gTarget->stamp + gTarget->ident + kLevelNames[level] + escaped(text) + "\n";
  if (got != want) {
    kelo::fuzz::fail("%s wrote %zu bytes (%zu lines) where one line of %zu bytes was due", call,
                     got.size(), static_cast<size_t>(std::count(got.begin(), got.end(), '\n')),
                     want.size());
  }
}

Watched openWatched(const std::string& path, int flags) {
  Watched w;
  w.path = path;
  w.fd = ::open(path.c_str(), flags | O_CLOEXEC, 0644);
  if (w.fd < 0) kelo::fuzz::fail("%s: cannot open", path.c_str());
  struct stat st;
  if (::fstat(w.fd, &st) != 0) kelo::fuzz::fail("%s: cannot stat", path.c_str());
  w.offset = st.st_size;
  return w;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kelo::fuzz::Platform& p = kelo::fuzz::platform();
  auto* t = new Target();

  const std::time_t seconds = static_cast<std::time_t>(kelo::fuzz::kFuzzTime);
  std::tm utc{};
  ::gmtime_r(&seconds, &utc);
  char stamp[64];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S.000000 +0000", &utc);
  t->stamp = stamp;
  t->ident = std::string(" ") + kelo::fuzz::kFuzzProcess + "[" + std::to_string(::getpid()) + "] ";

  // The switch runs later on the logger's queue: wait until lines are accepted.
  KELO_CLOGMODE(true);
  kelo::KeloLogger* logger = kelo::KeloLogger::instance();
  for (int i = 0; i < 1000 && !logger->canWriteToFile(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (!logger->canWriteToFile()) kelo::fuzz::fail("the detailed logger never switched on");
  // A line through the logger waits for the queue, so the switch-on has finished writing too.
  logger->logToFile("fuzzing starts");
  t->live =
      openWatched(p.home + "/Library/Logs/KeloLoggingDetailed." + kelo::fuzz::kFuzzProcess, O_RDWR);

  t->own = openWatched(p.folder + "/own.log", O_RDWR | O_CREAT | O_APPEND);
  t->client = vsl_open(kelo::fuzz::kFuzzProcess, "fuzz", VSL_OPT_NO_DELAY);
  t->message = vsl_new(VSL_TYPE_MSG);
  if (t->client == nullptr || t->message == nullptr ||
      vsl_add_log_file(t->client, t->own.fd) != 0) {
    kelo::fuzz::fail("the vsl client could not be set up");
  }
  gTarget = t;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Target& t = *gTarget;
  if (size == 0) return 0;
  const unsigned pick = data[0];
  // A C string ends at its first NUL.
  const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  const std::string text(bytes.c_str());

  switch (pick % 3) {
    case 0:
      KELO_CLOG("%s", bytes.c_str());
      expectLine(t.live, VSL_LEVEL_INFO, text.substr(0, kLineLimit), "KELO_CLOG");
      break;
    case 1:
      KELO_ConsoleLog(bytes.c_str());
      expectLine(t.live, VSL_LEVEL_INFO, text, "KELO_ConsoleLog");
      break;
    default: {
      // Levels -1 and 8 lie outside the service's eight.
      const int level = static_cast<int>((pick / 3) % 10) - 1;
      vsl_log(t.client, t.message, level, "%s", bytes.c_str());
      if (level < 0 || level > 7) {
        if (!newBytes(t.own).empty()) kelo::fuzz::fail("vsl_log wrote at level %d", level);
      } else {
        expectLine(t.own, level, text, "vsl_log");
      }
    }
  }
  return 0;
}
