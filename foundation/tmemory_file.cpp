#include "foundation/tmemory_file.h"

#include <atomic>
#include <cstring>
#include <string>

#include "foundation/errors.h"
#include "platform/file.h"
#include "platform/path.h"
#include "security/crc32.h"

namespace {

constexpr char kMagic[4] = {'P', 'l', 'M', 'A'};
// CRC32::update takes an int length.
constexpr uint32_t kCrcStep = 1u << 30;
// Names left behind by an earlier process of the same id are skipped.
constexpr int kNameAttempts = 64;

std::atomic<uint32_t> g_fileSerial{0};

uint32_t ContentsCrc(const void* data, uint32_t size) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  uint32_t crc = 0;
  for (uint32_t done = 0; done < size;) {
    uint32_t step = size - done < kCrcStep ? size - done : kCrcStep;
    crc = CRC32::update(crc, bytes + done, static_cast<int>(step));
    done += step;
  }
  return crc;
}

void PutLittle(unsigned char* out, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out[i] = static_cast<unsigned char>(value >> (8 * i));
}

uint64_t GetLittle(const unsigned char* in, int bytes) {
  uint64_t value = 0;
  for (int i = bytes - 1; i >= 0; --i) value = value << 8 | in[i];
  return value;
}

}  // namespace

int CreateMemScratchFile(platform::TMapFile* file, TString* path) {
  std::string prefix = TStringAsString(platform::TempFolder()) + static_cast<char>(platform::kPathDelimiter) +
                       "plinth20-" + std::to_string(platform::ProcessId()) + "-";
  int code = kErrAlreadyExists;
  for (int attempt = 0; attempt < kNameAttempts && code == kErrAlreadyExists; ++attempt) {
    *path = TStringFromUTF8(prefix + std::to_string(g_fileSerial.fetch_add(1) + 1) + ".mem");
    code = file->Create(*path);
  }
  return code;
}

int WriteMemArchive(const void* data, uint32_t size, TString* path) {
  platform::TMapFile file;
  int code = CreateMemScratchFile(&file, path);
  if (code != 0) return code;
  unsigned char header[kMemArchiveHeaderSize] = {};
  std::memcpy(header, kMagic, 4);
  PutLittle(header + 4, kMemArchiveVersion, 2);
  PutLittle(header + 8, size, 8);
  PutLittle(header + 16, ContentsCrc(data, size), 4);
  code = file.WriteAt(0, header, kMemArchiveHeaderSize);
  if (code == 0) code = file.WriteAt(kMemArchiveHeaderSize, data, size);
  file.Close();
  if (code != 0) platform::RemoveFile(*path);
  return code;
}

int ReadMemArchive(const TString& path, void* data, uint32_t size) {
  platform::TMapFile file;
  int code = file.Open(path);
  if (code != 0) return code;
  unsigned char header[kMemArchiveHeaderSize];
  code = file.ReadAt(0, header, kMemArchiveHeaderSize);
  if (code == kErrEndOfFile) return kErrFileCorrupt;
  if (code != 0) return code;
  if (std::memcmp(header, kMagic, 4) != 0 || GetLittle(header + 4, 2) != kMemArchiveVersion ||
      GetLittle(header + 8, 8) != size) {
    return kErrFileCorrupt;
  }
  code = file.ReadAt(kMemArchiveHeaderSize, data, size);
  if (code == kErrEndOfFile) return kErrFileCorrupt;
  if (code != 0) return code;
  unsigned char extra;
  if (file.ReadAt(uint64_t{kMemArchiveHeaderSize} + size, &extra, 1) != kErrEndOfFile) return kErrFileCorrupt;
  if (ContentsCrc(data, size) != GetLittle(header + 16, 4)) return kErrFileCorrupt;
  return 0;
}
