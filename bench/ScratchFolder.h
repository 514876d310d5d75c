// A fresh folder in the temporary folder for one benchmark process, removed with everything in
// it when the object goes (at the end of main).
#ifndef KELO_BENCH_SCRATCHFOLDER_H_
#define KELO_BENCH_SCRATCHFOLDER_H_

#include <stdlib.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace kelo::bench {

class ScratchFolder {
 public:
  explicit ScratchFolder(const std::string& prefix) {
    std::string pattern = (std::filesystem::temp_directory_path() / (prefix + ".XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      std::perror("mkdtemp");
      std::exit(1);
    }
    path_ = pattern;
  }
  ~ScratchFolder() {
    // A background thread of the library (a notification watcher) may still be recreating its
    // folder as it ends: try again until the folder is gone.
    for (int attempt = 0; attempt < 100 && std::filesystem::exists(path_); ++attempt) {
      std::error_code ec;
      std::filesystem::remove_all(path_, ec);
    }
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace kelo::bench

#endif  // KELO_BENCH_SCRATCHFOLDER_H_
