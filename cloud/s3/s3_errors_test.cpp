// The mapping of S3 answers to library codes, row by row in the table's
// order, and the reading of answer headers.
#include "cloud/s3/s3_errors.h"

#include <gtest/gtest.h>

#include "foundation/errors.h"

namespace {

using platform::HttpFailure;

std::string Doc(const std::string& code, const std::string& extra = std::string()) {
  return "<Error><Code>" + code + "</Code><Message>m</Message>" + extra + "</Error>";
}

TEST(S3Errors, AnswersMapInTheTablesOrder) {
  const std::string aws4 = "<StringToSign>AWS4-HMAC-SHA256 ...</StringToSign>";
  const struct {
    long status;
    HttpFailure failure;
    std::string body;
    int code;
  } rows[] = {
      {400, HttpFailure::kNone, Doc("AuthorizationHeaderMalformed", aws4), kErrBadParameter},
      {500, HttpFailure::kNone, Doc("AuthorizationHeaderMalformed"), kErrBadParameter},
      {403, HttpFailure::kNone, Doc("RequestTimeTooSkewed", aws4), kErrClockSkew},
      {403, HttpFailure::kNone, Doc("SignatureDoesNotMatch", aws4), kErrNetwork},
      {404, HttpFailure::kNone, Doc("NoSuchKey", aws4), kErrNetwork},
      {400, HttpFailure::kNone, "plain text naming AWS4-HMAC-SHA256", kErrNetwork},
      {200, HttpFailure::kNone, Doc("AccessDenied", aws4), kErrAccessDenied},
      {403, HttpFailure::kNone, Doc("SignatureDoesNotMatch"), kErrAccessDenied},
      {403, HttpFailure::kNone, Doc("InvalidAccessKeyId"), kErrAccessDenied},
      {403, HttpFailure::kNone, Doc("AccessDenied"), kErrAccessDenied},
      {503, HttpFailure::kNone, Doc("AccessDenied"), kErrAccessDenied},
      {404, HttpFailure::kNone, Doc("NoSuchBucket"), kErrNotFound},
      {404, HttpFailure::kNone, Doc("NoSuchKey"), kErrNotFound},
      {403, HttpFailure::kNone, Doc("InvalidObjectState"), kErrNotFound},
      // No answer at all: what the transport said, else -1010.
      {0, HttpFailure::kNone, "", kErrBadParameter},
      {0, HttpFailure::kConnect, "", kErrNetwork},
      {0, HttpFailure::kTimeout, "", kErrNetwork},
      {0, HttpFailure::kReceive, Doc("NoSuchKey"), kErrNetwork},
      {0, HttpFailure::kCertificate, "", kErrAccessDenied},
      {0, HttpFailure::kStopped, "", kErrAborted},
      // Earlier -1116: the service's own trouble.
      {500, HttpFailure::kNone, Doc("InternalError"), kErrNetwork},
      {503, HttpFailure::kNone, Doc("SlowDown"), kErrNetwork},
      {502, HttpFailure::kNone, "", kErrNetwork},
      {200, HttpFailure::kNone, Doc("InternalError"), kErrNetwork},
      {200, HttpFailure::kNone, Doc("SlowDown"), kErrNetwork},
      // Without a code, the status's own.
      {404, HttpFailure::kNone, "", kErrNotFound},
      {403, HttpFailure::kNone, "<html/>", kErrAccessDenied},
      {400, HttpFailure::kNone, "not xml", kErrBadParameter},
      {304, HttpFailure::kNone, "", kErrBadParameter},
      {404, HttpFailure::kNone, "<Error><Message>no code</Message></Error>", kErrNotFound},
      // Any other code.
      {404, HttpFailure::kNone, Doc("NoSuchUpload"), kErrBadParameter},
      {409, HttpFailure::kNone, Doc("BucketAlreadyExists"), kErrBadParameter},
      {200, HttpFailure::kNone, Doc("NotAnError?"), kErrBadParameter},
  };
  for (const auto& row : rows) {
    S3ErrorSpec out;
    S3MapError(row.status, row.failure, row.body, std::string(), &out);
    EXPECT_EQ(out.code, row.code) << row.status << " " << row.body;
  }
}

TEST(S3Errors, NamesMessageAndRegionAreRead) {
  S3ErrorSpec out;
  S3MapError(400, HttpFailure::kNone, Doc("AuthorizationHeaderMalformed", "<Region>eu-west-1</Region>"),
             "HTTP/1.1 400 Bad Request\r\nx-amz-bucket-region: ap-south-1\r\n", &out);
  EXPECT_EQ(out.name, "AuthorizationHeaderMalformed");
  EXPECT_EQ(out.message, "m");
  EXPECT_EQ(out.region, "eu-west-1");
  S3MapError(400, HttpFailure::kNone, "", "X-Amz-Bucket-Region:  ap-south-1 \r\n", &out);
  EXPECT_EQ(out.region, "ap-south-1");
  EXPECT_EQ(out.name, "");
  // What is no region name is not taken: it would travel in headers.
  const std::string tooLong(65, 'a');
  const struct {
    const char* header;
    const char* document;
  } hostile[] = {{"eu\rwest-1", ""}, {"eu west", ""}, {"", "<Region>eu-west-1\nX-Evil: 1</Region>"},
                 {"", "<Region>eu-west-1&#13;</Region>"}, {tooLong.c_str(), ""}};
  for (const auto& h : hostile) {
    S3MapError(400, HttpFailure::kNone, Doc("AuthorizationHeaderMalformed", h.document),
               std::string("x-amz-bucket-region: ") + h.header + "\r\n", &out);
    EXPECT_EQ(out.region, "") << h.header << h.document;
  }
  EXPECT_TRUE(S3IsRegionName(std::string(64, 'a')));
}

TEST(S3Errors, HeaderValuesAreFoundByWholeNameCaseBlind) {
  const std::string block =
      "HTTP/1.1 200 OK\r\nETag: \"a\"\r\nx-amz-bucket-region-extra: no\r\nX-AMZ-BUCKET-REGION:\teu-west-1 \r\n"
      "Empty:\r\nLast: z";
  const struct {
    const char* name;
    const char* value;
  } cases[] = {{"etag", "\"a\""},   {"x-amz-bucket-region", "eu-west-1"}, {"empty", ""},
               {"last", "z"},       {"x-amz-bucket", ""},                 {"HTTP/1.1 200 OK", ""},
               {"missing", ""}};
  for (const auto& c : cases) EXPECT_EQ(S3HeaderValue(block, c.name), c.value) << c.name;
}

}  // namespace
