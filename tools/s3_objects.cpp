// plinth s3 mb, ls, stat, rm and cp: requests on buckets and whole objects.
#include <chrono>
#include <cstdio>
#include <random>
#include <thread>

#include "cloud/cloud_metadata.h"
#include "cloud/cloud_object.h"
#include "foundation/errors.h"
#include "foundation/tstring.h"
#include "tools/interrupt.h"
#include "tools/s3_commands.h"
#include "tools/s3_location.h"
#include "tools/s3_report.h"
#include "tools/tool_host.h"

namespace {

constexpr int kTries = 3;
constexpr int kPauseMs = 200;

// The location of `text`, which must name a key unless `keyOptional`.
bool Locate(const S3ArgsSpec& a, const std::string& text, bool keyOptional, S3LocationSpec* out, int* exitCode) {
  std::string why;
  if (!ParseS3Location(text, out, &why)) {
    *exitCode = S3Usage(a.tool, why);
    return false;
  }
  if (!keyOptional && (out->key.empty() || out->key.back() == '/')) {
    *exitCode = S3Usage(a.tool, "'" + text + "' names no object (s3://BUCKET/KEY)");
    return false;
  }
  return true;
}

// The bucket of the location `a.args[0]` names, with the account loaded;
// false with `*exitCode` set on a usage or account failure.
bool OpenLocated(const S3ArgsSpec& a, bool keyOptional, S3LocationSpec* where, TS3Account* account,
                 std::unique_ptr<TCloudBucket>* bucket, int* exitCode) {
  if (!Locate(a, a.args[0], keyOptional, where, exitCode)) return false;
  if ((*exitCode = account->Load(a.tool.c_str(), a.flags)) != 0) return false;
  *bucket = account->Bucket(where->bucket, nullptr, nullptr);
  return true;
}

std::string DateText(const TDate& date) {
  if (date.IsDefault()) return "-";
  return TStringAsString(date.ToShortDelimitedISOString());
}

void PrintEntry(const TCloudObject& entry) {
  std::string name = TStringAsString(entry.GetName());
  if (entry.IsFolder()) {
    std::printf("%-20s %12s  %s\n", "", "DIR", name.c_str());
    return;
  }
  std::printf("%-20s %12llu  %s\n", DateText(entry.GetDate(0)).c_str(),
              static_cast<unsigned long long>(entry.GetSize()), name.c_str());
}

void PrintField(const char* name, const std::string& value) {
  if (!value.empty()) std::printf("%s: %s\n", name, value.c_str());
}

// The object's answer headers; kErrNotFound at once for a missing one.
int Head(TCloudBucket* bucket, const std::string& key, TCloudMetaData* meta) {
  return S3Request([&] { return bucket->ObjectExists(TStringFromUTF8(key), meta, true); });
}

uint64_t SizeOf(const TCloudMetaData& meta) {
  std::string text = meta.GetHeader("Content-Length");
  if (text.empty() || text.size() > 19 || text.find_first_not_of("0123456789") != std::string::npos) return 0;
  return std::stoull(text);
}

// A date of the library's own metadata as a Windows file time; 0 (not
// sent) when the object has none.
uint64_t FileTimeOf(const TCloudMetaData& meta, eCloudMetaKey key) {
  if (meta.GetValue(key).empty()) return 0;
  TDate date = meta.GetValueTDate(key);
  return date.IsDefault() ? 0 : date.ToFileTime();
}

}  // namespace

int S3Request(const std::function<int()>& request) {
  std::minstd_rand jitter(std::random_device{}());
  int code = 0;
  for (int attempt = 1; attempt <= kTries; ++attempt) {
    ClearToolFailure();
    code = request();
    if (code == 0 || code == kErrNotFound || !TCloudBucket::IsRetryError(code) || Interrupted()) break;
    if (attempt < kTries) std::this_thread::sleep_for(std::chrono::milliseconds(kPauseMs * attempt + jitter() % 100));
  }
  return code;
}

int S3MakeBucket(const S3ArgsSpec& a) {
  S3LocationSpec where;
  int exitCode = 0;
  if (!Locate(a, a.args[0], true, &where, &exitCode)) return exitCode;
  if (!where.key.empty()) return S3Usage(a.tool, "a bucket has no key: s3://" + where.bucket);
  TS3Account account;
  if ((exitCode = account.Load(a.tool.c_str(), a.flags)) != 0) return exitCode;
  std::unique_ptr<TCloudBucket> bucket = account.Bucket(where.bucket, nullptr, nullptr);
  ClearToolFailure();
  std::string status = TStringAsString(bucket->CreateBucket(TStringFromUTF8(account.Region()), false, 0));
  if (status.empty()) return 0;
  std::string cause;
  if (status == "BucketAlreadyOwnedByYou") {
    cause = "it exists already, and is yours";
  } else if (status == "BucketAlreadyExists") {
    cause = "it exists already (the name is taken)";
  } else if (status == "AccessDenied" || status == "SignatureDoesNotMatch" || status == "InvalidAccessKeyId") {
    cause = CloudCause(kErrAccessDenied);
  } else {
    cause = CloudCause(status == "NetworkError" ? kErrNetwork : kErrUnknown);
  }
  std::fprintf(stderr, "plinth %s: cannot make s3://%s: %s [%s]\n", a.tool.c_str(), where.bucket.c_str(),
               cause.c_str(), status.c_str());
  return 1;
}

int S3List(const S3ArgsSpec& a) {
  S3LocationSpec where;
  TS3Account account;
  std::unique_ptr<TCloudBucket> bucket;
  int exitCode = 0;
  if (!OpenLocated(a, true, &where, &account, &bucket, &exitCode)) return exitCode;
  CatchInterrupts();
  TString prefix = TStringFromUTF8(where.key);
  ContinuationMarker marker;
  // A page at a time, so a large bucket shows at once and memory stays flat.
  do {
    std::vector<TCloudObject> folders, files, page;
    int code = S3Request([&] {
      folders.clear();
      files.clear();
      ContinuationMarker next = marker;
      int rc = a.recursive ? bucket->GetAllObjectsInPath(prefix, files, false, &next)
                           : bucket->GetFoldersAndFiles(prefix, &folders, &files, false, &next);
      if (rc == 0) marker = next;
      return rc;
    });
    if (code != 0) return ReportCloudFailure(a.tool.c_str(), "list", S3LocationText(where), code);
    MergeTCloudObjectVectors(folders, files, page);
    for (const TCloudObject& entry : page) PrintEntry(entry);
  } while (marker.IsActive() && !Interrupted());
  if (std::fflush(stdout) != 0) return 1;
  return Interrupted() ? InterruptedExitCode() : 0;
}

int S3Stat(const S3ArgsSpec& a) {
  S3LocationSpec where;
  TS3Account account;
  std::unique_ptr<TCloudBucket> bucket;
  int exitCode = 0;
  if (!OpenLocated(a, false, &where, &account, &bucket, &exitCode)) return exitCode;
  TCloudMetaData meta;
  int code = Head(bucket.get(), where.key, &meta);
  if (code != 0) return ReportCloudFailure(a.tool.c_str(), "look at", S3LocationText(where), code);
  PrintField("object", S3LocationText(where));
  PrintField("size", std::to_string(SizeOf(meta)));
  PrintField("etag", meta.GetHeader("ETag"));
  PrintField("last-modified", meta.GetValue(eCloudMetaLastModified));
  PrintField("content-type", meta.GetHeader("Content-Type"));
  PrintField("created", meta.GetValue(eCloudMetaCreated));
  PrintField("modified", meta.GetValue(eCloudMetaModified));
  PrintField("replicated", meta.GetValue(eCloudMetaReplicated));
  return std::fflush(stdout) == 0 ? 0 : 1;
}

int S3Remove(const S3ArgsSpec& a) {
  S3LocationSpec where;
  TS3Account account;
  std::unique_ptr<TCloudBucket> bucket;
  int exitCode = 0;
  if (!OpenLocated(a, false, &where, &account, &bucket, &exitCode)) return exitCode;
  // The service answers a delete of nothing as done; rm of a missing file
  // is an error to people.
  int code = Head(bucket.get(), where.key, nullptr);
  if (code == 0) code = S3Request([&] { return bucket->DeleteCloudObject(TStringFromUTF8(where.key)); });
  if (code != 0) return ReportCloudFailure(a.tool.c_str(), "remove", S3LocationText(where), code);
  return 0;
}

int S3Copy(const S3ArgsSpec& a) {
  S3LocationSpec from, to;
  int exitCode = 0;
  if (!Locate(a, a.args[0], false, &from, &exitCode)) return exitCode;
  if (!Locate(a, a.args[1], true, &to, &exitCode)) return exitCode;
  if (to.key.empty() || to.key.back() == '/') to.key += S3KeyBaseName(from.key);
  if (from.bucket == to.bucket && from.key == to.key) return S3Usage(a.tool, "source and target are the same object");
  TS3Account account;
  if ((exitCode = account.Load(a.tool.c_str(), a.flags)) != 0) return exitCode;
  CatchInterrupts();
  std::unique_ptr<TCloudBucket> source = account.Bucket(from.bucket, nullptr, nullptr);
  TCloudMetaData meta;
  int code = Head(source.get(), from.key, &meta);
  if (code != 0) return ReportCloudFailure(a.tool.c_str(), "copy", S3LocationText(from), code);
  uint64_t size = SizeOf(meta);
  if (from.bucket != to.bucket) {
    return S3StreamCopy(a, account, from, meta, size, to);
  }
  uint64_t created = FileTimeOf(meta, eCloudMetaCreated);
  uint64_t modified = FileTimeOf(meta, eCloudMetaModified);
  code = S3Request([&] {
    return source->CopyObject(TStringFromUTF8(from.key), TStringFromUTF8(to.key), size, created, modified, nullptr,
                              nullptr);
  });
  if (code != 0) {
    return ReportCloudFailure(a.tool.c_str(), "copy", S3LocationText(from) + " to " + S3LocationText(to), code);
  }
  return 0;
}
