#include "tools/pack_cloud.h"

#include <cstdio>

#include "foundation/errors.h"
#include "foundation/tstring.h"
#include "tools/interrupt.h"
#include "tools/s3_commands.h"
#include "tools/s3_location.h"
#include "tools/s3_report.h"
#include "tools/tool_host.h"

int TakePackCloudFlag(int argc, char** argv, int* i, S3FlagsSpec* flags, std::string* why) {
  return TakeS3Flag(argc, argv, i, false, flags, why);
}

int OpenCloudContainer(const char* tool, const std::string& location, const S3FlagsSpec& flags, bool write,
                       uint64_t sizeHint, CloudContainerSpec* out) {
  S3LocationSpec where;
  std::string why;
  if (!ParseS3Location(location, &where, &why)) return S3Usage(tool, why);
  if (where.key.empty() || where.key.back() == '/') {
    return S3Usage(tool, "'" + location + "' names no object: the container is one object, s3://BUCKET/KEY");
  }
  out->label = S3LocationText(where);
  int exitCode = out->account.Load(tool, flags);
  if (exitCode != 0) return exitCode;
  CatchInterrupts();
  out->bucket = out->account.Bucket(where.bucket, &TTransferProgress::StopOnInterrupt, nullptr);
  out->file = std::make_unique<TBucketFile>(out->bucket.get(), where.key);
  int code = 0;
  if (write) {
    TString name = TStringFromUTF8(where.key);
    code = S3Request([&] { return out->bucket->ObjectExists(name, nullptr, true); });
    if (code == 0) {
      std::fprintf(stderr, "plinth %s: %s exists already; name a new object, or remove it with plinth s3 rm\n", tool,
                   out->label.c_str());
      return 1;
    }
    if (code != kErrNotFound) return ReportCloudFailure(tool, "write", out->label, code);
    ClearToolFailure();
    code = out->file->OpenForWrite(sizeHint);
    if (code != 0) return ReportCloudFailure(tool, "write", out->label, code);
    return 0;
  }
  code = S3Request([&] { return out->file->OpenForRead(); });
  if (code != 0) return ReportCloudFailure(tool, "open", out->label, code);
  return 0;
}
