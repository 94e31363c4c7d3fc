// What an S3 answer means as a library error code.
//
// An error answer's XML document gives "Code", "Message" and, on a wrong
// region, "Region" (also in the header "x-amz-bucket-region"). The code is
// mapped in this order:
//
//   "AuthorizationHeaderMalformed"                          -1010
//   "RequestTimeTooSkewed"                                  -1028
//   any other answer of status 400 or above that holds
//     "AWS4-HMAC-SHA256"                                    -1116
//   "InvalidAccessKeyId", "SignatureDoesNotMatch",
//     "AccessDenied"                                        -1017
//   "NoSuchBucket", "NoSuchKey", "InvalidObjectState"       -1101
//   no answer at all                                        -1010
//   an earlier -1116                                        -1116
//   an answer without a code                                the code already set
//   any other code                                          -1010
//
// "Earlier" is what the exchange itself showed before the document was
// read: a connection that failed, broke or stalled (the transport's
// failure), and an answer of status 500 or above (the service's own
// trouble: "InternalError", "SlowDown", "ServiceUnavailable"), are network
// failures, -1116, which the cloud files try again; a certificate that is
// not trusted is final (-1017) and a request the caller stopped is -1015.
// So is an error document inside a 200 answer (a completion or a copy that
// failed after its status went out) naming one of those three codes.
// "No answer at all" is an exchange that ended without either. An answer
// of status 400 or above without a document keeps the code its status
// gives: 403 -1017, 404 -1101, any other -1010.
#ifndef PLINTH_CLOUD_S3_S3_ERRORS_H_
#define PLINTH_CLOUD_S3_S3_ERRORS_H_

#include <string>

#include "platform/http.h"

struct S3ErrorSpec {
  int code = 0;             // the library code
  std::string name;         // the service's "Code"
  std::string message;      // its "Message"
  std::string region;       // "Region" or "x-amz-bucket-region", when a region name
};

constexpr size_t kS3MaxRegionName = 64;

// Letters, digits, "-", "_" and ".", at most kS3MaxRegionName of them. A
// region an answer names goes into the next request's signature and
// headers, so nothing else is taken from it.
bool S3IsRegionName(const std::string& text);

// The status's own code before a document is read (the "earlier" code);
// 0 for a success.
int S3EarlierCode(long status, platform::HttpFailure failure);
// Reads an error answer (status >= 300, or a document holding <Error>
// inside a 200 answer) into `out`.
void S3MapError(long status, platform::HttpFailure failure, const std::string& body, const std::string& headers,
                S3ErrorSpec* out);
// The value of answer header `name` (case-blind) in a header block.
std::string S3HeaderValue(const std::string& headers, const char* name);

#endif  // PLINTH_CLOUD_S3_S3_ERRORS_H_
