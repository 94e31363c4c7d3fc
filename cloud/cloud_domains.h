// The host names and domain suffixes of the storage services the cloud code
// recognises, as each service publishes them. One place, so that a service
// moving its endpoints is one edit.
//
// All comparisons against them are case-blind: host names are.
#ifndef PLINTH_CLOUD_CLOUD_DOMAINS_H_
#define PLINTH_CLOUD_CLOUD_DOMAINS_H_

// Amazon S3: "BUCKET.s3.amazonaws.com", "BUCKET.s3.REGION.amazonaws.com".
inline constexpr char16_t kS3VirtualHostMarker[] = u".s3.";
inline constexpr char16_t kAmazonS3Domain[] = u"amazonaws.com";
// Google Cloud Storage (its S3-compatible XML interface):
// "storage.googleapis.com", "BUCKET.storage.googleapis.com".
inline constexpr char16_t kGoogleStorageHost[] = u"storage.googleapis.com";
inline constexpr char16_t kGoogleApisDomain[] = u"googleapis.com";
// Alibaba OSS: "oss-REGION.aliyuncs.com", "BUCKET.oss-REGION.aliyuncs.com".
inline constexpr char16_t kAlibabaOssDomain[] = u"aliyuncs.com";
inline constexpr char16_t kAlibabaOssMarker[] = u".oss-";
// DigitalOcean Spaces: "REGION.digitaloceanspaces.com",
// "BUCKET.REGION.digitaloceanspaces.com".
inline constexpr char16_t kDigitalOceanSpacesDomain[] = u"digitaloceanspaces.com";
// Azure Blob Storage: "ACCOUNT.blob.core.windows.net", and in the US
// Government cloud "ACCOUNT.blob.core.usgovcloudapi.net".
inline constexpr char16_t kAzureBlobDomain[] = u"blob.core.windows.net";
inline constexpr char16_t kAzureUsGovBlobDomain[] = u"blob.core.usgovcloudapi.net";
// Backblaze B2: "api.backblazeb2.com", "s3.REGION.backblazeb2.com".
inline constexpr char16_t kBackblazeB2Domain[] = u"backblazeb2.com";

// The product's own cloud service, whose hosts carry their region
// ("s3.REGION.<domain>", see TCloudOptions::GetRegion). Its real domain is
// the product's to give; this placeholder sits under the reserved ".invalid"
// top-level domain, so it can never name a real host by accident.
inline constexpr char16_t kProductCloudDomain[] = u"productcloud.invalid";

#endif  // PLINTH_CLOUD_CLOUD_DOMAINS_H_
