#include "tools/bucket_file.h"

#include <algorithm>
#include <vector>

#include "foundation/errors.h"
#include "foundation/tstring.h"
#include "tools/interrupt.h"

namespace {

constexpr uint64_t kZeroRun = 1 << 20;

}  // namespace

TBucketFile::TBucketFile(TCloudBucket* bucket, const std::string& key)
    : m_bucket(bucket), m_key(key), m_name(TStringFromUTF8(key)) {}

TBucketFile::~TBucketFile() { Abandon(); }

int TBucketFile::Refuse(const std::string& why) {
  m_refusal = why;
  return kErrNotPossible;
}

int TBucketFile::OpenForRead() {
  TCloudMetaData meta;
  int code = m_bucket->ObjectExists(m_name, &meta, true);
  if (code != 0) return code;
  std::string size = meta.GetHeader("Content-Length");
  if (size.empty() || size.find_first_not_of("0123456789") != std::string::npos || size.size() > 19) {
    return Refuse("the service gave no size for " + m_key);
  }
  m_length = std::stoull(size);
  m_writing = false;
  m_open = true;
  return 0;
}

int TBucketFile::OpenForWrite(uint64_t sizeHint) {
  int code = m_bucket->OpenFileForWrite(m_name, nullptr, sizeHint, true);
  if (code != 0) return code;
  m_open = true;
  m_writing = true;
  m_uploadOpen = true;
  m_length = 0;
  return 0;
}

int TBucketFile::Finish() {
  if (!m_uploadOpen) return Refuse("no upload is open for " + m_key);
  m_uploadOpen = false;
  return m_bucket->CloseFile();
}

int TBucketFile::Abandon() {
  if (!m_uploadOpen) return 0;
  m_uploadOpen = false;
  return m_bucket->DeleteWriteBuf();
}

int TBucketFile::ReadAt(uint64_t offset, void* buffer, uint32_t* count) {
  uint32_t asked = *count;
  *count = 0;
  if (m_writing) return Refuse("the container read back from its own upload");
  if (asked == 0) return 0;
  if (offset >= m_length) return kErrEndOfFile;
  uint64_t want = std::min<uint64_t>(asked, m_length - offset);
  uint64_t got = 0;
  int code = m_bucket->ReadFile(m_name, offset, buffer, want, &got);
  *count = static_cast<uint32_t>(got);
  if (code != 0) return code;
  return got < asked ? kErrEndOfFile : 0;
}

int TBucketFile::Append(const uint8_t* bytes, uint64_t count) {
  if (Interrupted()) return kErrAborted;
  int code = m_bucket->WriteToFile(bytes, count);
  if (code == 0) m_length += count;
  return code;
}

int TBucketFile::AppendZeros(uint64_t count) {
  std::vector<uint8_t> zeros(static_cast<size_t>(std::min(count, kZeroRun)), 0);
  while (count > 0) {
    uint64_t n = std::min<uint64_t>(count, zeros.size());
    int code = Append(zeros.data(), n);
    if (code != 0) return code;
    count -= n;
  }
  return 0;
}

int TBucketFile::WriteAt(uint64_t offset, const void* buffer, uint32_t* count) {
  uint64_t asked = *count;
  *count = 0;
  if (!m_uploadOpen) return Refuse("the object " + m_key + " is not open for writing");
  const uint8_t* bytes = static_cast<const uint8_t*>(buffer);
  if (offset < m_length) {
    uint64_t n = std::min(asked, m_length - offset);
    int code = m_bucket->RewriteFile(offset, bytes, n);
    if (code == kErrNotPossible) {
      return Refuse("the container went back to byte " + std::to_string(offset) + " of " + std::to_string(m_length) +
                    ", which the upload has sent already (it holds only its first part)");
    }
    if (code != 0) return code;
    *count = static_cast<uint32_t>(n);
    offset += n;
    bytes += n;
    asked -= n;
  }
  if (asked == 0) return 0;
  int code = offset > m_length ? AppendZeros(offset - m_length) : 0;
  if (code == 0) code = Append(bytes, asked);
  if (code == 0) *count += static_cast<uint32_t>(asked);
  return code;
}

int TBucketFile::GetLength(uint64_t* length) {
  *length = m_length;
  return 0;
}

int TBucketFile::SetLength(uint64_t length) {
  if (!m_uploadOpen) return Refuse("the object " + m_key + " is not open for writing");
  if (length < m_length) {
    return Refuse("the container cut its file to " + std::to_string(length) + " of " + std::to_string(m_length) +
                  " bytes, which an upload cannot take back");
  }
  return AppendZeros(length - m_length);
}
