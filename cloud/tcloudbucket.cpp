#include "cloud/tcloudbucket.h"

#include <string>

#include "cloud/azure/tazureblobconn.h"
#include "cloud/backblaze/tbackblazeconn.h"
#include "cloud/cloud_bandwidth.h"
#include "cloud/cloud_read_file.h"
#include "cloud/cloud_write_file.h"
#include "cloud/dropbox/tdropboxconn.h"
#include "cloud/s3/ts3conn.h"
#include "cloud/storage_group.h"
#include "foundation/errors.h"
#include "foundation/format_checked.h"
#include "foundation/tmemory.h"

namespace {


int NoConnector(const char16_t* operation) {
  TString op(operation);
  LogLineChecked(514, u"TCloudBucket::%s: no connector, %E", &op, kErrNotPossible);
  return kErrNotPossible;
}

}  // namespace

TCloudBucket::TCloudBucket(const TCloudOptions& options, TCloudProgressFn progress, void* context,
                           unsigned uploadAttempt, unsigned downloadAttempt)
    : TCloudOptions(options),
      m_progress(progress),
      m_context(context),
      m_uploadAttempt(uploadAttempt),
      m_downloadAttempt(downloadAttempt) {
  m_retention.Reset();
  LogLineChecked(519, u"TCloudBucket: useSSL=%u", GetFlags() & kCloudUseSSL);
}

TCloudBucket::~TCloudBucket() {
  m_writeFile.reset();
  m_readFile.reset();
  m_conn.reset();
}

void TCloudBucket::SetLimits(int upBytesPerSecond, int downBytesPerSecond) {
  CloudUploadLimiter().SetRate(upBytesPerSecond > 0 ? static_cast<uint64_t>(upBytesPerSecond) : 0);
  CloudDownloadLimiter().SetRate(downBytesPerSecond > 0 ? static_cast<uint64_t>(downBytesPerSecond) : 0);
}

bool TCloudBucket::IsRetryError(int code) { return CloudIsRetryError(code); }

const TCloudClock* TCloudBucket::Clock() const { return TCloudClock::System(); }

CloudFileSpec TCloudBucket::FileSpec(unsigned attempts) const {
  CloudFileSpec setup;
  setup.conn = m_conn;
  setup.retry = RetrySpec(attempts);
  setup.progress = m_progress;
  setup.context = m_context;
  setup.clock = Clock();
  return setup;
}

std::shared_ptr<TCloudConn> TCloudBucket::NewCloudConn() {
  const TCloudOptions& options = *this;
  uint32_t flags = GetFlags();
  if ((flags & kCloudDropbox) != 0) return std::make_shared<TDropboxConn>(options);
  if ((flags & kCloudBackblaze) != 0) return std::make_shared<TBackblazeConn>(options);
  if ((flags & kCloudAzure) != 0) return std::make_shared<TAzureBlobConn>(options);
  return std::make_shared<TS3Conn>(options);
}

TCloudConn* TCloudBucket::getCloudConn() {
  if (!m_conn) {
    m_conn = NewCloudConn();
    if (m_conn) m_conn->ReadSettings();
  }
  return m_conn.get();
}

CloudRetrySpec TCloudBucket::RetrySpec(unsigned attempts) const {
  CloudRetrySpec rules;
  rules.attempts = attempts == 0 ? 1 : attempts;
  rules.baseMs = m_backoffBaseMs;
  rules.capMs = m_backoffCapMs;
  return rules;
}

void TCloudBucket::SetRetryBackoff(uint32_t baseMs, uint32_t capMs) {
  m_backoffBaseMs = baseMs;
  m_backoffCapMs = capMs < baseMs ? baseMs : capMs;
}

TString TCloudBucket::CreateBucket(const TString& region, bool objectLock, uint32_t retentionDays) {
  TCloudConn* conn = getCloudConn();
  if (conn == nullptr) {
    NoConnector(u"CreateBucket");
    return TString(u"NotImplemented");
  }
  return conn->CreateBucket(region, objectLock, retentionDays);
}

int TCloudBucket::Erase(const TString& path) {
  TCloudConn* conn = getCloudConn();
  return conn != nullptr ? conn->Erase(path) : NoConnector(u"Erase");
}

int TCloudBucket::GetFoldersAndFiles(const TString& path, std::vector<TCloudObject>* folders,
                                     std::vector<TCloudObject>* files, bool untilComplete,
                                     ContinuationMarker* marker) {
  TCloudConn* conn = getCloudConn();
  if (conn == nullptr) return NoConnector(u"GetFoldersAndFiles");
  return conn->GetFoldersAndFiles(path, folders, files, untilComplete, marker, kCloudNoLimit);
}

int TCloudBucket::GetAllObjectsInPath(const TString& path, std::vector<TCloudObject>& objects, bool untilComplete,
                                      ContinuationMarker* marker) {
  TCloudConn* conn = getCloudConn();
  return conn != nullptr ? conn->GetAllObjectsInPath(path, objects, untilComplete, marker)
                         : NoConnector(u"GetAllObjectsInPath");
}

int TCloudBucket::AcquireAccessToken(const TString& clientId, const TString& clientSecret, const TString& grant,
                                     TString* accessToken, const TString& redirect) {
  TCloudConn* conn = getCloudConn();
  return conn != nullptr ? conn->AcquireAccessToken(clientId, clientSecret, grant, accessToken, redirect)
                         : NoConnector(u"AcquireAccessToken");
}

int TCloudBucket::ObjectExists(const TString& name, TCloudMetaData* meta, bool quiet) {
  TCloudConn* conn = getCloudConn();
  return conn != nullptr ? conn->ObjectExists(name, meta, quiet) : NoConnector(u"ObjectExists");
}

int TCloudBucket::DeleteCloudObject(const TString& name) {
  TCloudConn* conn = getCloudConn();
  return conn != nullptr ? conn->DeleteCloudObject(name) : NoConnector(u"DeleteCloudObject");
}

int TCloudBucket::ExtendRetentionOnObject(const TString& name, const TDate* date) {
  TCloudConn* conn = getCloudConn();
  if (conn == nullptr) return NoConnector(u"ExtendRetentionOnObject");
  return conn->put_ObjectLock(name, date != nullptr ? *date : m_retention);
}

int TCloudBucket::CopyObject(const TString& source, const TString& target, uint64_t size, uint64_t createdFileTime,
                             uint64_t modifiedFileTime, const TDate* replicated, const TDate* retainUntil) {
  TCloudConn* conn = getCloudConn();
  if (conn == nullptr) return NoConnector(u"CopyObject");
  return conn->CopyObject(source, target, size, createdFileTime, modifiedFileTime, replicated, retainUntil);
}

int TCloudBucket::Verify() {
  TCloudConn* conn = getCloudConn();
  if (conn == nullptr) return NoConnector(u"Verify");
  CloudRetrySpec rules = RetrySpec(kCloudVerifyTries);
  int code = 0;
  for (uint32_t attempt = 1; attempt <= kCloudVerifyTries; ++attempt) {
    code = conn->Verify();
    if (code != kErrNetwork || attempt == kCloudVerifyTries) break;
    CloudPause(rules, Clock(), attempt + 1, [] { return false; });
  }
  return code;
}

void TCloudBucket::SetBackupRetentionDate(const TDate* date) {
  if (date == nullptr) {
    m_retention.Reset();
    return;
  }
  m_retention = *date;
}

int TCloudBucket::OpenFileForWrite(const TString& name, const TCloudMetaData* meta, uint64_t sizeHint,
                                   bool holdFirstPart) {
  if (m_writeFile) {
    TString open = m_writeFile->Name();
    LogLineChecked(514, u"TCloudBucket::OpenFileForWrite: %s is still open, %E", &open, kErrInUse);
    return kErrInUse;
  }
  if (name.IsEmpty()) {
    LogLineChecked(514, u"TCloudBucket::OpenFileForWrite: no name, %E", kErrBadParameter);
    return kErrBadParameter;
  }
  if (getCloudConn() == nullptr) return NoConnector(u"OpenFileForWrite");
  m_writeFile = std::make_shared<TCloudWriteFile>(FileSpec(m_uploadAttempt), name, meta, sizeHint, m_retention,
                                                  holdFirstPart);
  return 0;
}

int TCloudBucket::WriteToFile(const void* data, uint64_t size) {
  if (!m_writeFile) {
    LogLineChecked(514, u"TCloudBucket::WriteToFile: no file is open, %E", kErrNotPossible);
    return kErrNotPossible;
  }
  return m_writeFile->Write(data, size);
}

int TCloudBucket::RewriteFile(uint64_t offset, const void* data, uint64_t size) {
  if (!m_writeFile) {
    LogLineChecked(514, u"TCloudBucket::RewriteFile: no file is open, %E", kErrNotPossible);
    return kErrNotPossible;
  }
  return m_writeFile->Rewrite(offset, data, size);
}

int TCloudBucket::CloseFile() {
  if (!m_writeFile) {
    LogLineChecked(514, u"TCloudBucket::CloseFile: no file is open, %E", kErrNotPossible);
    return kErrNotPossible;
  }
  std::shared_ptr<TCloudWriteFile> file = std::move(m_writeFile);
  return file->Close();
}

int TCloudBucket::DeleteWriteBuf() {
  if (!m_writeFile) return 0;
  std::shared_ptr<TCloudWriteFile> file = std::move(m_writeFile);
  return file->Abort();
}

int TCloudBucket::ReadFile(const TString& name, uint64_t offset, void* buffer, uint64_t size, uint64_t* got) {
  uint64_t ignored = 0;
  if (got == nullptr) got = &ignored;
  *got = 0;
  if (!m_readFile || !(m_readFile->Name() == name)) {
    m_readFile.reset();
    if (getCloudConn() == nullptr) return NoConnector(u"ReadFile");
    auto file =
        std::make_shared<TCloudReadFile>(FileSpec(m_downloadAttempt), name);
    int code = file->Open();
    if (code != 0) return code;
    m_readFile = std::move(file);
  }
  return m_readFile->Read(offset, buffer, size, got);
}

int TCloudBucket::ReadToTMemory(const TString& name, TMemory* out, uint64_t offset, uint64_t length) {
  if (out == nullptr) {
    LogLineChecked(514, u"TCloudBucket::ReadToTMemory: no memory block, %E", kErrBadParameter);
    return kErrBadParameter;
  }
  if (getCloudConn() == nullptr) return NoConnector(u"ReadToTMemory");
  CloudFileSpec setup = FileSpec(m_downloadAttempt);
  uint64_t size = 0;
  std::string etag;
  int code = CloudObjectSize(setup, name, u"TCloudBucket::ReadToTMemory", &size, &etag);
  if (code != 0) return code;
  if (offset > size || (length != UINT64_MAX && length > size - offset)) {
    LogLineChecked(514, u"TCloudBucket::ReadToTMemory: %s holds %~lu bytes, %E", &name, size, kErrEndOfFile);
    return kErrEndOfFile;
  }
  if (length == UINT64_MAX) length = size - offset;
  return ReadKnownToTMemory(setup, name, offset, length, etag, out);
}

int TCloudBucket::ReadToTMemory(const TCloudObject& listed, TMemory* out) {
  const TString& name = listed.GetName();
  if (out == nullptr || listed.IsFolder()) {
    LogLineChecked(514, u"TCloudBucket::ReadToTMemory: %s is no object to read, %E", &name, kErrBadParameter);
    return kErrBadParameter;
  }
  if (getCloudConn() == nullptr) return NoConnector(u"ReadToTMemory");
  return ReadKnownToTMemory(FileSpec(m_downloadAttempt), name, 0, listed.GetSize(),
                            TStringAsString(listed.GetETag()), out);
}

int TCloudBucket::ReadKnownToTMemory(const CloudFileSpec& setup, const TString& name, uint64_t offset,
                                     uint64_t length, const std::string& etag, TMemory* out) {
  if (length > UINT32_MAX) {
    LogLineChecked(514, u"TCloudBucket::ReadToTMemory: %~lu bytes of %s do not fit a block, %E", length, &name,
                   kErrFileTooLarge);
    return kErrFileTooLarge;
  }
  int code = out->AllocBuffer(length);
  if (code != 0) return code;
  if (length == 0) return 0;
  TMemoryPin pin(*out);
  if (pin.Get() == nullptr) return out->CheckError() != 0 ? out->CheckError() : kErrNoMemory;
  code = CloudReadRange(setup, name, offset, length, etag, pin.Get());
  if (code != 0) out->SetSize(0);
  return code;
}

int TCloudBucket::CreateCloudStorageGroupFile(const TString& groupName) {
  CloudStorageGroupSpec group;
  group.name = groupName;
  group.host = GetHost();
  group.bucket = GetBucket();
  group.path = GetPath();
  group.flags = GetFlags();
  group.created.SetToCurrentDate();
  std::string text;
  int code = FormatCloudStorageGroup(group, &text);
  if (code != 0) return code;
  TCloudConn* conn = getCloudConn();
  if (conn == nullptr) return NoConnector(u"CreateCloudStorageGroupFile");
  CloudUploadSpec put;
  put.name = TString(kCloudStorageGroupObject);
  const uint8_t* bytes = reinterpret_cast<const uint8_t*>(text.data());
  code = CloudRetry(
      RetrySpec(m_uploadAttempt), Clock(), u"TCloudBucket::CreateCloudStorageGroupFile",
      [&](uint32_t) {
        std::string etag;
        return conn->UploadBytes(put, bytes, text.size(), &etag);
      },
      [] { return false; });
  if (code != 0) {
    LogLineChecked(514, u"TCloudBucket::CreateCloudStorageGroupFile: cannot store %s, %E", &put.name, code);
  }
  return code;
}
