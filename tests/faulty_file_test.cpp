#include "tests/faulty_file.h"

#include <gtest/gtest.h>

#include <string>

#include "foundation/errors.h"
#include "tests/chunk_testing.h"
#include "tests/temp_dir.h"

namespace {

// Four writes of 8 bytes at 0, 8, 16, 24 under `plan`; the file starts as
// 32 dots. Answers the file's bytes afterwards.
std::string RunPlan(void (*plan)(TFaultyFile*), std::vector<int>* statuses, std::vector<uint32_t>* counts) {
  TempDir dir;
  std::string path = dir.WriteFile("f.bin", std::string(32, '.'));
  TFaultyFile file;
  EXPECT_EQ(0, file.Open(FileLocOf(path), kFileOpenReadWrite));
  plan(&file);
  for (int i = 0; i < 4; ++i) {
    std::string data(8, static_cast<char>('a' + i));
    uint32_t count = 8;
    statuses->push_back(file.WriteAt(static_cast<uint64_t>(i) * 8, data.data(), &count));
    counts->push_back(count);
  }
  EXPECT_EQ(4, file.WriteCount());
  file.Close();
  Bytes bytes = ReadFileBytes(path);
  return std::string(bytes.begin(), bytes.end());
}

TEST(TFaultyFile, StopsOrShortensTheChosenWrite) {
  std::vector<int> st;
  std::vector<uint32_t> n;
  EXPECT_EQ("aaaaaaaabbbbbbbbccccccccdddddddd", RunPlan([](TFaultyFile* f) { f->CountOnly(); }, &st, &n));
  EXPECT_EQ((std::vector<int>{0, 0, 0, 0}), st);

  st.clear(), n.clear();
  EXPECT_EQ("aaaaaaaabbbbbbbb................", RunPlan([](TFaultyFile* f) { f->StopAfter(2); }, &st, &n));
  EXPECT_EQ((std::vector<int>{0, 0, kErrWriteFault, kErrWriteFault}), st);
  EXPECT_EQ((std::vector<uint32_t>{8, 8, 0, 0}), n);

  st.clear(), n.clear();
  EXPECT_EQ("................................", RunPlan([](TFaultyFile* f) { f->StopAfter(0); }, &st, &n));

  st.clear(), n.clear();
  EXPECT_EQ("aaaaaaaabbbbbbbbcccc............",
            RunPlan([](TFaultyFile* f) { f->WritePrefixOf(3, TFaultyFile::kHalf); }, &st, &n));
  EXPECT_EQ((std::vector<int>{0, 0, kErrWriteFault, kErrWriteFault}), st);
  EXPECT_EQ((std::vector<uint32_t>{8, 8, 4, 0}), n);

  st.clear(), n.clear();
  EXPECT_EQ("a" + std::string(31, '.'), RunPlan([](TFaultyFile* f) { f->WritePrefixOf(1, 1); }, &st, &n));
}

TEST(TFaultyFile, DeadAfterTheFaultAndRecordsCalls) {
  TempDir dir;
  std::string path = dir.WriteFile("f.bin", "0123");
  TFaultyFile file;
  ASSERT_EQ(0, file.Open(FileLocOf(path), kFileOpenReadWrite));
  file.StopAfter(1);
  uint32_t count = 2;
  EXPECT_EQ(0, file.WriteAt(0, "ab", &count));
  EXPECT_EQ(0, file.Sync());
  EXPECT_EQ(0, file.SetLength(3));
  count = 2;
  EXPECT_EQ(kErrWriteFault, file.WriteAt(0, "xy", &count));
  EXPECT_TRUE(file.Faulted());
  EXPECT_EQ(kErrWriteFault, file.Sync());
  EXPECT_EQ(kErrWriteFault, file.SetLength(100));
  ASSERT_EQ(6u, file.Calls().size());
  EXPECT_EQ(TFaultyFile::CallKind::kSync, file.Calls()[1].kind);
  EXPECT_EQ(3u, file.Calls()[2].offset);
  EXPECT_EQ("xy", std::string(file.Calls()[3].bytes.begin(), file.Calls()[3].bytes.end()));
  uint64_t length = 0;
  ASSERT_EQ(0, file.GetLength(&length));
  EXPECT_EQ(3u, length);

  file.CountOnly();
  file.FailSync(true);
  file.FailSetLength(true);
  EXPECT_EQ(kErrWriteFault, file.Sync());
  EXPECT_EQ(kErrWriteFault, file.SetLength(0));
  count = 1;
  EXPECT_EQ(0, file.WriteAt(2, "z", &count));
  file.Close();
  Bytes bytes = ReadFileBytes(path);
  EXPECT_EQ("abz", std::string(bytes.begin(), bytes.end()));
}

}  // namespace
