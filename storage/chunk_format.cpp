#include "storage/chunk_format.h"

#include <climits>
#include <cstring>

#include "containers/persist.h"
#include "security/crc32.h"

namespace {

// Converts a record read from the file into host order.
void FromFile(void* record, const char* layout, size_t size, bool bigEndian) {
  if (bigEndian) {
    BigEndianToHost(record, layout, size);
  } else {
    LittleEndianToHost(record, layout, size);
  }
}

void DecodeCurrentHeader(const unsigned char* bytes, bool bigEndian, CHChunkHdrSpec* header) {
  std::memcpy(header, bytes, kCHChunkHdrSize);
  FromFile(header, kCHChunkHdrLayout, kCHChunkHdrSize, bigEndian);
}

void Decode0100Header(const unsigned char* bytes, bool bigEndian, CHChunkHdrSpec* header) {
  CHChunkHdr0100Spec old;
  std::memcpy(&old, bytes, kCHChunkHdr0100Size);
  FromFile(&old, kCHChunkHdr0100Layout, kCHChunkHdr0100Size, bigEndian);
  std::memset(header, 0, sizeof(*header));
  header->type = old.type;
  header->id = old.id;
  header->length = old.length;
  header->generation = old.generation;
  header->extra = old.extra;
  header->flags = old.flags;
  header->checksum = old.checksum;
}

void DecodeHeaderIn(const unsigned char* bytes, bool is0100, bool bigEndian, CHChunkHdrSpec* header) {
  if (is0100) {
    Decode0100Header(bytes, bigEndian, header);
  } else {
    DecodeCurrentHeader(bytes, bigEndian, header);
  }
}

}  // namespace

void CHNewFileHeader(CHFileHeaderSpec* header) {
  std::memset(header, 0, sizeof(*header));
  header->magic = kCHMagic;
  header->oldestReader = kCHVersion0100;
  header->writer = kCHVersionCurrent;
  header->endOfSpace = kCHNewDataStart;
  header->unsaved = kCHUnsavedMarker;
  header->addressStep = kCHNewAddressStep;
  header->dataStart = kCHNewDataStart;
}

int CHDecodeFileHeader(const unsigned char* bytes, CHFileHeaderSpec* header, bool* bigEndian) {
  *bigEndian = false;
  std::memcpy(header, bytes, kCHFileHeaderSize);
  LittleEndianToHost(header, kCHFileHeaderLayout, kCHFileHeaderSize);
  int status = _checkpersist(reinterpret_cast<const PersistHeader*>(header), kCHMagic, kCHVersion0100,
                             kCHVersionCurrent);
  if (status == kErrPersistOtherOrder) {
    ChangeEndian(header, kCHFileHeaderLayout, kCHFileHeaderSize);
    *bigEndian = true;
    return 0;
  }
  return status;
}

void CHEncodeFileHeader(const CHFileHeaderSpec& header, unsigned char* bytes) {
  CHFileHeaderSpec copy = header;
  HostToLittleEndian(&copy, kCHFileHeaderLayout, kCHFileHeaderSize);
  std::memcpy(bytes, &copy, kCHFileHeaderSize);
}

bool CHDecodeChunkHeader(const unsigned char* bytes, bool is0100, bool bigEndian, uint32_t expectType,
                         CHChunkHdrSpec* header) {
  DecodeHeaderIn(bytes, is0100, bigEndian, header);
  if (expectType == 0 || header->type == expectType) return true;
  if (SwapUint32(header->type) != expectType) return false;
  DecodeHeaderIn(bytes, is0100, !bigEndian, header);
  return true;
}

void CHEncodeChunkHeader(const CHChunkHdrSpec& header, bool is0100, unsigned char* bytes) {
  if (!is0100) {
    // Reserved words are written as zero whatever the record held.
    CHChunkHdrSpec copy = header;
    copy.reserved0 = 0;
    copy.reserved40 = 0;
    copy.reserved44 = 0;
    std::memset(copy.reserved52, 0, sizeof(copy.reserved52));
    HostToLittleEndian(&copy, kCHChunkHdrLayout, kCHChunkHdrSize);
    std::memcpy(bytes, &copy, kCHChunkHdrSize);
    return;
  }
  CHChunkHdr0100Spec old;
  std::memset(&old, 0, sizeof(old));
  old.type = header.type;
  old.id = header.id;
  old.length = header.length;
  old.generation = header.generation;
  old.extra = header.extra;
  old.flags = header.flags;
  old.checksum = header.checksum;
  HostToLittleEndian(&old, kCHChunkHdr0100Layout, kCHChunkHdr0100Size);
  std::memcpy(bytes, &old, kCHChunkHdr0100Size);
}

void CHDecodeMapEntries(const unsigned char* bytes, size_t count, bool is0100, bool bigEndian,
                        CHMapEntrySpec* entries) {
  for (size_t i = 0; i < count; ++i) {
    CHMapEntrySpec* entry = &entries[i];
    if (!is0100) {
      std::memcpy(entry, bytes + i * kCHMapEntrySize, kCHMapEntrySize);
      FromFile(entry, kCHMapEntryLayout, kCHMapEntrySize, bigEndian);
      continue;
    }
    CHMapEntry0100Spec old;
    std::memcpy(&old, bytes + i * kCHMapEntry0100Size, kCHMapEntry0100Size);
    FromFile(&old, kCHMapEntry0100Layout, kCHMapEntry0100Size, bigEndian);
    std::memset(entry, 0, sizeof(*entry));
    entry->type = old.type;
    entry->id = old.id;
    entry->address = old.address;
    entry->slack = old.slack;
    entry->state = old.state;
    entry->extra = old.extra;
  }
}

void CHEncodeMapEntries(const CHMapEntrySpec* entries, size_t count, bool is0100, unsigned char* bytes) {
  for (size_t i = 0; i < count; ++i) {
    if (!is0100) {
      CHMapEntrySpec copy = entries[i];
      HostToLittleEndian(&copy, kCHMapEntryLayout, kCHMapEntrySize);
      std::memcpy(bytes + i * kCHMapEntrySize, &copy, kCHMapEntrySize);
      continue;
    }
    CHMapEntry0100Spec old;
    std::memset(&old, 0, sizeof(old));
    old.type = entries[i].type;
    old.id = entries[i].id;
    old.address = entries[i].address;
    old.slack = entries[i].slack;
    old.state = entries[i].state;
    old.extra = entries[i].extra;
    HostToLittleEndian(&old, kCHMapEntry0100Layout, kCHMapEntry0100Size);
    std::memcpy(bytes + i * kCHMapEntry0100Size, &old, kCHMapEntry0100Size);
  }
}

uint32_t CHChecksum(const unsigned char* data, uint64_t length) {
  unsigned int crc = 0;
  while (length > 0) {
    int part = length > static_cast<uint64_t>(INT_MAX) ? INT_MAX : static_cast<int>(length);
    crc = CRC32::update(crc, data, part);
    data += part;
    length -= static_cast<uint64_t>(part);
  }
  return crc == 0 ? 1 : crc;
}

uint32_t CHEncryptedChecksum(uint32_t type, uint64_t id, const unsigned char* data, uint64_t length) {
  // Chunks are refused long before 2 GiB, so one call covers the data.
  int n = length > static_cast<uint64_t>(INT_MAX) ? INT_MAX : static_cast<int>(length);
  return HashBlock(&id, type, data, n);
}
