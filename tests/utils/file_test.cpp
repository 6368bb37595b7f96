// File helpers and the inter-process file lock.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>


#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/utils/test_support.h"
#include "utils/file.h"

namespace {

using testing_support::OpenDescriptorCount;
using testing_support::ReadFile;
using testing_support::ScratchDir;

TEST(FileHelpers, CreateDirectoryMakesEveryLevel) {
  ScratchDir dir;
  const std::string deep = dir / "a/b/c";
  EXPECT_TRUE(CreateDirectory(deep));
  EXPECT_TRUE(IsDirectoryExist(deep));
  EXPECT_TRUE(CreateDirectory(deep));
  // Blanks around components and doubled slashes are tolerated.
  EXPECT_TRUE(CreateDirectory(dir.path() + "//a/ d /"));
  EXPECT_TRUE(IsDirectoryExist(dir / "a/d"));

  // A relative path is taken from the root, wherever the process stands.
  const std::string relative = dir.path().substr(1) + "/rel/x";
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
  ASSERT_EQ(chdir(dir.path().c_str()), 0);
  EXPECT_TRUE(CreateDirectory(relative));
  ASSERT_EQ(chdir(cwd), 0);
  EXPECT_TRUE(IsDirectoryExist(dir / "rel/x"));

  // A regular file in the way stops it.
  ASSERT_TRUE(WriteTextFile(dir.path(), "blocker", "x", false));
  EXPECT_FALSE(CreateDirectory(dir / "blocker/sub"));
  EXPECT_FALSE(IsDirectoryExist(dir / "blocker/sub"));
}

TEST(FileHelpers, WriteTextFileTruncatesOrAppends) {
  ScratchDir dir;
  const std::string sub = dir / "new/level";
  ASSERT_TRUE(WriteTextFile(sub, "vdev0.conf", "first line\nsecond\n", false));
  EXPECT_EQ(ReadFile(sub + "/vdev0.conf"), "first line\nsecond\n");
  ASSERT_TRUE(WriteTextFile(sub, "vdev0.conf", "short\n", false));
  EXPECT_EQ(ReadFile(sub + "/vdev0.conf"), "short\n");
  ASSERT_TRUE(WriteTextFile(sub, "vdev0.conf", "more\n", true));
  EXPECT_EQ(ReadFile(sub + "/vdev0.conf"), "short\nmore\n");

  const std::string binary("a\0b", 3);
  ASSERT_TRUE(WriteTextFile(sub, "bin", binary, false));
  EXPECT_EQ(ReadFile(sub + "/bin"), binary);

  // Each refusal leaves errno saying why.
  EXPECT_FALSE(WriteTextFile("", "x", "y", false));
  EXPECT_EQ(errno, EINVAL);
  EXPECT_FALSE(WriteTextFile(sub, "", "y", false));
  ASSERT_EQ(mkdir((sub + "/taken").c_str(), 0755), 0);
  EXPECT_FALSE(WriteTextFile(sub, "taken", "y", false));  // a directory stands there
  EXPECT_EQ(errno, EISDIR);
  ASSERT_TRUE(WriteTextFile(dir.path(), "plain", "", false));
  EXPECT_FALSE(WriteTextFile(dir / "plain", "under_a_file", "y", false));
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_FALSE(ReplaceTextFile(dir / "plain", "under_a_file", "y"));
  EXPECT_EQ(errno, ENOTDIR);
}

TEST(FileHelpers, WriteTextFileReportsAFullDevice) {
  // /dev/full fails every write with ENOSPC; the helper must not call that success.
  if (!IsFileExist("/dev/full")) GTEST_SKIP() << "no /dev/full";
  EXPECT_FALSE(WriteTextFile("/dev", "full", std::string(100000, 'x'), false));
  EXPECT_EQ(errno, ENOSPC);  // the write's failure, not the sync's that follows it
}

TEST(FileHelpers, ForEachLineVisitsLinesUntilToldToStop) {
  ScratchDir dir;
  const std::string long_line(10000, 'L');
  ASSERT_TRUE(WriteTextFile(dir.path(), "lines", "one\n\n" + long_line + "\nlast", false));
  std::vector<std::string> seen;
  ASSERT_TRUE(ForEachLine(dir / "lines", [&](const std::string& line) {
    seen.push_back(line);
    return true;
  }));
  EXPECT_EQ(seen, (std::vector<std::string>{"one", "", long_line, "last"}));

  seen.clear();
  ASSERT_TRUE(ForEachLine(dir / "lines", [&](const std::string& line) {
    seen.push_back(line);
    return seen.size() < 2;
  }));
  EXPECT_EQ(seen.size(), 2u);
  EXPECT_FALSE(ForEachLine(dir / "missing", [](const std::string&) { return true; }));

  // A visitor that throws leaves neither the stream nor the line buffer behind (the
  // sanitizer build reports the buffer as a leak).
  const int descriptors = OpenDescriptorCount();
  EXPECT_THROW(ForEachLine(dir / "lines",
                           [](const std::string& line) -> bool { throw std::runtime_error(line); }),
               std::runtime_error);
  EXPECT_EQ(OpenDescriptorCount(), descriptors);
}

TEST(FileHelpers, ReadsTheHeadOfASmallFile) {
  ScratchDir dir;
  ASSERT_TRUE(WriteTextFile(dir.path(), "f", std::string(10000, 'x') + "y", false));
  std::string text = "stale";
  ASSERT_TRUE(ReadSmallFile(dir / "f", text));
  EXPECT_EQ(text, std::string(10000, 'x') + "y");
  ASSERT_TRUE(ReadSmallFile(dir / "f", text, 4095));
  EXPECT_EQ(text, std::string(4095, 'x'));
  EXPECT_FALSE(ReadSmallFile(dir / "missing", text));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(text, "");
  EXPECT_FALSE(ReadSmallFile(dir.path(), text));
  EXPECT_EQ(errno, EISDIR);
}

TEST(FileHelpers, ListsDirectoryEntries) {
  ScratchDir dir;
  ASSERT_TRUE(WriteTextFile(dir.path(), "vdev1.conf", "", false));
  ASSERT_TRUE(WriteTextFile(dir.path(), "vdev2.conf", "", false));
  ASSERT_TRUE(CreateDirectory(dir / "docker"));
  std::vector<std::string> names{"kept"};
  ASSERT_TRUE(GetFileNamesInDirectory(dir.path(), names));
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"docker", "kept", "vdev1.conf", "vdev2.conf"}));

  std::vector<std::string> none;
  EXPECT_FALSE(GetFileNamesInDirectory(dir / "missing", none));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(GetFileNamesInDirectory(dir / "vdev1.conf", none));
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_TRUE(none.empty());
}

// Runs body in a child process and returns its exit status (or -1 when it did not exit).
template <typename Body>
int InChild(Body body) {
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

enum ChildResult { kLocked = 10, kLockFail = 11, kLockError = 12, kOtherError = 13 };

int TryLock(const std::string& path, int type, bool non_blocking) {
  try {
    FileLocker lock(path, type, non_blocking);
    return kLocked;
  } catch (const FileLocker::AquireLockFail&) {
    return kLockFail;
  } catch (const FileLocker::AquireLockError&) {
    return kLockError;
  } catch (...) {
    return kOtherError;
  }
}

TEST(FileLocker, ExcludesOtherProcesses) {
  ScratchDir dir;
  const std::string path = dir / "lock";
  {
    FileLocker held(path, FileLocker::kExclusive, false);
    EXPECT_EQ(InChild([&] { return TryLock(path, FileLocker::kExclusive, true); }), kLockFail);
    EXPECT_EQ(InChild([&] { return TryLock(path, FileLocker::kShared, true); }), kLockFail);
  }
  EXPECT_EQ(InChild([&] { return TryLock(path, FileLocker::kExclusive, true); }), kLocked);

  // Shared holders coexist; a lone holder raises its lock to exclusive.
  FileLocker mine(path, FileLocker::kShared, false);
  EXPECT_EQ(InChild([&] { return TryLock(path, FileLocker::kShared, true); }), kLocked);
  mine.ChangeLockType(FileLocker::kExclusive, true);
  EXPECT_EQ(mine.LockStatus(), FileLocker::kExclusive);
  EXPECT_EQ(InChild([&] { return TryLock(path, FileLocker::kShared, true); }), kLockFail);
  mine.Unlock();
  EXPECT_EQ(InChild([&] { return TryLock(path, FileLocker::kExclusive, true); }), kLocked);
}

// flock gives the old lock up before it asks for the new one: after a refused upgrade the
// object must not claim a lock it lost, and asking for a shared lock again must take one.
TEST(FileLocker, ARefusedUpgradeHoldsNothing) {
  ScratchDir dir;
  const std::string path = dir / "lock";
  FileLocker mine(path, FileLocker::kShared, false);
  int ready[2], release[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(release), 0);
  const pid_t holder = fork();
  if (holder == 0) {
    FileLocker theirs(path, FileLocker::kShared, false);
    char c = 1;
    if (write(ready[1], &c, 1) != 1) _exit(1);
    if (read(release[0], &c, 1) != 1) _exit(1);
    _exit(0);
  }
  char c;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  try {
    mine.ChangeLockType(FileLocker::kExclusive, true);
    ADD_FAILURE() << "exclusive lock granted while another process shares it";
  } catch (const FileLocker::AquireLockFail& e) {
    EXPECT_EQ(std::string(e.what()),
              "the lock on file " + path + " has been already aquired by another process");
  }
  EXPECT_EQ(mine.LockStatus(), -1);
  ASSERT_EQ(write(release[1], &c, 1), 1);
  int status;
  ASSERT_EQ(waitpid(holder, &status, 0), holder);
  // Nothing is held: another process gets the file exclusively.
  EXPECT_EQ(InChild([&] { return TryLock(path, FileLocker::kExclusive, true); }), kLocked);

  mine.ChangeLockType(FileLocker::kShared, false);
  EXPECT_EQ(mine.LockStatus(), FileLocker::kShared);
  EXPECT_EQ(InChild([&] { return TryLock(path, FileLocker::kExclusive, true); }), kLockFail);
  for (int fd : {ready[0], ready[1], release[0], release[1]}) close(fd);
}

// The lock file lives in a directory every user can write. Whatever was planted at its
// path, a root process must neither create nor change a file elsewhere through it.
TEST(FileLocker, RefusesLinksAndFilesThatAreNotRegular) {
  ScratchDir dir;
  const std::string target = dir / "precious";
  const std::string planted = dir / "lock";

  ASSERT_EQ(symlink(target.c_str(), planted.c_str()), 0);  // dangling
  EXPECT_THROW(FileLocker(planted, FileLocker::kShared, false), FileLocker::OpenLockFileError);
  EXPECT_FALSE(IsFileExist(target)) << "the link's target was created";

  ASSERT_TRUE(WriteTextFile(dir.path(), "precious", "keep me", false));
  ASSERT_EQ(chmod(target.c_str(), 0600), 0);
  try {
    FileLocker lock(planted, FileLocker::kExclusive, false);
    ADD_FAILURE() << "a link to a file was accepted as the lock file";
  } catch (const FileLocker::OpenLockFileError& e) {
    EXPECT_EQ(std::string(e.what()), "\033[31merror\033[0m while open lock file " + planted +
                                         ". " + std::to_string(ELOOP) + ":" + strerror(ELOOP));
  }
  EXPECT_EQ(ReadFile(target), "keep me");
  struct stat st;
  ASSERT_EQ(stat(target.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  ASSERT_EQ(unlink(planted.c_str()), 0);
  ASSERT_EQ(mkfifo(planted.c_str(), 0666), 0);
  const int descriptors = OpenDescriptorCount();
  EXPECT_THROW(FileLocker(planted, FileLocker::kShared, false), FileLocker::OpenLockFileError);
  EXPECT_EQ(OpenDescriptorCount(), descriptors);
  ASSERT_EQ(unlink(planted.c_str()), 0);
  ASSERT_TRUE(CreateDirectory(planted));
  EXPECT_THROW(FileLocker(planted, FileLocker::kShared, false), FileLocker::OpenLockFileError);
}

TEST(FileLocker, OpenFailuresThrowAndLeakNothing) {
  ScratchDir dir;
  const int before = OpenDescriptorCount();
  const std::string path = dir / "missing-dir/lock";
  try {
    FileLocker lock(path, FileLocker::kShared, false);
    FAIL() << "a lock file in a missing directory was opened";
  } catch (const FileLocker::OpenLockFileError& e) {
    EXPECT_EQ(std::string(e.what()), "\033[31merror\033[0m while create lock file " + path +
                                         ". " + std::to_string(ENOENT) + ":" + strerror(ENOENT));
  }
  {
    FileLocker lock(dir / "lock", FileLocker::kShared, false);
    FileLocker again(dir / "lock", FileLocker::kShared, false);  // the file now exists
    EXPECT_FALSE(lock == again);  // different descriptors
    EXPECT_TRUE(lock == lock);
  }
  EXPECT_EQ(OpenDescriptorCount(), before);
}

}  // namespace
