#include "storage/chunk_writer.h"

#include <cstring>
#include <iterator>
#include <vector>

#include "foundation/errors.h"
#include "foundation/format_checked.h"
#include "storage/chunk_bytes.h"
#include "storage/chunk_manager.h"

namespace {

// One TFile transfer moves less than 4 GiB; larger data goes in pieces.
constexpr uint64_t kWritePiece = uint64_t{1} << 30;
// Chunk data is held in TMemory handles, whose sizes are below 2 GiB.
constexpr uint64_t kMaxStoredLength = 0x7FFFFFFF;
// Public types are non-negative; the free type is the only one above.
constexpr uint32_t kFirstNegativeType = 0x80000000;
constexpr uint64_t kUnsavedOffset = 32;

}  // namespace

TCHSequentialWriter::TCHSequentialWriter(TFile* target, bool is0100, uint32_t encryptionMarker, uint64_t generation)
    : m_target(target),
      m_is0100(is0100),
      m_encryption(encryptionMarker),
      m_generation(generation),
      m_hdrSize(CHChunkHdrSizeOf(is0100)) {}

int TCHSequentialWriter::OutOfOrder(const char16_t* operation) {
  TString name(operation);
  LogLineChecked(517, u"%s: the writer is not open for it, %E", &name, kErrBadParameter);
  return kErrBadParameter;
}

uint64_t TCHSequentialWriter::SlotLength(uint64_t stored) const {
  uint64_t step = kCHNewAddressStep;
  return (stored + step - 1) / step * step;
}

int TCHSequentialWriter::WriteBytes(uint64_t offset, const unsigned char* bytes, uint64_t length) {
  while (length > 0) {
    uint32_t count = static_cast<uint32_t>(length < kWritePiece ? length : kWritePiece);
    uint32_t asked = count;
    int code = m_target->WriteAt(offset, bytes, &count);
    if (code == 0 && count != asked) code = kErrUnknown;
    if (code != 0) return code;
    offset += count;
    bytes += count;
    length -= count;
  }
  return 0;
}

int TCHSequentialWriter::SyncUnless(int flags) {
  if ((flags & kCHSaveNoSync) != 0) return 0;
  return m_target->Sync();
}

int TCHSequentialWriter::Begin() {
  if (m_state != State::kNew) return OutOfOrder(u"TCHSequentialWriter::Begin");
  if (m_target == nullptr || !m_target->IsOpen() || !m_target->IsWritable()) {
    LogLineChecked(517, u"TCHSequentialWriter::Begin: target is not an open, writable file, %E", kErrBadParameter);
    return kErrBadParameter;
  }
  uint64_t length = 0;
  int code = m_target->GetLength(&length);
  if (code != 0) {
    LogLineChecked(517, u"TCHSequentialWriter::Begin: can't get the target's length, %E", code);
    return code;
  }
  if (length != 0) {
    LogLineChecked(517, u"TCHSequentialWriter::Begin: target is not empty (%~lu bytes), %E", length,
                   kErrBadParameter);
    return kErrBadParameter;
  }
  CHFileHeaderSpec header;
  CHNewFileHeader(&header);
  if (m_is0100) header.writer = kCHVersion0100;
  header.encryption = m_encryption;
  unsigned char bytes[kCHFileHeaderSize];
  CHEncodeFileHeader(header, bytes);
  code = WriteBytes(0, bytes, sizeof(bytes));
  if (code != 0) {
    m_state = State::kFailed;
    LogLineChecked(517, u"TCHSequentialWriter::Begin: can't write the header, %E", code);
    return code;
  }
  m_state = State::kOpen;
  return 0;
}

int TCHSequentialWriter::AddChunk(const CHChunkHdrSpec& header, const unsigned char* data) {
  if (m_state != State::kOpen) return OutOfOrder(u"TCHSequentialWriter::AddChunk");
  if (header.type >= kFirstNegativeType || header.type == kCHMapType) {
    LogLineChecked(517, u"TCHSequentialWriter::AddChunk: reserved type 0x%X, %E", header.type, kErrBadParameter);
    return kErrBadParameter;
  }
  if (header.length > kMaxStoredLength || (data == nullptr && header.length != 0)) {
    LogLineChecked(517, u"TCHSequentialWriter::AddChunk: bad data for type 0x%X, id = %~lu, %~lu bytes, %E",
                   header.type, header.id, header.length, kErrBadParameter);
    return kErrBadParameter;
  }
  Key key(header.type, header.id);
  if (m_entries.count(key) != 0) {
    LogLineChecked(517, u"TCHSequentialWriter::AddChunk: duplicate ID, type 0x%X, id = %~lu, %E", header.type,
                   header.id, kErrCHDuplicate);
    return kErrCHDuplicate;
  }

  unsigned char bytes[kCHChunkHdrSize];
  CHEncodeChunkHeader(header, m_is0100, bytes);

  uint64_t address = m_next;
  int code = WriteBytes(address, bytes, m_hdrSize);
  if (code == 0) code = WriteBytes(address + m_hdrSize, data, header.length);
  if (code != 0) {
    m_state = State::kFailed;
    LogLineChecked(517, u"TCHSequentialWriter::AddChunk: can't write type 0x%X, id = %~lu at %~lu, %E", header.type,
                   header.id, address, code);
    return code;
  }
  uint64_t used = m_hdrSize + header.length;
  uint64_t slot = SlotLength(used);
  CHMapEntrySpec entry;
  std::memset(&entry, 0, sizeof(entry));
  entry.type = header.type;
  entry.id = header.id;
  entry.address = static_cast<int64_t>(address);
  entry.slack = slot - used;
  entry.state = kCHStateHasSpace;
  m_entries.emplace(key, entry);
  m_next = address + slot;
  return 0;
}

int TCHSequentialWriter::Finish(int flags) {
  if (m_state != State::kOpen) return OutOfOrder(u"TCHSequentialWriter::Finish");
  CHFileHeaderSpec header;
  CHNewFileHeader(&header);
  if (m_is0100) header.writer = kCHVersion0100;
  header.encryption = m_encryption;

  if (!m_entries.empty()) {
    // The map's size is known before it is built: a head per group, each
    // chunk, and the map's own group of two.
    std::map<Key, CHMapEntrySpec> all = m_entries;
    size_t groups = 1;
    for (auto it = m_entries.begin(); it != m_entries.end(); ++it) {
      if (it == m_entries.begin() || std::prev(it)->first.first != it->first.first) ++groups;
    }
    size_t count = m_entries.size() + groups + 1;
    size_t entrySize = CHMapEntrySizeOf(m_is0100);
    uint64_t dataLength = static_cast<uint64_t>(count) * entrySize;
    uint64_t mapLength = m_hdrSize + dataLength;
    if (mapLength >= kCHMapLengthLimit) {
      m_state = State::kFailed;
      LogLineChecked(517, u"TCHSequentialWriter::Finish: map of %~lu entries is too large, %E",
                     static_cast<uint64_t>(count), kErrBadParameter);
      return kErrBadParameter;
    }
    uint64_t mapAddress = m_next;
    uint64_t mapSlot = SlotLength(mapLength);
    CHMapEntrySpec self;
    std::memset(&self, 0, sizeof(self));
    self.type = kCHMapType;
    self.id = 0;
    self.address = static_cast<int64_t>(mapAddress);
    self.slack = mapSlot - mapLength;
    self.state = kCHStateHasSpace;
    all.emplace(Key(kCHMapType, 0), self);

    std::vector<CHMapEntrySpec> entries;
    entries.reserve(count);
    for (auto it = all.begin(); it != all.end();) {
      uint32_t type = it->first.first;
      size_t head = entries.size();
      CHMapEntrySpec group;
      std::memset(&group, 0, sizeof(group));
      group.type = type;
      group.address = kCHGroupHeadAddress;
      entries.push_back(group);
      for (; it != all.end() && it->first.first == type; ++it) entries.push_back(it->second);
      entries[head].id = entries.size() - head - 1;
    }

    TCHBytes mapData;
    if (!mapData.Reserve(static_cast<size_t>(dataLength))) {
      m_state = State::kFailed;
      LogLineChecked(517, u"TCHSequentialWriter::Finish: not enough memory for the map, %E", kErrNoMemory);
      return kErrNoMemory;
    }
    CHEncodeMapEntries(entries.data(), entries.size(), m_is0100, mapData.Data());
    CHChunkHdrSpec mapHeader;
    std::memset(&mapHeader, 0, sizeof(mapHeader));
    mapHeader.type = kCHMapType;
    mapHeader.length = dataLength;
    mapHeader.generation = m_generation;
    mapHeader.checksum = CHChecksum(mapData.Data(), dataLength);
    unsigned char bytes[kCHChunkHdrSize];
    CHEncodeChunkHeader(mapHeader, m_is0100, bytes);
    int code = WriteBytes(mapAddress, bytes, m_hdrSize);
    if (code == 0) code = WriteBytes(mapAddress + m_hdrSize, mapData.Data(), dataLength);
    if (code != 0) {
      m_state = State::kFailed;
      LogLineChecked(517, u"TCHSequentialWriter::Finish: can't write the map at %~lu, %E", mapAddress, code);
      return code;
    }
    header.mapAddress = mapAddress;
    header.mapLength = mapLength;
    m_next = mapAddress + mapSlot;
  }
  header.endOfSpace = m_next;

  // The file ends where the space does, so that no byte lies outside a slot.
  int code = m_target->SetLength(m_next);
  if (code != 0) {
    m_state = State::kFailed;
    LogLineChecked(517, u"TCHSequentialWriter::Finish: can't set the end of the file, %E", code);
    return code;
  }
  unsigned char bytes[kCHFileHeaderSize];
  CHEncodeFileHeader(header, bytes);
  code = WriteBytes(0, bytes, sizeof(bytes));
  if (code == 0) code = SyncUnless(flags);
  if (code != 0) {
    m_state = State::kFailed;
    LogLineChecked(517, u"TCHSequentialWriter::Finish: can't write or sync the header, %E", code);
    return code;
  }
  const unsigned char saved[4] = {0, 0, 0, 0};
  code = WriteBytes(kUnsavedOffset, saved, sizeof(saved));
  if (code == 0) code = SyncUnless(flags);
  if (code != 0) {
    m_state = State::kFailed;
    LogLineChecked(517, u"TCHSequentialWriter::Finish: can't clear the unsaved marker, %E", code);
    return code;
  }
  m_state = State::kFinished;
  return 0;
}
