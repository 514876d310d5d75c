// The file layer's own edges: the size limit to the byte, the window of lastLines, a write
// that the disk cuts short and a replacement that fails. Hostile forms of every file are in
// tests/reliability/Hostile_test.cpp.
#include "platform/SafeFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/Facts.h"
#include "tests/support/FaultyFileSystem.h"
#include "tests/support/Sandbox.h"

namespace kelo::platform {
namespace {

using test::FaultyFileSystem;
using test::Sandbox;

TEST(SafeFile, ReadsToTheLimitShowsWholeLastLinesAndFailedWritesLeaveNothingBehind) {
  Sandbox sandbox;
  auto files = std::make_shared<FaultyFileSystem>();
  Overrides o;
  o.fileSystem = files;
  sandbox.install(std::move(o));
  const std::string path = sandbox.homePath() + "/f";

  Sandbox::writeFile(path, std::string(100, 'a'));
  EXPECT_TRUE(readFile(path, 100).ok);
  EXPECT_EQ(readFile(path, 100).data.size(), 100u);
  const ReadResult over = readFile(path, 99);
  EXPECT_FALSE(over.ok);
  EXPECT_FALSE(over.missing);
  EXPECT_EQ(over.error, path + ": is larger than 99 bytes");
  EXPECT_TRUE(readFile(path + "-none", 99).missing);

  // Lines cut by the start of the window are not shown; a last line without a newline is.
  Sandbox::writeFile(path, "one\ntwo\nthree\nfour");
  std::vector<std::string> lines;
  ASSERT_TRUE(lastLines(path, 2, 1000, &lines).ok);
  EXPECT_EQ(lines, (std::vector<std::string>{"three", "four"}));
  ASSERT_TRUE(lastLines(path, 10, 12, &lines).ok);  // "wo\nthree\nfour"
  EXPECT_EQ(lines, (std::vector<std::string>{"three", "four"}));

  // A disk that fills one byte before the end fails the write; the caller learns it.
  std::string error;
  const int fd = openForAppend(path + "-log", 0644, Owner::kSelf, &error);
  ASSERT_GE(fd, 0) << error;
  files->fail(FaultyFileSystem::Op::kWrite, ENOSPC, "-log", 9);
  EXPECT_FALSE(writeAll(fd, "0123456789", 10));
  files->heal();
  EXPECT_TRUE(writeAll(fd, "0123456789", 10));
  fileSystem().close(fd);
  EXPECT_EQ(Sandbox::readFile(path + "-log"), "0123456780123456789");

  // A replacement that cannot be renamed into place leaves the old file and no temporary one.
  const std::string folder = sandbox.homePath() + "/folder";
  Sandbox::writeFile(folder + "/kept", "old");
  files->fail(FaultyFileSystem::Op::kRename, EIO, "kept");
  EXPECT_NE(replaceFile(folder + "/kept", "new", 0644), "");
  files->heal();
  EXPECT_EQ(listFolder(folder), std::vector<std::string>{"kept"});
  EXPECT_EQ(Sandbox::readFile(folder + "/kept"), "old");
}

}  // namespace
}  // namespace kelo::platform
