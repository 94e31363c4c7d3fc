#include "tools/s3_report.h"

#include <cctype>
#include <cstdio>

#include "foundation/errors.h"
#include "foundation/tstring.h"
#include "tools/interrupt.h"
#include "tools/pack_common.h"
#include "tools/tool_host.h"

namespace {

bool Has(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

std::string CodeText(int code) {
  TString text;
  GetErrorText(code, &text);
  return TStringAsString(text);
}

}  // namespace

std::string CloudCause(int code) {
  std::string detail = ToolFailureDetail(code);
  // The service's own error name says more than the code it maps to: a
  // refused signature can come back as a network failure (-1116).
  std::string cause;
  if (code == kErrAborted && Interrupted()) {
    return "interrupted";
  } else if (Has(detail, "SignatureDoesNotMatch")) {
    cause = "access denied: the secret key does not match the access key";
  } else if (Has(detail, "InvalidAccessKeyId")) {
    cause = "access denied: the service does not know the access key";
  } else if (Has(detail, "NoSuchBucket")) {
    cause = "no such bucket";
  } else if (code == kErrNotFound || Has(detail, "NoSuchKey")) {
    cause = "no such object";
  } else if (Has(detail, "certificate") || Has(detail, "SSL")) {
    cause = "the server's certificate is not trusted";
  } else if (code == kErrAccessDenied) {
    // An answer without a body (to HEAD) names no reason.
    cause = "access denied";
    if (detail.empty() || detail.rfind("HTTP ", 0) == 0) cause += ": check the access key and the secret key";
  } else if (code == kErrNetwork && (detail.empty() || !std::isdigit(static_cast<unsigned char>(detail[0])))) {
    // No answer came: the transport's own words follow.
    cause = "the service cannot be reached";
  }
  if (cause.empty()) return detail.empty() ? CodeText(code) : detail;
  if (!detail.empty()) cause += " (" + detail + ")";
  return cause;
}

int ReportCloudFailure(const char* tool, const char* action, const std::string& object, int code) {
  std::fprintf(stderr, "plinth %s: cannot %s %s: %s [%s]\n", tool, action, object.c_str(), CloudCause(code).c_str(),
               DescribeCode(code).c_str());
  return Interrupted() ? InterruptedExitCode() : 1;
}

void ReportPartsLeft(const char* tool, const std::string& object, int code) {
  std::fprintf(stderr, "plinth %s: the parts of %s sent so far could not be dropped: %s [%s]; they may stay stored\n",
               tool, object.c_str(), CloudCause(code).c_str(), DescribeCode(code).c_str());
}
