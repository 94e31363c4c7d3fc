// How the tool tells of a failed cloud operation:
//
//   plinth s3 get: cannot read s3://b/k: no such object (404 NoSuchKey: The
//   specified key does not exist.) [-1101: Not found]
//
// the object, the cause in words with the service's or the network's own
// detail (from the library's log, tools/tool_host.h), then the library code.
#ifndef PLINTH_TOOLS_S3_REPORT_H_
#define PLINTH_TOOLS_S3_REPORT_H_

#include <string>

// Prints the message on standard error; answers the exit code: 1, or the
// interrupted code when the user stopped the operation.
int ReportCloudFailure(const char* tool, const char* action, const std::string& object, int code);

// The cause in words, without the code.
std::string CloudCause(int code);

// Tells that aborting an upload failed (`code`): no object was made, but
// the parts sent so far may stay stored, and billed, on the service.
void ReportPartsLeft(const char* tool, const std::string& object, int code);

#endif  // PLINTH_TOOLS_S3_REPORT_H_
