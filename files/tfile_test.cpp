#include "files/tfile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "files/tfileloc.h"
#include "files/tfolderloc.h"
#include "foundation/errors.h"
#include "foundation/tstring.h"
#include "tests/temp_dir.h"
#include "tests/test_host.h"

namespace {

class TFileTest : public ::testing::Test {
 protected:
  TFileLoc Loc(const std::string& name) const {
    return TFileLoc(TFolderLoc(TStringFromUTF8(m_dir.path())), TStringFromUTF8(name));
  }
  std::string Slurp(const std::string& name) const {
    std::ifstream in(m_dir.path() + "/" + name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  TempDir m_dir;
};

// Random positioned writes and reads against a byte vector holding what the
// file should contain; reads past the end must stop where the model ends.
TEST_F(TFileTest, RandomTransfersMatchModel) {
  TFile file;
  ASSERT_EQ(file.Open(Loc("model.bin"), kFileOpenReadWriteCreate), 0);
  std::vector<unsigned char> model;
  std::mt19937 rng(20);
  for (int step = 0; step < 400; ++step) {
    uint64_t offset = rng() % 70000;
    uint32_t size = rng() % 5000;
    if (rng() % 2 == 0) {
      std::vector<unsigned char> data(size);
      for (auto& b : data) b = static_cast<unsigned char>(rng());
      uint32_t count = size;
      ASSERT_EQ(file.WriteAt(offset, data.data(), &count), 0);
      ASSERT_EQ(count, size);
      if (size != 0 && model.size() < offset + size) model.resize(offset + size);
      std::copy(data.begin(), data.end(), model.begin() + static_cast<long>(offset));
    } else {
      std::vector<unsigned char> data(size + 1, 0xEE);
      uint32_t count = size;
      int code = file.ReadAt(offset, data.data(), &count);
      uint64_t available = offset < model.size() ? model.size() - offset : 0;
      uint32_t expected = static_cast<uint32_t>(std::min<uint64_t>(available, size));
      ASSERT_EQ(count, expected);
      ASSERT_EQ(code, expected < size ? kErrEndOfFile : 0);
      if (count != 0) {
        ASSERT_EQ(0, std::memcmp(data.data(), model.data() + offset, count));
      }
      ASSERT_EQ(data[count], 0xEE) << "read beyond the count";
    }
    uint64_t length = 0;
    ASSERT_EQ(file.GetLength(&length), 0);
    ASSERT_EQ(length, model.size());
  }
  ASSERT_EQ(file.Close(), 0);
  std::string disk = Slurp("model.bin");
  EXPECT_TRUE(disk == std::string(model.begin(), model.end()));
}

TEST_F(TFileTest, SequentialPositionAndShortRead) {
  TFile file;
  ASSERT_EQ(file.Open(Loc("seq.bin"), kFileOpenReadWriteCreate), 0);
  uint32_t count = 5;
  ASSERT_EQ(file.Write("hello", &count), 0);
  ASSERT_EQ(file.WriteString(TString(u" w\u00f6rld")), 0);
  EXPECT_EQ(file.GetPosition(), 12u);
  file.SetPosition(3);
  char buf[32] = {};
  count = 32;
  EXPECT_EQ(file.Read(buf, &count), kErrEndOfFile);
  EXPECT_EQ(count, 9u);
  EXPECT_EQ(std::string(buf, count), "lo w\xC3\xB6rld");
  EXPECT_EQ(file.GetPosition(), 12u);
  count = 4;
  EXPECT_EQ(file.Read(buf, &count), kErrEndOfFile);
  EXPECT_EQ(count, 0u);
  // Truncate, then extend with zeros; the position is left alone.
  ASSERT_EQ(file.SetLength(2), 0);
  ASSERT_EQ(file.SetLength(6), 0);
  EXPECT_EQ(file.GetPosition(), 12u);
  ASSERT_EQ(file.Flush(), 0);
  ASSERT_EQ(file.Sync(), 0);
  ASSERT_EQ(file.Close(), 0);
  EXPECT_EQ(Slurp("seq.bin"), std::string("he\0\0\0\0", 6));
}

TEST_F(TFileTest, SparseOffsetsBeyondFourGiB) {
  TFile file;
  ASSERT_EQ(file.Open(Loc("sparse.bin"), kFileOpenReadWriteCreate), 0);
  const uint64_t far = (uint64_t{5} << 30) + 12345;
  uint32_t count = 8;
  ASSERT_EQ(file.WriteAt(far, "ABCDEFGH", &count), 0);
  uint64_t length = 0;
  ASSERT_EQ(file.GetLength(&length), 0);
  EXPECT_EQ(length, far + 8);
  char buf[16] = {};
  count = 16;
  EXPECT_EQ(file.ReadAt(far - 4, buf, &count), kErrEndOfFile);
  EXPECT_EQ(count, 12u);
  EXPECT_EQ(std::string(buf, count), std::string("\0\0\0\0ABCDEFGH", 12));
  ASSERT_EQ(file.SetLength(far + 2), 0);
  ASSERT_EQ(file.GetLength(&length), 0);
  EXPECT_EQ(length, far + 2);
  struct stat info;
  ASSERT_EQ(::stat((m_dir.path() + "/sparse.bin").c_str(), &info), 0);
  EXPECT_EQ(static_cast<uint64_t>(info.st_size), far + 2);
}

TEST_F(TFileTest, FailuresAreMappedAndLoggedOnce) {
  TestHost host;
  TFile file;
  EXPECT_EQ(file.Open(Loc("missing.bin"), kFileOpenRead), kErrNotFound);
  EXPECT_FALSE(file.IsOpen());
  auto lines = host.LinesWithFormat("TFile::Open: cannot open <%s>, %E");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].selector, 514u);
  EXPECT_NE(lines[0].text.find("missing.bin"), std::string::npos);

  // A folder is not a file, read-only or not.
  TFileLoc folder(TFolderLoc(TStringFromUTF8(m_dir.path())), TString(u"sub"));
  ASSERT_EQ(TFolderLoc(folder.GetFullPath()).Create(), 0);
  EXPECT_EQ(TFolderLoc(folder.GetFullPath()).Create(), kErrAlreadyExists);
  EXPECT_TRUE(TFolderLoc(folder.GetFullPath()).Exists());
  EXPECT_EQ(file.Open(folder, kFileOpenRead), kErrBadName);
  EXPECT_EQ(file.Open(folder, kFileOpenReadWrite), kErrBadName);
  EXPECT_FALSE(folder.Exists());

  // Writing through a read-only open is refused by the system.
  m_dir.WriteFile("ro.bin", "data");
  ASSERT_EQ(file.Open(Loc("ro.bin"), kFileOpenRead), 0);
  EXPECT_FALSE(file.IsWritable());
  host.Clear();
  uint32_t count = 3;
  EXPECT_EQ(file.WriteAt(0, "xyz", &count), kErrInvalidHandle);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(host.LinesWithFormat("TFile::Write: cannot write <%s>, %E").size(), 1u);
  EXPECT_EQ(file.SetLength(0), kErrInvalidHandle);
  EXPECT_EQ(Slurp("ro.bin"), "data");

  EXPECT_EQ(file.Open(Loc("ro.bin"), kFileOpenCreateNew), kErrAlreadyExists);

  // Operations on a closed file.
  ASSERT_EQ(file.Close(), 0);
  host.Clear();
  count = 1;
  char c;
  EXPECT_EQ(file.Read(&c, &count), kErrInvalidHandle);
  EXPECT_EQ(count, 0u);
  uint64_t length = 7;
  EXPECT_EQ(file.GetLength(&length), kErrInvalidHandle);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(host.LinesWithFormat("TFile::Read: no file open, %E").size(), 1u);
  EXPECT_EQ(host.LinesWithFormat("TFile::GetLength: no file open, %E").size(), 1u);
}

// A device that is always full: the write fails with ENOSPC, mapped and
// counted as nothing written.
TEST_F(TFileTest, FullDeviceGivesDiskFull) {
  TFile file;
  TFileLoc full(TString(u"/dev/full"));
  if (file.Open(full, kFileOpenReadWrite) != 0) GTEST_SKIP() << "no /dev/full here";
  TestHost host;
  uint32_t count = 4;
  EXPECT_EQ(file.Write("full", &count), kErrDiskFull);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(file.GetPosition(), 0u);
  auto lines = host.LinesWithFormat("TFile::Write: cannot write <%s>, %E");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].text.find("/dev/full"), std::string::npos);
}

TEST_F(TFileTest, LocationsExistRemoveAndCopy) {
  TFileLoc loc = Loc("x.txt");
  EXPECT_FALSE(loc.Exists());
  EXPECT_EQ(loc.Remove(), kErrNotFound);
  m_dir.WriteFile("x.txt", "1");
  EXPECT_TRUE(loc.Exists());
  TFileLoc copy;
  copy.Copy(loc);
  EXPECT_TRUE(copy == loc);
  EXPECT_EQ(TStringAsString(copy.GetFullPath()), m_dir.path() + "/x.txt");
  EXPECT_EQ(copy.Remove(), 0);
  EXPECT_FALSE(loc.Exists());
  EXPECT_FALSE(TFileLoc().Exists());
  EXPECT_EQ(TFileLoc().Remove(), kErrBadName);
}

TEST_F(TFileTest, UnicodeNamesAreUtf8OnDisk) {
  TFile file;
  ASSERT_EQ(file.Open(Loc("\xC3\xA9t\xC3\xA9-\xE6\x97\xA5.bin"), kFileOpenCreateNew), 0);
  ASSERT_EQ(file.Close(), 0);
  struct stat info;
  EXPECT_EQ(::stat((m_dir.path() + "/\xC3\xA9t\xC3\xA9-\xE6\x97\xA5.bin").c_str(), &info), 0);
}

// Locks belong to one open: a second open of the same file in this process
// sees the first one's lock.
TEST_F(TFileTest, WriteLockSeenAcrossOpens) {
  m_dir.WriteFile("lock.bin", "x");
  TFileLoc loc = Loc("lock.bin");
  bool locked = true;
  ASSERT_EQ(loc.IsWriteLocked(&locked), 0);
  EXPECT_FALSE(locked);
  TFile first;
  TFile second;
  ASSERT_EQ(first.Open(loc, kFileOpenReadWrite), 0);
  ASSERT_EQ(second.Open(loc, kFileOpenReadWrite), 0);
  ASSERT_EQ(first.LockWrite(), 0);
  ASSERT_EQ(loc.IsWriteLocked(&locked), 0);
  EXPECT_TRUE(locked);
  TestHost host;
  EXPECT_EQ(second.LockWrite(), kErrLockViolation);
  EXPECT_EQ(host.LinesWithFormat("TFile::LockWrite: cannot lock <%s>, %E").size(), 1u);
  ASSERT_EQ(first.Unlock(), 0);
  ASSERT_EQ(loc.IsWriteLocked(&locked), 0);
  EXPECT_FALSE(locked);
  ASSERT_EQ(second.LockWrite(), 0);
  // Closing drops the lock.
  ASSERT_EQ(second.Close(), 0);
  ASSERT_EQ(loc.IsWriteLocked(&locked), 0);
  EXPECT_FALSE(locked);
  EXPECT_EQ(first.LockWrite(), 0);
  ASSERT_EQ(Loc("none.bin").IsWriteLocked(&locked), 0);
  EXPECT_FALSE(locked);
}

}  // namespace
