// plinth s3 put -r and get -r: a folder tree to a prefix and back.
//
// Many objects are mostly requests, not bytes: several workers (the
// "CloudUploadThreads" / "CloudDownloadThreads" settings, 10 and 8 by
// default) each keep a bucket, and with it a connection, of their own for
// the whole run, taking the next file or key as they come free. A file that
// fails is named on standard error and the run goes on; the exit code says
// whether everything was done.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "cloud/tcloudconn.h"
#include "foundation/errors.h"
#include "foundation/tmemory.h"
#include "tools/interrupt.h"
#include "tools/s3_commands.h"
#include "tools/s3_location.h"
#include "tools/s3_report.h"

namespace fs = std::filesystem;

namespace {

// Objects up to this size come in one piece into memory; larger ones
// stream through the read file.
constexpr uint64_t kWholeObject = uint64_t{64} << 20;

// Runs `work(bucket, index)` for every index below `count` on `threads`
// workers with a bucket each; answers how many failed.
int OnWorkers(const TS3Account& account, const std::string& bucketName, size_t count, uint32_t threads,
              const std::function<int(TCloudBucket*, size_t)>& work) {
  std::atomic<size_t> next{0};
  std::atomic<int> failed{0};
  std::vector<std::thread> workers;
  uint32_t n = static_cast<uint32_t>(std::min<size_t>(threads, count));
  for (uint32_t t = 0; t < n; ++t) {
    workers.emplace_back([&] {
      std::unique_ptr<TCloudBucket> bucket = account.Bucket(bucketName, nullptr, nullptr);
      for (size_t i; !Interrupted() && (i = next.fetch_add(1)) < count;) {
        if (work(bucket.get(), i) != 0) failed.fetch_add(1);
      }
    });
  }
  for (std::thread& worker : workers) worker.join();
  return failed.load();
}

std::mutex g_report;

int Refused(const S3ArgsSpec& a, const char* action, const std::string& what, int code) {
  std::lock_guard<std::mutex> guard(g_report);
  ReportCloudFailure(a.tool.c_str(), action, what, code);
  return code;
}

int Finish(const S3ArgsSpec& a, size_t count, int failed, const char* verb) {
  if (Interrupted()) return InterruptedExitCode();
  if (failed > 0) {
    std::fprintf(stderr, "plinth %s: %d of %zu objects were not %s\n", a.tool.c_str(), failed, count, verb);
    return 1;
  }
  return 0;
}

}  // namespace

int S3PutTree(const S3ArgsSpec& a) {
  const fs::path from = a.args[0];
  S3LocationSpec to;
  std::string why;
  if (!ParseS3Location(a.args[1], &to, &why)) return S3Usage(a.tool, why);
  if (!to.key.empty() && to.key.back() != '/') to.key += '/';
  std::error_code ec;
  if (!fs::is_directory(from, ec)) return S3Usage(a.tool, "'" + a.args[0] + "' is not a folder (put -r takes one)");
  std::vector<fs::path> files;
  for (fs::recursive_directory_iterator it(from, ec), end; !ec && it != end; it.increment(ec)) {
    if (it->is_regular_file(ec)) files.push_back(it->path());
  }
  if (ec) {
    std::fprintf(stderr, "plinth %s: cannot read %s: %s\n", a.tool.c_str(), from.c_str(), ec.message().c_str());
    return 1;
  }
  std::sort(files.begin(), files.end());
  TS3Account account;
  int exitCode = account.Load(a.tool.c_str(), a.flags);
  if (exitCode != 0) return exitCode;
  CatchInterrupts();
  uint32_t threads = static_cast<uint32_t>(ReadCloudSetting(u"CloudUploadThreads", 1, 16, 10));
  int failed = OnWorkers(account, to.bucket, files.size(), threads, [&](TCloudBucket* bucket, size_t i) {
    std::string key = to.key + fs::relative(files[i], from).generic_string();
    S3LocationSpec object = to;
    object.key = key;
    std::ifstream in(files[i], std::ios::binary);
    if (!in) return Refused(a, "read", files[i].string(), kErrOpenFailed);
    int code = bucket->OpenFileForWrite(TStringFromUTF8(key));
    std::vector<char> buffer(1 << 20);
    while (code == 0 && in) {
      in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
      if (in.gcount() > 0) code = bucket->WriteToFile(buffer.data(), static_cast<uint64_t>(in.gcount()));
    }
    if (code == 0 && in.bad()) code = kErrReadFault;
    if (code != 0) {
      bucket->DeleteWriteBuf();
      return Refused(a, "store", S3LocationText(object), code);
    }
    code = bucket->CloseFile();
    return code != 0 ? Refused(a, "store", S3LocationText(object), code) : 0;
  });
  return Finish(a, files.size(), failed, "stored");
}

int S3GetTree(const S3ArgsSpec& a) {
  S3LocationSpec from;
  std::string why;
  if (!ParseS3Location(a.args[0], &from, &why)) return S3Usage(a.tool, why);
  const fs::path to = a.args[1];
  std::error_code ec;
  fs::create_directories(to, ec);
  if (!fs::is_directory(to, ec)) return S3Usage(a.tool, "'" + a.args[1] + "' is not a folder (get -r fills one)");
  TS3Account account;
  int exitCode = account.Load(a.tool.c_str(), a.flags);
  if (exitCode != 0) return exitCode;
  CatchInterrupts();
  std::unique_ptr<TCloudBucket> lister = account.Bucket(from.bucket, nullptr, nullptr);
  std::vector<TCloudObject> objects;
  int code = S3Request([&] { return lister->GetAllObjectsInPath(TStringFromUTF8(from.key), objects, true, nullptr); });
  if (code != 0) return ReportCloudFailure(a.tool.c_str(), "list", S3LocationText(from), code);
  // Keys below the prefix become paths below the folder; a key that would
  // climb out of it ("..", an absolute path) is refused, not followed.
  std::vector<std::string> keys;
  std::vector<const TCloudObject*> listed;
  for (const TCloudObject& o : objects) {
    std::string key = TStringAsString(o.GetName());
    if (key.empty() || key.back() == '/') continue;
    keys.push_back(key);
    listed.push_back(&o);
  }
  uint32_t threads = static_cast<uint32_t>(ReadCloudSetting(u"CloudDownloadThreads", 1, 16, 8));
  int failed = OnWorkers(account, from.bucket, keys.size(), threads, [&](TCloudBucket* bucket, size_t i) {
    S3LocationSpec object = from;
    object.key = keys[i];
    fs::path relative = fs::path(keys[i].substr(from.key.size())).lexically_normal();
    if (relative.empty() || relative.is_absolute() || *relative.begin() == "..") {
      return Refused(a, "place", S3LocationText(object), kErrBadName);
    }
    fs::path target = to / relative;
    std::error_code made;
    fs::create_directories(target.parent_path(), made);
    std::ofstream out(target, std::ios::binary | std::ios::trunc);
    if (!out) return Refused(a, "write", target.string(), kErrOpenFailed);
    TString name = TStringFromUTF8(keys[i]);
    int rc = 0;
    if (listed[i]->GetSize() <= kWholeObject) {
      // As listed: one request on the worker's own connection for a small
      // object, and refused if it changed since the listing.
      TMemory memory;
      rc = bucket->ReadToTMemory(*listed[i], &memory);
      if (rc == 0 && memory.GetSize() > 0) out.write(static_cast<const char*>(memory.MemPtr()), memory.GetSize());
    } else {
      std::vector<char> buffer(1 << 20);
      for (uint64_t at = 0, got = 0; rc == 0; at += got) {
        rc = bucket->ReadFile(name, at, buffer.data(), buffer.size(), &got);
        if (rc == 0) out.write(buffer.data(), static_cast<std::streamsize>(got));
      }
      if (rc == kErrEndOfFile) rc = 0;
    }
    if (rc != 0) {
      out.close();
      fs::remove(target, made);
      return Refused(a, "read", S3LocationText(object), rc);
    }
    out.close();
    return out ? 0 : Refused(a, "write", target.string(), kErrWriteFault);
  });
  return Finish(a, keys.size(), failed, "fetched");
}
