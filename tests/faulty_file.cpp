#include "tests/faulty_file.h"

#include "foundation/errors.h"

void TFaultyFile::CountOnly() {
  m_plan = Plan::kCount;
  m_faulted = false;
  m_writes = 0;
  m_syncs = 0;
}

void TFaultyFile::StopAfter(int writes) {
  CountOnly();
  m_plan = Plan::kStop;
  m_limit = writes;
}

void TFaultyFile::WritePrefixOf(int write, uint32_t bytes) {
  CountOnly();
  m_plan = Plan::kPrefix;
  m_limit = write;
  m_prefix = bytes;
}

void TFaultyFile::Record(CallKind kind, uint64_t offset, uint32_t count, uint32_t transferred, int status,
                         const void* bytes) {
  CallSpec call{kind, offset, count, transferred, status, {}};
  if (bytes != nullptr) {
    const auto* p = static_cast<const unsigned char*>(bytes);
    call.bytes.assign(p, p + count);
  }
  m_calls.push_back(std::move(call));
}

int TFaultyFile::WriteAt(uint64_t offset, const void* buffer, uint32_t* count) {
  const uint32_t asked = *count;
  const int number = ++m_writes;
  bool fails = m_faulted;
  uint32_t keep = 0;  // bytes a failing call still writes
  if (!fails && m_plan == Plan::kStop && number > m_limit) fails = true;
  if (!fails && m_plan == Plan::kPrefix && number >= m_limit) {
    fails = true;
    if (number == m_limit) keep = m_prefix == kHalf ? asked / 2 : (m_prefix < asked ? m_prefix : asked);
  }
  if (!fails) {
    int status = TFile::WriteAt(offset, buffer, count);
    Record(CallKind::kWrite, offset, asked, *count, status, buffer);
    return status;
  }
  m_faulted = true;
  *count = 0;
  if (keep > 0) {
    uint32_t part = keep;
    TFile::WriteAt(offset, buffer, &part);
    *count = part;
  }
  Record(CallKind::kWrite, offset, asked, *count, kErrWriteFault, buffer);
  return kErrWriteFault;
}

int TFaultyFile::SetLength(uint64_t length) {
  int status = m_faulted || m_failSetLength ? kErrWriteFault : TFile::SetLength(length);
  Record(CallKind::kSetLength, length, 0, 0, status, nullptr);
  return status;
}

int TFaultyFile::Flush() {
  int status = m_faulted ? kErrWriteFault : TFile::Flush();
  Record(CallKind::kFlush, 0, 0, 0, status, nullptr);
  return status;
}

int TFaultyFile::Sync() {
  ++m_syncs;
  int status = m_faulted || m_failSync ? kErrWriteFault : TFile::Sync();
  Record(CallKind::kSync, 0, 0, 0, status, nullptr);
  return status;
}
