// Machine-wide named locks, across real processes.
#include "platform/named_lock.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include "pipeline/pisync.h"

namespace {

// A name of this test process alone; its lock file goes with the object.
class UniqueLockName {
 public:
  explicit UniqueLockName(const char* tag)
      : m_name(std::string("plinth-test/") + tag + "/" + std::to_string(::getpid())) {}
  ~UniqueLockName() { ::unlink(platform::NamedLockPath(m_name).c_str()); }
  const char* c_str() const { return m_name.c_str(); }
  const std::string& str() const { return m_name; }

 private:
  std::string m_name;
};

// One byte from `fd` within `ms` milliseconds; 0 when none came.
char ReadByteWithin(int fd, int ms) {
  pollfd p{fd, POLLIN, 0};
  if (::poll(&p, 1, ms) != 1) return 0;
  char c = 0;
  return ::read(fd, &c, 1) == 1 ? c : 0;
}

void WriteByte(int fd, char c) {
  ssize_t n = ::write(fd, &c, 1);
  (void)n;
}

TEST(NamedLockPathTest, DistinctNamesGetDistinctFilesInOneFolder) {
  std::set<std::string> paths;
  const char* names[] = {"a/b", "a_b", "a%2Fb", "a b", "A/B", "", "..", "a\xC3\xA9"};
  for (const char* name : names) {
    std::string path = platform::NamedLockPath(name);
    EXPECT_EQ(path.rfind("/tmp/", 0), 0u) << path;
    EXPECT_EQ(path.find('/', 5), std::string::npos) << path;
    EXPECT_TRUE(paths.insert(path).second) << path;
  }
  // Long names stay within NAME_MAX and still differ by their last byte.
  std::string longA(1000, 'x');
  std::string longB = longA;
  longA += 'a';
  longB += 'b';
  std::string pathA = platform::NamedLockPath(longA);
  std::string pathB = platform::NamedLockPath(longB);
  EXPECT_LT(pathA.size() - 5, 255u);
  EXPECT_NE(pathA, pathB);
}

TEST(NamedLockTest, HeldNameIsBusyForASecondDescriptor) {
  UniqueLockName name("busy");
  int64_t first = -1;
  int64_t second = -1;
  ASSERT_EQ(platform::TryNamedLock(name.str(), &first), 0);
  EXPECT_EQ(platform::TryNamedLock(name.str(), &second), 1);
  EXPECT_EQ(second, -1);
  platform::ReleaseNamedLock(first);
  ASSERT_EQ(platform::TryNamedLock(name.str(), &second), 0);
  platform::ReleaseNamedLock(second);
}

TEST(NamedCriticalSectionTest, SecondProcessWaitsUntilTheHolderReleases) {
  UniqueLockName name("wait");
  int toParent[2];
  int toChild[2];
  ASSERT_EQ(::pipe(toParent), 0);
  ASSERT_EQ(::pipe(toChild), 0);
  // The child is made before the parent locks: a forked child shares the
  // descriptors, and with them the locks, its parent holds.
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (ReadByteWithin(toChild[0], 5000) != 'l') ::_exit(2);
    WriteByte(toParent[1], 'w');
    int childErr = -1;
    TPiNamedCriticalSection mine(name.c_str(), &childErr);
    WriteByte(toParent[1], childErr == 0 ? 'g' : 'e');
    ::_exit(0);
  }
  int err = -1;
  auto held = std::make_unique<TPiNamedCriticalSection>(name.c_str(), &err);
  ASSERT_EQ(err, 0);
  WriteByte(toChild[1], 'l');
  EXPECT_EQ(ReadByteWithin(toParent[0], 5000), 'w');
  // Several retry periods pass without the child getting in.
  EXPECT_EQ(ReadByteWithin(toParent[0], 350), 0);
  held.reset();
  EXPECT_EQ(ReadByteWithin(toParent[0], 5000), 'g');
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  for (int fd : {toParent[0], toParent[1], toChild[0], toChild[1]}) ::close(fd);
}

TEST(NamedCriticalSectionTest, KilledHolderLeavesTheNameFree) {
  UniqueLockName name("killed");
  int toParent[2];
  ASSERT_EQ(::pipe(toParent), 0);
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    int childErr = -1;
    TPiNamedCriticalSection mine(name.c_str(), &childErr);
    WriteByte(toParent[1], childErr == 0 ? 'h' : 'e');
    for (;;) ::pause();
  }
  ASSERT_EQ(ReadByteWithin(toParent[0], 5000), 'h');
  int64_t probe = -1;
  EXPECT_EQ(platform::TryNamedLock(name.str(), &probe), 1);
  ::kill(child, SIGKILL);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status));
  // Free at the first attempt, without waiting for a retry.
  ASSERT_EQ(platform::TryNamedLock(name.str(), &probe), 0);
  platform::ReleaseNamedLock(probe);
  int err = -1;
  TPiNamedCriticalSection mine(name.c_str(), &err);
  EXPECT_EQ(err, 0);
  ::close(toParent[0]);
  ::close(toParent[1]);
}

TEST(NamedCriticalSectionThreaded, ExcludesWithinOneProcess) {
  UniqueLockName name("thread");
  int err = -1;
  auto held = std::make_unique<TPiNamedCriticalSection>(name.c_str(), &err);
  ASSERT_EQ(err, 0);
  std::atomic<bool> entered{false};
  std::thread other([&] {
    int otherErr = -1;
    TPiNamedCriticalSection mine(name.c_str(), &otherErr);
    entered.store(otherErr == 0);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  EXPECT_FALSE(entered.load());
  held.reset();
  other.join();
  EXPECT_TRUE(entered.load());
}

}  // namespace
