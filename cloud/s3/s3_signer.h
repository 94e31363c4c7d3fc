// AWS Signature Version 4 of an S3 request.
//
// Signed headers: the signer walks a fixed list, in this order, and takes a
// header only when the request carries it (names compared case-blind):
//
//    1 host                              10 x-amz-meta-replicated
//    2 content-md5                       11 x-amz-metadata-directive
//    3 x-amz-bucket-object-lock-enabled  12 x-amz-object-lock-mode
//    4 x-amz-content-sha256              13 x-amz-object-lock-retain-until-date
//    5 x-amz-copy-source                 14 x-goog-bucket-retention-period
//    6 x-amz-copy-source-range           15 x-goog-content-sha256
//    7 x-amz-date                        16 x-goog-date
//    8 x-amz-meta-created                17 x-goog-project-id
//    9 x-amz-meta-modified
//
// (8 to 10 are the date keys of a default TCloudMetaData.) Each taken header
// gives "name:value\n" to the canonical headers and its name to the signed
// list, joined by ";"; the list is in alphabetical order, so nothing is
// sorted. Every other header goes unsigned.
//
// Canonical request: method, path (already encoded), the query sorted by
// encoded name and joined with "&" (each "name=value", both encoded by
// S3UriEncode, "name=" for an empty value), the canonical headers, the
// signed list and the payload hash, joined by "\n". Scope: date/region/
// service/aws4_request. String to sign: "AWS4-HMAC-SHA256\n", the time, the
// scope and the hex SHA-256 of the canonical request. Key: HMAC-SHA256
// chained from "AWS4" + secret over the date, region, service and
// "aws4_request"; the signature is the hex HMAC of the string to sign.
//
// S3SignRequest writes the canonical request, the string to sign and the
// authorization value to the debug log (selector 519), with
// "TS3Conn::s3_v4_authorization:canonicalRequest:",
// "TS3Conn::s3_v4_authorization:stringToSign:" and
// "TS3Conn::s3_v4_authorization:authorization:" in front. None of them
// holds the secret key.
#ifndef PLINTH_CLOUD_S3_S3_SIGNER_H_
#define PLINTH_CLOUD_S3_S3_SIGNER_H_

#include <string>
#include <utility>
#include <vector>

using S3Pairs = std::vector<std::pair<std::string, std::string>>;

struct S3SigningSpec {
  std::string method;
  std::string path;         // encoded, from "/"
  S3Pairs query;            // raw names and values
  S3Pairs headers;          // every header the request carries
  std::string payloadHash;  // hex SHA-256 of the body, or "UNSIGNED-PAYLOAD"
  std::string time;         // "%Y%m%dT%H%M%SZ"
  std::string region;
  std::string service;      // "s3"
  std::string accessKey;
};

struct S3SignatureSpec {
  std::string canonicalRequest;
  std::string signedHeaders;
  std::string stringToSign;
  std::string signature;
  std::string authorization;
};

// The encoded query string of the canonical request ("name=" for an empty
// value, as the signature wants).
std::string S3CanonicalQuery(const S3Pairs& query);
// The same query as the request line carries it: a name with an empty
// value goes bare ("?uploads", "?worm"), as the service documents them.
std::string S3UrlQuery(const S3Pairs& query);
// Signs with `secretKey`; false when the digest service fails.
bool S3SignRequest(const S3SigningSpec& request, const std::string& secretKey, S3SignatureSpec* out);

#endif  // PLINTH_CLOUD_S3_S3_SIGNER_H_
