#include "storage/chunk_writer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "files/tfileloc.h"
#include "files/tfolderloc.h"
#include "foundation/errors.h"
#include "storage/chunk_manager.h"
#include "tests/chunk_image.h"
#include "tests/temp_dir.h"
#include "tests/test_host.h"

namespace {

namespace ci = chunk_image;

// A file whose n-th write, sync or length change fails with kErrNoResources.
class TFailingFile : public TFile {
 public:
  int failWrite = -1;
  int failSync = -1;
  int failSetLength = -1;
  int writes = 0;
  int syncs = 0;
  int setLengths = 0;

  int WriteAt(uint64_t offset, const void* buffer, uint32_t* count) override {
    if (writes++ == failWrite) {
      *count = 0;
      return kErrNoResources;
    }
    return TFile::WriteAt(offset, buffer, count);
  }
  int Sync() override { return syncs++ == failSync ? kErrNoResources : TFile::Sync(); }
  int SetLength(uint64_t length) override {
    return setLengths++ == failSetLength ? kErrNoResources : TFile::SetLength(length);
  }
};

class ChunkWriterTest : public ::testing::Test {
 protected:
  TFileLoc Loc(const std::string& name) const {
    return TFileLoc(TFolderLoc(TStringFromUTF8(m_dir.path())), TStringFromUTF8(name));
  }
  std::string Path(const std::string& name) const { return m_dir.path() + "/" + name; }

  TempDir m_dir;
  TestHost m_host;
};

CHChunkHdrSpec HeaderOf(const ci::Chunk& c) {
  CHChunkHdrSpec h{};
  h.type = c.type;
  h.id = c.id;
  h.length = c.data.size();
  h.generation = c.generation;
  h.extra = c.extra;
  h.flags = c.flags;
  h.checksum = c.checksum;
  return h;
}

uint32_t MarkerOnDisk(const std::string& path) {
  ci::Bytes bytes = ci::ReadFile(path);
  return bytes.size() < 36 ? 0 : static_cast<uint32_t>(ci::Get(bytes, 32, 4));
}

// The writer's bytes equal, byte for byte, a container laid out from the
// documented offsets by an independent builder, in both generations, and
// the independent parser finds every chunk and a well organised map.
TEST_F(ChunkWriterTest, BytesMatchIndependentLayout) {
  int round = 0;
  for (bool is0100 : {false, true}) {
    for (size_t count : {1, 2, 5, 17, 60}) {
      std::vector<ci::Chunk> chunks = ci::RandomChunks(515 + round, count);
      uint64_t generation = 3 + round * 7;
      uint32_t encryption = round % 2 == 0 ? 0 : kCHEncryptionMarker;
      std::string name = "w" + std::to_string(round++);
      TFile file;
      ASSERT_EQ(0, file.Open(Loc(name), kFileOpenReadWriteCreate));
      TCHSequentialWriter writer(&file, is0100, encryption, generation);
      ASSERT_EQ(0, writer.Begin());
      for (const ci::Chunk& c : chunks) ASSERT_EQ(0, writer.AddChunk(HeaderOf(c), c.data.data()));
      EXPECT_EQ(chunks.size(), writer.GetChunkCount());
      ASSERT_EQ(0, writer.Finish(kCHSaveNoSync));
      ASSERT_EQ(0, file.Close());

      ci::Bytes got = ci::ReadFile(Path(name));
      ci::Options options;
      options.is0100 = is0100;
      options.mapGeneration = generation;
      options.encryption = encryption;
      std::vector<ci::Chunk> model = chunks;
      ci::Bytes want = ci::Build(&model, options);
      ASSERT_EQ(want.size(), got.size()) << name;
      EXPECT_TRUE(want == got) << name;
      EXPECT_EQ(writer.GetNextAddress(), got.size());

      ci::Parsed parsed = ci::Parse(got);
      ASSERT_EQ("", parsed.error) << name;
      EXPECT_EQ(is0100, parsed.is0100);
      EXPECT_EQ(0u, parsed.unsaved);
      EXPECT_EQ(encryption, parsed.encryption);
      EXPECT_EQ(generation, parsed.mapGeneration);
      ASSERT_EQ(chunks.size(), parsed.chunks.size());
      for (const ci::Chunk& p : parsed.chunks) {
        const ci::Chunk* original = nullptr;
        for (const ci::Chunk& c : chunks) {
          if (c.type == p.type && c.id == p.id) original = &c;
        }
        ASSERT_NE(nullptr, original);
        EXPECT_EQ(original->data, p.data);
        EXPECT_EQ(original->generation, p.generation);
        EXPECT_EQ(original->extra, p.extra);
        EXPECT_EQ(original->flags, p.flags);
      }
    }
  }
}

TEST_F(ChunkWriterTest, EmptyContainerHasNoMap) {
  TFile file;
  ASSERT_EQ(0, file.Open(Loc("empty"), kFileOpenReadWriteCreate));
  TCHSequentialWriter writer(&file, false, 0, 9);
  ASSERT_EQ(0, writer.Begin());
  ASSERT_EQ(0, writer.Finish(0));
  file.Close();
  ci::Bytes got = ci::ReadFile(Path("empty"));
  std::vector<ci::Chunk> none;
  EXPECT_TRUE(ci::Build(&none, ci::Options()) == got);
  ci::Parsed parsed = ci::Parse(got);
  EXPECT_EQ("", parsed.error);
  EXPECT_EQ(0u, parsed.mapAddress);
  EXPECT_EQ(512u, parsed.endOfSpace);
}

// The marker is on disk from Begin until the final header is synced; the
// syncs are left out only when asked, and the bytes are the same either way.
TEST_F(ChunkWriterTest, UnsavedMarkerAndSyncs) {
  std::vector<ci::Chunk> chunks = ci::RandomChunks(7, 6);
  ci::Bytes results[2];
  for (int flags : {0, kCHSaveNoSync}) {
    std::string name = "m" + std::to_string(flags);
    TFailingFile file;
    ASSERT_EQ(0, file.Open(Loc(name), kFileOpenReadWriteCreate));
    TCHSequentialWriter writer(&file, false, 0, 2);
    ASSERT_EQ(0, writer.Begin());
    EXPECT_EQ(kCHUnsavedMarker, MarkerOnDisk(Path(name)));
    for (const ci::Chunk& c : chunks) {
      ASSERT_EQ(0, writer.AddChunk(HeaderOf(c), c.data.data()));
      EXPECT_EQ(kCHUnsavedMarker, MarkerOnDisk(Path(name)));
    }
    ASSERT_EQ(0, writer.Finish(flags));
    EXPECT_EQ(0u, MarkerOnDisk(Path(name)));
    EXPECT_EQ(flags == 0 ? 2 : 0, file.syncs);
    file.Close();
    results[flags] = ci::ReadFile(Path(name));
  }
  EXPECT_TRUE(results[0] == results[1]);
}

TEST_F(ChunkWriterTest, RefusalsLeaveTheFileAlone) {
  std::vector<ci::Chunk> chunks = ci::RandomChunks(11, 4);
  TFile file;
  ASSERT_EQ(0, file.Open(Loc("r"), kFileOpenReadWriteCreate));
  TCHSequentialWriter writer(&file, false, 0, 1);
  EXPECT_EQ(kErrBadParameter, writer.AddChunk(HeaderOf(chunks[0]), chunks[0].data.data()));
  EXPECT_EQ(kErrBadParameter, writer.Finish(0));
  ASSERT_EQ(0, writer.Begin());
  EXPECT_EQ(kErrBadParameter, writer.Begin());
  for (const ci::Chunk& c : chunks) ASSERT_EQ(0, writer.AddChunk(HeaderOf(c), c.data.data()));

  uint64_t before = 0;
  file.GetLength(&before);
  m_host.Clear();
  ci::Chunk again = chunks[2];
  again.data.assign(40, 0x5A);
  EXPECT_EQ(kErrCHDuplicate, writer.AddChunk(HeaderOf(again), again.data.data()));
  auto lines = m_host.LinesWithFormat("TCHSequentialWriter::AddChunk: duplicate ID, type 0x%X, id = %~lu, %E");
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(517u, lines[0].selector);
  for (uint32_t reserved : {kCHFreeType, kCHMapType, 0x80000000u, 0xFFFFFFFEu}) {
    ci::Chunk c;
    c.type = reserved;
    c.id = 1;
    EXPECT_EQ(kErrBadParameter, writer.AddChunk(HeaderOf(c), nullptr));
  }
  ci::Chunk missing;
  missing.type = 5;
  missing.data.resize(10);
  CHChunkHdrSpec h = HeaderOf(missing);
  EXPECT_EQ(kErrBadParameter, writer.AddChunk(h, nullptr));
  h.length = 0x80000000u;
  EXPECT_EQ(kErrBadParameter, writer.AddChunk(h, missing.data.data()));
  uint64_t after = 0;
  file.GetLength(&after);
  EXPECT_EQ(before, after);

  ASSERT_EQ(0, writer.Finish(kCHSaveNoSync));
  EXPECT_EQ(kErrBadParameter, writer.AddChunk(HeaderOf(missing), missing.data.data()));
  EXPECT_EQ(kErrBadParameter, writer.Finish(0));
  file.Close();
  ci::Bytes got = ci::ReadFile(Path("r"));
  EXPECT_TRUE(ci::Build(&chunks, ci::Options()) == got);

  // A target that is not empty, or not writable, is refused untouched.
  ASSERT_EQ(0, file.Open(Loc("r"), kFileOpenReadWrite));
  TCHSequentialWriter full(&file, false, 0, 1);
  EXPECT_EQ(kErrBadParameter, full.Begin());
  file.Close();
  ASSERT_EQ(0, file.Open(Loc("r"), kFileOpenRead));
  TCHSequentialWriter readOnly(&file, false, 0, 1);
  EXPECT_EQ(kErrBadParameter, readOnly.Begin());
  file.Close();
  EXPECT_TRUE(ci::ReadFile(Path("r")) == got);
  TCHSequentialWriter none(nullptr, false, 0, 1);
  EXPECT_EQ(kErrBadParameter, none.Begin());
}

// Every transfer fails in turn: the call that meets it returns the file's
// code with one 517 line, the writer refuses to go on, and a file whose
// final header was not written keeps the unsaved marker.
TEST_F(ChunkWriterTest, EveryFailedTransferIsReported) {
  std::vector<ci::Chunk> chunks = ci::RandomChunks(23, 5);
  enum { kWrite, kSync, kSetLength };
  for (int kind : {kWrite, kSync, kSetLength}) {
    for (int n = 0;; ++n) {
      std::string name = "f" + std::to_string(kind) + "_" + std::to_string(n);
      TFailingFile file;
      ASSERT_EQ(0, file.Open(Loc(name), kFileOpenReadWriteCreate));
      (kind == kWrite ? file.failWrite : kind == kSync ? file.failSync : file.failSetLength) = n;
      TCHSequentialWriter writer(&file, n % 2 == 1, 0, 4);
      m_host.Clear();
      int code = writer.Begin();
      for (size_t i = 0; code == 0 && i < chunks.size(); ++i) {
        code = writer.AddChunk(HeaderOf(chunks[i]), chunks[i].data.data());
      }
      if (code == 0) code = writer.Finish(0);
      file.Close();
      if (code == 0) {
        EXPECT_GT(n, 0);
        ci::Parsed parsed = ci::Parse(ci::ReadFile(Path(name)));
        EXPECT_EQ("", parsed.error);
        break;
      }
      EXPECT_EQ(kErrNoResources, code) << name;
      int writerLines = 0;
      for (const LoggedLine& line : m_host.Lines()) {
        if (line.format.rfind("TCHSequentialWriter::", 0) == 0) {
          ++writerLines;
          EXPECT_EQ(517u, line.selector);
        }
      }
      EXPECT_EQ(1, writerLines) << name;
      EXPECT_EQ(kErrBadParameter, writer.Finish(0));
      // Only the sync after the marker's clearing comes too late to keep it.
      bool markerCleared = kind == kSync && n == 1;
      if (!markerCleared && ci::ReadFile(Path(name)).size() >= 36) {
        EXPECT_EQ(kCHUnsavedMarker, MarkerOnDisk(Path(name))) << name;
      }
      ASSERT_LT(n, 100);
    }
  }
}

}  // namespace
