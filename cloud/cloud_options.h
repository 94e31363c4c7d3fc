// TCloudOptions: where a backup's data lives in object storage.
//
// Fields: the location text (URI), the endpoint host, the bucket, the folder
// path inside the bucket, the access key, the secret key, the Google project,
// a flag word and a second word. The path, when not empty, always ends in
// "/". The URI is derived: SetFromURI rebuilds it with GetURI, Reset leaves
// it, and equality does not compare it. The second word belongs to the
// callers: it is copied, compared and reset to 0, never interpreted here.
//
// Location text. SetFromURI takes "HOST/BUCKET/PATH..." (no scheme), or a
// virtual-host form with the bucket in front of the service host
// ("BUCKET.s3.REGION.amazonaws.com/PATH..."). Blanks, tabs and line feeds
// around it are ignored. With flag kCloudVirtualHostAware the first token is
// searched, case-blind and in this order, for ".s3.", Google's storage host,
// Alibaba's OSS domain (then the split is at its ".oss-" marker) and
// DigitalOcean's Spaces domain (then the split is three dots back from the
// end); a hit with something in front of it is a virtual host: the bucket is
// the text in front of the split point, the host the text behind it, and
// flag kCloudVirtualHostURI is set. Otherwise token 0 is the host, token 1
// the bucket and the rest the path. With flag kCloudAzure the text first
// goes through the Azure location parser (cloud/azure/azure_location.h).
// SetFromURI replaces the bits of kCloudURIFlagMask from its argument and
// keeps every other bit.
//
// GetURI writes "BUCKET.HOST/PATH" for a virtual host and "HOST/BUCKET/PATH"
// otherwise, less one trailing "/"; with an empty host it writes nothing.
//
// Secrets. The secret key is never logged, formatted or compared in a way
// that shows it; it is overwritten when the options die or are reset.
//
// Plain value: copyable and assignable; one thread at a time.
#ifndef PLINTH_CLOUD_CLOUD_OPTIONS_H_
#define PLINTH_CLOUD_CLOUD_OPTIONS_H_

#include <cstdint>

#include "foundation/export.h"
#include "foundation/tobject.h"
#include "foundation/tstring.h"

// Flag bits.
constexpr uint32_t kCloudUseSSL = 0x0001;
// Recognise virtual-host style host names in SetFromURI.
constexpr uint32_t kCloudVirtualHostAware = 0x0020;
constexpr uint32_t kCloudBackblaze = 0x0040;
constexpr uint32_t kCloudDropbox = 0x0080;
constexpr uint32_t kCloudAzure = 0x0200;
// Set by SetFromURI when the bucket came from the front of the host name.
constexpr uint32_t kCloudVirtualHostURI = 0x4000;
// The bits SetFromURI takes from its flags argument.
constexpr uint32_t kCloudURIFlagMask = 0x02E0;
constexpr uint32_t kCloudDefaultFlags = kCloudUseSSL | kCloudVirtualHostAware;  // 33

class PLINTH_API TCloudOptions : public TObject {
 public:
  // Empty texts, flags 33, second word 0.
  TCloudOptions();
  TCloudOptions(const TCloudOptions& other);
  TCloudOptions& operator=(const TCloudOptions& other);
  virtual ~TCloudOptions();

  // Empties host, bucket, path, both keys and the project (not the URI);
  // flags 33, second word 0.
  void Reset();

  // Host, bucket, path, keys, project, flags and second word; not the URI.
  bool operator==(const TCloudOptions& other) const;
  bool operator!=(const TCloudOptions& other) const { return !(*this == other); }

  // Parses a location text into host, bucket and path (see above) and
  // rebuilds the URI. `option` goes to the Azure location parser.
  void SetFromURI(const TString& uri, unsigned flags, bool option);
  // The location text of the fields; `out` untouched when the host is empty.
  void GetURI(TString* out) const;
  // Empties `out`; for a host on the product's own cloud service domain
  // (kProductCloudDomain, found after the first character) fills it with
  // the region: the text in front of the domain less its dot, and when that
  // holds "s3.", less its first three characters.
  void GetRegion(TString* out) const;
  bool UseVirtualHostBasedURI() const { return (m_flags & kCloudVirtualHostURI) != 0; }
  // Stores the access key. On Google's storage host a key "PROJECT/KEY"
  // (a "/" at position 1 or later) is split: the project is kept apart and
  // KEY becomes the access key. The project is emptied first in every case.
  void SetAccessKey(const TString& key);

  const TString& GetURIText() const { return m_uri; }
  const TString& GetHost() const { return m_host; }
  const TString& GetBucket() const { return m_bucket; }
  const TString& GetPath() const { return m_path; }
  const TString& GetAccessKey() const { return m_accessKey; }
  const TString& GetSecretKey() const { return m_secretKey; }
  const TString& GetProject() const { return m_project; }
  uint32_t GetFlags() const { return m_flags; }
  uint32_t GetSecondWord() const { return m_secondWord; }

  void SetHost(const TString& host) { m_host = host; }
  void SetBucket(const TString& bucket) { m_bucket = bucket; }
  // Appends "/" to a non-empty path that lacks it.
  void SetPath(const TString& path);
  void SetSecretKey(const TString& key);
  void SetProject(const TString& project) { m_project = project; }
  void SetFlags(uint32_t flags) { m_flags = flags; }
  void SetSecondWord(uint32_t word) { m_secondWord = word; }

 private:
  void WipeSecret();

  TString m_uri;
  TString m_host;
  TString m_bucket;
  TString m_path;
  TString m_accessKey;
  TString m_secretKey;
  TString m_project;
  uint32_t m_flags = kCloudDefaultFlags;
  uint32_t m_secondWord = 0;
};

#endif  // PLINTH_CLOUD_CLOUD_OPTIONS_H_
