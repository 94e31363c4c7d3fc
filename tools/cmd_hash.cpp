// plinth hash: digests and checksums of files, one "DIGEST  NAME" line each.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "security/crc32.h"
#include "security/digest.h"
#include "security/md5.h"
#include "security/sha1.h"
#include "tools/commands.h"

namespace {

const char kUsage[] =
    "usage: plinth hash [--md5|--sha1|--crc32|--block] FILE...\n"
    "\n"
    "Prints one line per file: the digest in hexadecimal, two blanks, the name.\n"
    "Each FILE is read to its end as a stream (a pipe or a /proc file gives its\n"
    "true digest); - is standard input.\n"
    "  --md5    MD5 (the default)\n"
    "  --sha1   SHA-1\n"
    "  --crc32  the library's CRC-32 (polynomial 0x04C11DB7, start 0, no inversion)\n"
    "  --block  the block hash: that CRC-32, with 0 written as 1\n"
    "Files of 64 MiB and more show their progress on a terminal. Exit code 0 when\n"
    "every file was hashed, 1 when one could not be, 2 for a usage error.\n";

constexpr size_t kChunk = size_t{1} << 20;
constexpr uint64_t kProgressFrom = uint64_t{64} << 20;

std::string Hex(const unsigned char* bytes, size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < n; ++i) {
    out += kDigits[bytes[i] >> 4];
    out += kDigits[bytes[i] & 15];
  }
  return out;
}

// One running hash of a file.
class Hasher {
 public:
  virtual ~Hasher() = default;
  virtual bool Start() = 0;
  virtual bool Add(const unsigned char* data, size_t n) = 0;
  virtual std::string Finish() = 0;
};

class DigestHasher : public Hasher {
 public:
  explicit DigestHasher(std::unique_ptr<TDigestBase> engine) : m_engine(std::move(engine)) {}
  bool Start() override { return m_engine->InitHash() != 0; }
  bool Add(const unsigned char* data, size_t n) override {
    return m_engine->HashData(data, static_cast<unsigned>(n)) != 0;
  }
  std::string Finish() override {
    unsigned char digest[32] = {};
    if (m_engine->EndHash() == 0) return std::string();
    unsigned size = static_cast<unsigned>(m_engine->getDigestSize());
    m_engine->GetDigest(digest, size);
    return Hex(digest, size);
  }

 private:
  std::unique_ptr<TDigestBase> m_engine;
};

class CrcHasher : public Hasher {
 public:
  explicit CrcHasher(bool block) : m_block(block) {}
  bool Start() override {
    m_crc = 0;
    return true;
  }
  bool Add(const unsigned char* data, size_t n) override {
    m_crc = CRC32::update(m_crc, data, static_cast<int>(n));
    return true;
  }
  std::string Finish() override {
    unsigned int value = m_block && m_crc == 0 ? 1 : m_crc;
    char text[9];
    std::snprintf(text, sizeof text, "%08x", value);
    return text;
  }

 private:
  bool m_block;
  unsigned int m_crc = 0;
};

std::unique_ptr<Hasher> MakeHasher(const std::string& kind) {
  if (kind == "--md5") return std::make_unique<DigestHasher>(std::make_unique<TMD5>());
  if (kind == "--sha1") return std::make_unique<DigestHasher>(std::make_unique<SHA1Digest>());
  if (kind == "--crc32") return std::make_unique<CrcHasher>(false);
  if (kind == "--block") return std::make_unique<CrcHasher>(true);
  return nullptr;
}

// The size of a regular file, for progress; 0 for anything else (a pipe, a
// device, a /proc file whose size says nothing).
uint64_t RegularSize(const char* name) {
  std::error_code ec;
  if (!std::filesystem::is_regular_file(name, ec)) return 0;
  uint64_t size = std::filesystem::file_size(name, ec);
  return ec ? 0 : size;
}

// Hashes one input read as a stream to its end ("-": standard input); false
// (with a message) when it cannot be read.
bool HashFile(const char* name, Hasher* hasher, std::vector<unsigned char>* buffer) {
  bool standardInput = std::strcmp(name, "-") == 0;
  std::FILE* in = standardInput ? stdin : std::fopen(name, "rb");
  if (in == nullptr) {
    std::fprintf(stderr, "plinth hash: cannot open %s: %s\n", name, std::strerror(errno));
    return false;
  }
  struct Closer {
    std::FILE* file;
    ~Closer() {
      if (file != stdin) std::fclose(file);
    }
  } closer{in};
  uint64_t total = standardInput ? 0 : RegularSize(name);
  bool progress = total >= kProgressFrom && isatty(fileno(stderr));
  if (!hasher->Start()) {
    std::fprintf(stderr, "plinth hash: the digest service is not available\n");
    return false;
  }
  uint64_t done = 0;
  int shown = -1;
  for (;;) {
    size_t got = std::fread(buffer->data(), 1, buffer->size(), in);
    if (got > 0 && !hasher->Add(buffer->data(), got)) {
      std::fprintf(stderr, "plinth hash: hashing %s failed\n", name);
      return false;
    }
    done += got;
    if (progress) {
      int percent = static_cast<int>(std::min<uint64_t>(done * 100 / total, 100));
      if (percent != shown) std::fprintf(stderr, "\r%s: %3d%%", name, percent);
      shown = percent;
    }
    if (got < buffer->size()) break;
  }
  if (progress) std::fprintf(stderr, "\r%*s\r", static_cast<int>(std::strlen(name)) + 6, "");
  if (std::ferror(in)) {
    std::fprintf(stderr, "plinth hash: cannot read %s: %s\n", name, std::strerror(errno));
    return false;
  }
  std::string digest = hasher->Finish();
  if (digest.empty()) {
    std::fprintf(stderr, "plinth hash: finishing the digest of %s failed\n", name);
    return false;
  }
  std::printf("%s  %s\n", digest.c_str(), name);
  return true;
}

}  // namespace

int RunHashCommand(int argc, char** argv) {
  std::string kind = "--md5";
  int first = 0;
  if (AsksForHelp(argc, argv)) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (argc > 0 && argv[0][0] == '-' && argv[0][1] == '-') {
    kind = argv[0];
    first = 1;
  }
  std::unique_ptr<Hasher> hasher = MakeHasher(kind);
  if (hasher == nullptr) {
    std::fprintf(stderr, "plinth hash: unknown option '%s'\n\n%s", kind.c_str(), kUsage);
    return 2;
  }
  if (first >= argc) {
    std::fprintf(stderr, "plinth hash: no file named\n\n%s", kUsage);
    return 2;
  }
  std::vector<unsigned char> buffer(kChunk);
  int rc = 0;
  for (int i = first; i < argc; ++i) {
    if (!HashFile(argv[i], hasher.get(), &buffer)) rc = 1;
  }
  return rc;
}
