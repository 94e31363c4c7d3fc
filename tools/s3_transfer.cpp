// plinth s3 put and get, and copies between buckets: bytes stream through
// the library's cloud write and read files a buffer at a time, so memory
// stays at the files' own part buffers whatever the object's size.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <vector>

#include "foundation/errors.h"
#include "foundation/tstring.h"
#include "platform/os_error.h"
#include "time/tdate.h"
#include "tools/interrupt.h"
#include "tools/pack_common.h"
#include "tools/s3_commands.h"
#include "tools/s3_location.h"
#include "tools/s3_report.h"
#include "tools/tool_host.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t kBuffer = size_t{1} << 20;

int LocalFailure(const S3ArgsSpec& a, const char* action, const std::string& path, int err) {
  std::fprintf(stderr, "plinth %s: cannot %s %s: %s [%s]\n", a.tool.c_str(), action, path.c_str(),
               std::strerror(err), DescribeCode(MapErrno(err, nullptr)).c_str());
  return Interrupted() ? InterruptedExitCode() : 1;
}

uint64_t FileTimeOfUnix(int64_t seconds) {
  TDate date;
  date.FromUnixTime(seconds);
  return date.ToFileTime();
}

// Where a get's bytes go: a temporary file beside the target that takes
// the target's name only once every byte came; or, for standard output and
// a target that is no regular file (a device, a pipe), the target itself.
class TGetTarget {
 public:
  ~TGetTarget() {
    if (m_fd >= 0 && m_fd != STDOUT_FILENO) ::close(m_fd);
    if (!m_temp.empty()) ::unlink(m_temp.c_str());
  }

  // 0 or an errno value.
  int Open(const std::string& path) {
    m_path = path;
    if (path == "-") {
      m_fd = STDOUT_FILENO;
      return 0;
    }
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
      m_fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
      m_direct = true;
      return m_fd < 0 ? errno : 0;
    }
    // Through a symbolic link, as cp writes: the link stays.
    std::error_code ec;
    if (fs::is_symlink(path, ec)) {
      fs::path real = fs::canonical(path, ec);
      if (!ec) m_path = real.string();
    }
    fs::path target(m_path);
    fs::path dir = target.has_parent_path() ? target.parent_path() : fs::path(".");
    std::string hidden(1, '.');
    hidden += target.filename().string();
    hidden += ".plinth-XXXXXX";
    std::string pattern = (dir / hidden).string();
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    m_fd = ::mkstemp(name.data());
    if (m_fd < 0) return errno;
    m_temp = name.data();
    return 0;
  }

  // 0 or an errno value.
  int Write(const uint8_t* bytes, size_t size) {
    while (size > 0) {
      ssize_t n = ::write(m_fd, bytes, size);
      if (n < 0 && errno == EINTR && !Interrupted()) continue;
      if (n < 0) return errno;
      bytes += n;
      size -= static_cast<size_t>(n);
    }
    return 0;
  }

  // Gives the file its name: 0 or an errno value.
  int Commit() {
    if (m_fd == STDOUT_FILENO) return 0;
    if (m_direct) {
      int fd = m_fd;
      m_fd = -1;
      return ::close(fd) == 0 ? 0 : errno;
    }
    // mkstemp makes 0600; a fetched file gets what a new file would.
    mode_t mask = ::umask(0);
    ::umask(mask);
    if (::fchmod(m_fd, 0666 & ~mask) != 0 || ::fsync(m_fd) != 0) return errno;
    int fd = m_fd;
    m_fd = -1;
    if (::close(fd) != 0) return errno;
    if (::rename(m_temp.c_str(), m_path.c_str()) != 0) return errno;
    m_temp.clear();
    return 0;
  }

 private:
  std::string m_path;
  std::string m_temp;
  int m_fd = -1;
  bool m_direct = false;
};

}  // namespace

int S3Put(const S3ArgsSpec& a) {
  const std::string& from = a.args[0];
  S3LocationSpec to;
  std::string why;
  if (!ParseS3Location(a.args[1], &to, &why)) return S3Usage(a.tool, why);
  if (to.key.empty() || to.key.back() == '/') {
    if (from == "-") return S3Usage(a.tool, "name the object standard input goes to (s3://BUCKET/KEY)");
    to.key += fs::path(from).filename().string();
  }
  std::FILE* in = from == "-" ? stdin : std::fopen(from.c_str(), "rb");
  if (in == nullptr) return LocalFailure(a, "read", from, errno);
  struct InputCloser {
    std::FILE* file;
    ~InputCloser() {
      if (file != stdin) std::fclose(file);
    }
  } closer{in};
  struct stat info {};
  if (::fstat(fileno(in), &info) != 0) return LocalFailure(a, "read", from, errno);
  if (S_ISDIR(info.st_mode)) return LocalFailure(a, "read", from, EISDIR);
  uint64_t sizeHint = S_ISREG(info.st_mode) ? static_cast<uint64_t>(info.st_size) : 0;

  TS3Account account;
  int exitCode = account.Load(a.tool.c_str(), a.flags);
  if (exitCode != 0) return exitCode;
  CatchInterrupts();
  TCloudMetaData meta;
  uint64_t now = FileTimeOfUnix(std::time(nullptr));
  uint64_t changed = S_ISREG(info.st_mode) ? FileTimeOfUnix(info.st_mtime) : now;
  meta.SetDateValue(eCloudMetaCreated, &now);
  meta.SetDateValue(eCloudMetaModified, &changed);

  std::string object = S3LocationText(to);
  TTransferProgress progress("put " + object, a.flags.progress);
  std::unique_ptr<TCloudBucket> bucket = account.Bucket(to.bucket, &TTransferProgress::Callback, &progress);
  ClearToolFailure();
  int code = bucket->OpenFileForWrite(TStringFromUTF8(to.key), &meta, sizeHint);
  std::vector<uint8_t> buffer(kBuffer);
  int readError = 0;
  while (code == 0) {
    size_t n = std::fread(buffer.data(), 1, buffer.size(), in);
    if (n > 0) code = bucket->WriteToFile(buffer.data(), n);
    if (Interrupted()) code = kErrAborted;
    if (n == buffer.size() || code != 0) continue;
    if (std::ferror(in)) readError = errno != 0 ? errno : EIO;
    break;
  }
  if (code != 0 || readError != 0) {
    progress.Finish();
    int exitCode = code != 0 ? ReportCloudFailure(a.tool.c_str(), "store", object, code)
                             : LocalFailure(a, "read", from, readError);
    // Nothing half-written stays: the upload is aborted on the service.
    ClearToolFailure();
    int dropped = bucket->DeleteWriteBuf();
    if (dropped != 0) ReportPartsLeft(a.tool.c_str(), object, dropped);
    return exitCode;
  }
  code = bucket->CloseFile();
  progress.Finish();
  if (code != 0) return ReportCloudFailure(a.tool.c_str(), "store", object, code);
  return 0;
}

int S3Get(const S3ArgsSpec& a) {
  S3LocationSpec from;
  std::string why;
  if (!ParseS3Location(a.args[0], &from, &why)) return S3Usage(a.tool, why);
  if (from.key.empty() || from.key.back() == '/') {
    return S3Usage(a.tool, "'" + a.args[0] + "' names no object (s3://BUCKET/KEY)");
  }
  std::string path = a.args[1];
  std::error_code ec;
  if (path != "-" && fs::is_directory(path, ec)) path = (fs::path(path) / S3KeyBaseName(from.key)).string();

  TS3Account account;
  int exitCode = account.Load(a.tool.c_str(), a.flags);
  if (exitCode != 0) return exitCode;
  CatchInterrupts();
  std::string object = S3LocationText(from);
  TTransferProgress progress("get " + object, a.flags.progress);
  std::unique_ptr<TCloudBucket> bucket = account.Bucket(from.bucket, &TTransferProgress::Callback, &progress);
  TString name = TStringFromUTF8(from.key);
  TCloudMetaData meta;
  int code = S3Request([&] { return bucket->ObjectExists(name, &meta, true); });
  if (code != 0) return ReportCloudFailure(a.tool.c_str(), "read", object, code);
  std::string length = meta.GetHeader("Content-Length");
  if (length.empty() || length.size() > 19 || length.find_first_not_of("0123456789") != std::string::npos) {
    return ReportCloudFailure(a.tool.c_str(), "read", object, kErrInvalidData);
  }
  uint64_t size = std::stoull(length);

  TGetTarget out;
  int err = out.Open(path);
  if (err != 0) return LocalFailure(a, "write", path, err);
  std::vector<uint8_t> buffer(kBuffer);
  ClearToolFailure();
  for (uint64_t offset = 0; offset < size;) {
    uint64_t got = 0;
    code = bucket->ReadFile(name, offset, buffer.data(), std::min<uint64_t>(buffer.size(), size - offset), &got);
    // An object that shrank under the read ends it early.
    if (code == 0 && got == 0) code = kErrEndOfFile;
    if (code != 0) {
      progress.Finish();
      return ReportCloudFailure(a.tool.c_str(), "read", object, code);
    }
    if ((err = out.Write(buffer.data(), static_cast<size_t>(got))) != 0) {
      progress.Finish();
      return LocalFailure(a, "write", path, err);
    }
    offset += got;
  }
  progress.Finish();
  if (Interrupted()) return ReportCloudFailure(a.tool.c_str(), "read", object, kErrAborted);
  if ((err = out.Commit()) != 0) return LocalFailure(a, "write", path, err);
  return 0;
}

int S3StreamCopy(const S3ArgsSpec& a, const TS3Account& account, const S3LocationSpec& from,
                 const TCloudMetaData& sourceMeta, uint64_t size, const S3LocationSpec& to) {
  std::string what = S3LocationText(from) + " to " + S3LocationText(to);
  TTransferProgress progress("cp " + what, a.flags.progress);
  std::unique_ptr<TCloudBucket> source = account.Bucket(from.bucket, &TTransferProgress::StopOnInterrupt, nullptr);
  std::unique_ptr<TCloudBucket> target = account.Bucket(to.bucket, &TTransferProgress::Callback, &progress);
  TCloudMetaData meta;
  for (eCloudMetaKey key : {eCloudMetaCreated, eCloudMetaModified, eCloudMetaReplicated}) {
    if (!sourceMeta.GetValue(key).empty()) meta.SetStringValue(key, sourceMeta.GetValue(key));
  }
  TString name = TStringFromUTF8(from.key);
  ClearToolFailure();
  int code = target->OpenFileForWrite(TStringFromUTF8(to.key), &meta, size);
  std::vector<uint8_t> buffer(kBuffer);
  for (uint64_t offset = 0; code == 0 && offset < size;) {
    uint64_t got = 0;
    code = source->ReadFile(name, offset, buffer.data(), std::min<uint64_t>(buffer.size(), size - offset), &got);
    if (code == 0 && got == 0) code = kErrEndOfFile;
    if (code == 0) code = target->WriteToFile(buffer.data(), got);
    offset += got;
  }
  if (code == 0) code = target->CloseFile();
  progress.Finish();
  if (code == 0) return 0;
  int exitCode = ReportCloudFailure(a.tool.c_str(), "copy", what, code);
  ClearToolFailure();
  int dropped = target->DeleteWriteBuf();
  if (dropped != 0) ReportPartsLeft(a.tool.c_str(), S3LocationText(to), dropped);
  return exitCode;
}
