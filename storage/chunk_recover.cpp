#include "storage/chunk_recover.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <utility>

#include "foundation/errors.h"
#include "foundation/format_checked.h"
#include "security/crc32.h"
#include "storage/chunk_bytes.h"
#include "storage/chunk_format.h"
#include "storage/chunk_writer.h"

void TCHRecoverReport::Clear() {
  *this = TCHRecoverReport();
}

namespace {

// The scan reads the source through a window this large, so that a file of
// hundreds of megabytes costs a few hundred reads, not one per position.
constexpr size_t kWindow = size_t{1} << 20;
constexpr uint64_t kReadPiece = uint64_t{1} << 30;
// Address steps beyond this are taken for damage, not for a layout.
constexpr uint32_t kMaxAddressStep = 1 << 16;
constexpr uint32_t kFirstNegativeType = 0x80000000;
constexpr uint64_t kMaxChunkLength = 0x7FFFFFFF;

using Key = std::pair<uint32_t, uint64_t>;

// Positioned reads of the source through one window. Every request is
// checked against the length taken at the start; nothing reads past it.
class TCHSourceReader : public TObject {
 public:
  TCHSourceReader(TFile* file, uint64_t length) : m_file(file), m_length(length) {}

  uint64_t Length() const { return m_length; }

  // Points *bytes at the `n` (at most kWindow) bytes at `offset`.
  int Get(uint64_t offset, size_t n, const unsigned char** bytes) {
    if (n > kWindow || offset > m_length || n > m_length - offset) return kErrBadParameter;
    if (m_data.Data() == nullptr || offset < m_start || offset + n > m_start + m_filled) {
      if (!m_data.Reserve(kWindow)) {
        LogLineChecked(517, u"CHRecover: not enough memory for the read window, %E", kErrNoMemory);
        return kErrNoMemory;
      }
      uint64_t want = std::min<uint64_t>(kWindow, m_length - offset);
      int code = ReadRaw(offset, m_data.Data(), want);
      if (code != 0) return code;
      m_start = offset;
      m_filled = static_cast<size_t>(want);
    }
    *bytes = m_data.Data() + (offset - m_start);
    return 0;
  }

  // Copies `n` bytes at `offset` into `out`, past the window.
  int Copy(uint64_t offset, uint64_t n, unsigned char* out) {
    if (offset > m_length || n > m_length - offset) return kErrBadParameter;
    return ReadRaw(offset, out, n);
  }

 private:
  int ReadRaw(uint64_t offset, unsigned char* out, uint64_t n) {
    while (n > 0) {
      uint32_t count = static_cast<uint32_t>(std::min(n, kReadPiece));
      uint32_t asked = count;
      int code = m_file->ReadAt(offset, out, &count);
      if (code == 0 && count != asked) code = kErrEndOfFile;
      if (code != 0) {
        LogLineChecked(517, u"CHRecover: can't read %~u bytes of the source at %~lu, %E", asked, offset, code);
        return code;
      }
      offset += count;
      out += count;
      n -= count;
    }
    return 0;
  }

  TFile* m_file;
  uint64_t m_length;
  TCHBytes m_data;
  uint64_t m_start = 0;
  size_t m_filled = 0;
};

// How the source is read.
struct LayoutSpec {
  bool is0100 = false;
  bool bigEndian = false;
  uint32_t step = kCHNewAddressStep;
  uint64_t dataStart = kCHNewDataStart;
  size_t hdrSize = kCHChunkHdrSize;
};

// A chunk header read at `address` in the byte order `bigEndian`.
struct FoundSpec {
  CHChunkHdrSpec hdr;
  int64_t address;
  bool bigEndian;
};

// What the bytes at an address must name; nothing checked by default.
struct WantSpec {
  bool checkType = false;
  uint32_t type = 0;
  bool checkId = false;
  uint64_t id = 0;
};

enum class HeaderFit { kNone, kNames, kFits };

uint64_t RoundUp(uint64_t value, uint64_t step) {
  uint64_t rest = value % step;
  return rest == 0 ? value : value + (step - rest);
}

bool AllZero(const unsigned char* bytes, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (bytes[i] != 0) return false;
  }
  return true;
}

// The reserved words of a stored chunk header are zero in either byte
// order, so this cheap test comes before any decoding.
bool ReservedZero(const unsigned char* b, bool is0100) {
  if (is0100) return AllZero(b + 36, 8) && AllZero(b + 48, 8);
  return AllZero(b + 4, 4) && AllZero(b + 40, 8) && AllZero(b + 52, 12);
}

// Checks the stored data of a header that fits the file against its
// checksum.
int VerifyData(TCHSourceReader* reader, const LayoutSpec& layout, const FoundSpec& found, bool* ok) {
  *ok = false;
  const CHChunkHdrSpec& hdr = found.hdr;
  uint64_t offset = static_cast<uint64_t>(found.address) + layout.hdrSize;
  bool encrypted = (hdr.flags & kCHFlagEncrypted) != 0;
  uint32_t sum = 0;
  if (hdr.length <= kWindow) {
    const unsigned char* data = nullptr;
    int code = reader->Get(offset, static_cast<size_t>(hdr.length), &data);
    if (code != 0) return code;
    sum = encrypted ? CHEncryptedChecksum(hdr.type, hdr.id, data, hdr.length) : CHChecksum(data, hdr.length);
  } else if (!encrypted) {
    // The CRC chains, so large data is summed window by window.
    unsigned int crc = 0;
    for (uint64_t done = 0; done < hdr.length;) {
      size_t n = static_cast<size_t>(std::min<uint64_t>(kWindow, hdr.length - done));
      const unsigned char* data = nullptr;
      int code = reader->Get(offset + done, n, &data);
      if (code != 0) return code;
      crc = CRC32::update(crc, data, static_cast<int>(n));
      done += n;
    }
    sum = crc == 0 ? 1 : crc;
  } else {
    TCHBytes whole;
    if (!whole.Reserve(static_cast<size_t>(hdr.length))) {
      LogLineChecked(517, u"CHRecover: not enough memory to check %~lu bytes, %E", hdr.length, kErrNoMemory);
      return kErrNoMemory;
    }
    int code = reader->Copy(offset, hdr.length, whole.Data());
    if (code != 0) return code;
    sum = CHEncryptedChecksum(hdr.type, hdr.id, whole.Data(), hdr.length);
  }
  *ok = sum == hdr.checksum;
  return 0;
}

// Reads the chunk at `address` in the layout's byte order, then in the
// other, and stops at the first reading that names what is wanted, fits the
// file and verifies. *fit and *ok describe the best reading, kept in *found.
int CheckChunkAt(TCHSourceReader* reader, const LayoutSpec& layout, uint64_t address, const WantSpec& want,
                 FoundSpec* found, HeaderFit* fit, bool* ok) {
  *fit = HeaderFit::kNone;
  *ok = false;
  uint64_t length = reader->Length();
  if (address > length || layout.hdrSize > length - address) return 0;
  const unsigned char* bytes = nullptr;
  int code = reader->Get(address, layout.hdrSize, &bytes);
  if (code != 0) return code;
  if (!ReservedZero(bytes, layout.is0100)) return 0;
  // Checking the data moves the window: the header is read from a copy.
  unsigned char raw[kCHChunkHdrSize];
  std::memcpy(raw, bytes, layout.hdrSize);
  uint64_t room = length - address - layout.hdrSize;
  for (int pass = 0; pass < 2; ++pass) {
    FoundSpec reading;
    reading.address = static_cast<int64_t>(address);
    reading.bigEndian = pass == 0 ? layout.bigEndian : !layout.bigEndian;
    CHDecodeChunkHeader(raw, layout.is0100, reading.bigEndian, 0, &reading.hdr);
    const CHChunkHdrSpec& hdr = reading.hdr;
    // The manager stores no type with the top bit set (the free type is
    // one) and no chunk of 2 GiB or more.
    if (hdr.type >= kFirstNegativeType || hdr.checksum == 0) continue;
    if (want.checkType && hdr.type != want.type) continue;
    if (want.checkId && hdr.id != want.id) continue;
    bool fits = hdr.length <= room && hdr.length <= kMaxChunkLength;
    HeaderFit readingFit = fits ? HeaderFit::kFits : HeaderFit::kNames;
    bool good = false;
    if (readingFit == HeaderFit::kFits) {
      code = VerifyData(reader, layout, reading, &good);
      if (code != 0) return code;
    }
    if (readingFit > *fit || good) {
      *fit = readingFit;
      *found = reading;
      *ok = good;
    }
    if (good) return 0;
  }
  return 0;
}

// Every verified chunk from the data start on, at step alignment.
int Scan(TCHSourceReader* reader, const LayoutSpec& layout, std::vector<FoundSpec>* found) {
  found->clear();
  uint64_t length = reader->Length();
  uint64_t position = layout.dataStart;
  WantSpec any;
  while (position < length && layout.hdrSize <= length - position) {
    FoundSpec chunk;
    HeaderFit fit = HeaderFit::kNone;
    bool ok = false;
    int code = CheckChunkAt(reader, layout, position, any, &chunk, &fit, &ok);
    if (code != 0) return code;
    // The CRC of zero bytes (and of no bytes) is 0, stored as 1: a checksum
    // of 1 proves nothing, since any zeros with a 1 in the right place
    // (chunk headers and map entries side by side do this) would pass.
    if (ok && chunk.hdr.checksum == 1) ok = false;
    if (!ok) {
      position += layout.step;
      continue;
    }
    found->push_back(chunk);
    uint64_t end = position + layout.hdrSize + chunk.hdr.length;
    position = layout.dataStart + RoundUp(end - layout.dataStart, layout.step);
  }
  return 0;
}

const char16_t* ReasonText(int reason) {
  switch (reason) {
    case kCHRecoverFromMap: return u"named by the map";
    case kCHRecoverNewerCopy: return u"a newer copy found by the scan";
    case kCHRecoverScanned: return u"found by the scan, no usable map";
    case kCHRecoverBadChecksum: return u"checksum fails";
    case kCHRecoverWrongChunk: return u"the header there does not name the chunk";
    case kCHRecoverOutOfFile: return u"out of the file";
    case kCHRecoverStale: return u"a stale copy older than the map";
    case kCHRecoverSuperseded: return u"superseded by a newer copy";
    default: return u"unknown reason";
  }
}

CHRecoverItemSpec Item(const FoundSpec& found, int reason) {
  return CHRecoverItemSpec{found.hdr.type, found.hdr.id, found.address, found.hdr.length, found.hdr.generation,
                           reason};
}

void LogItem(bool kept, const CHRecoverItemSpec& item) {
  TString why(ReasonText(item.reason));
  if (kept) {
    LogLineChecked(519, u"CHRecover: kept type 0x%X, id = %~lu at %~ld, generation %~lu: %s", item.type, item.id,
                   item.address, item.generation, &why);
  } else {
    LogLineChecked(519, u"CHRecover: dropped type 0x%X, id = %~lu at %~ld, generation %~lu: %s", item.type, item.id,
                   item.address, item.generation, &why);
  }
}

// The chunks chosen so far, by type and id, with the copy to write.
struct ChoiceSpec {
  FoundSpec found;
  int reason;
};

class TCHRecovery : public TObject {
 public:
  TCHRecovery(TFile* source, TFile* target, uint64_t length, TCHRecoverReport* report)
      : m_reader(source, length), m_target(target), m_report(report) {}

  int Run();

 private:
  int ReadLayout();
  int ChooseMap(std::vector<CHMapEntrySpec>* entries);
  int ReadMapEntries(const FoundSpec& map, std::vector<CHMapEntrySpec>* entries, bool* usable);
  int TakeBase(const std::vector<CHMapEntrySpec>& entries);
  void TakeScanned();
  int Write();
  void Drop(const CHRecoverItemSpec& item) {
    LogItem(false, item);
    m_report->dropped.push_back(item);
  }
  void Seen(uint64_t generation) { m_highest = std::max(m_highest, generation); }

  TCHSourceReader m_reader;
  TFile* m_target;
  TCHRecoverReport* m_report;
  LayoutSpec m_layout;
  CHFileHeaderSpec m_header{};
  bool m_headerUsable = false;
  std::vector<FoundSpec> m_found;
  bool m_mapFound = false;
  FoundSpec m_map{};
  uint64_t m_highest = 0;
  std::map<Key, ChoiceSpec> m_chosen;
};

int TCHRecovery::ReadLayout() {
  uint64_t length = m_reader.Length();
  if (length >= kCHFileHeaderSize) {
    const unsigned char* bytes = nullptr;
    int code = m_reader.Get(0, kCHFileHeaderSize, &bytes);
    if (code != 0) return code;
    bool big = false;
    m_headerUsable = CHDecodeFileHeader(bytes, &m_header, &big) == 0;
    if (m_headerUsable) {
      m_layout.is0100 = m_header.writer == kCHVersion0100;
      m_layout.bigEndian = big;
      m_layout.hdrSize = CHChunkHdrSizeOf(m_layout.is0100);
      if (m_header.addressStep >= 1 && m_header.addressStep <= kMaxAddressStep) m_layout.step = m_header.addressStep;
      if (m_header.dataStart >= kCHFileHeaderSize && m_header.dataStart % m_layout.step == 0) {
        m_layout.dataStart = m_header.dataStart;
      }
    }
  }
  m_report->headerUsable = m_headerUsable;
  if (m_headerUsable) return Scan(&m_reader, m_layout, &m_found);

  // Without a header both generations are tried; the one that verifies
  // more chunks is taken to be the file's.
  LogLineChecked(519, u"CHRecover: the file header is unusable, scanning both generations");
  int code = Scan(&m_reader, m_layout, &m_found);
  if (code != 0) return code;
  LayoutSpec old = m_layout;
  old.is0100 = true;
  old.hdrSize = kCHChunkHdr0100Size;
  std::vector<FoundSpec> oldFound;
  code = Scan(&m_reader, old, &oldFound);
  if (code != 0) return code;
  if (oldFound.size() > m_found.size()) {
    m_layout = old;
    m_found = std::move(oldFound);
  }
  return 0;
}

int TCHRecovery::ReadMapEntries(const FoundSpec& map, std::vector<CHMapEntrySpec>* entries, bool* usable) {
  *usable = false;
  size_t entrySize = CHMapEntrySizeOf(m_layout.is0100);
  uint64_t length = map.hdr.length;
  if (length % entrySize != 0) return 0;
  TCHBytes bytes;
  if (!bytes.Reserve(static_cast<size_t>(length))) {
    LogLineChecked(517, u"CHRecover: not enough memory for a map of %~lu bytes, %E", length, kErrNoMemory);
    return kErrNoMemory;
  }
  int code = m_reader.Copy(static_cast<uint64_t>(map.address) + m_layout.hdrSize, length, bytes.Data());
  if (code != 0) return code;
  size_t count = static_cast<size_t>(length / entrySize);
  entries->assign(count, CHMapEntrySpec{});
  CHDecodeMapEntries(bytes.Data(), count, m_layout.is0100, map.bigEndian, entries->data());
  *usable = true;
  return 0;
}

int TCHRecovery::ChooseMap(std::vector<CHMapEntrySpec>* entries) {
  std::vector<FoundSpec> candidates;
  bool headerMap = false;
  if (m_headerUsable && m_header.mapAddress >= 1) {
    WantSpec want;
    want.checkType = true;
    want.type = kCHMapType;
    FoundSpec map;
    HeaderFit fit = HeaderFit::kNone;
    bool ok = false;
    int code = CheckChunkAt(&m_reader, m_layout, m_header.mapAddress, want, &map, &fit, &ok);
    if (code != 0) return code;
    if (ok) {
      candidates.push_back(map);
      headerMap = true;
    } else {
      LogLineChecked(519, u"CHRecover: the header's map at %~lu does not verify", m_header.mapAddress);
    }
  }
  for (const FoundSpec& found : m_found) {
    if (found.hdr.type != kCHMapType) continue;
    if (headerMap && found.address == candidates[0].address) continue;
    candidates.push_back(found);
  }
  for (const FoundSpec& map : candidates) Seen(map.hdr.generation);
  // Highest generation first; the header's map, then the later one, on a tie.
  std::stable_sort(candidates.begin() + (headerMap ? 1 : 0), candidates.end(),
                   [](const FoundSpec& a, const FoundSpec& b) { return a.address > b.address; });
  std::stable_sort(candidates.begin(), candidates.end(),
                   [](const FoundSpec& a, const FoundSpec& b) { return a.hdr.generation > b.hdr.generation; });
  for (const FoundSpec& map : candidates) {
    bool usable = false;
    int code = ReadMapEntries(map, entries, &usable);
    if (code != 0) return code;
    if (!usable) {
      LogLineChecked(519, u"CHRecover: the map at %~ld has a partial entry, %~lu bytes", map.address, map.hdr.length);
      continue;
    }
    m_mapFound = true;
    m_map = map;
    LogLineChecked(519, u"CHRecover: the map at %~ld, generation %~lu, %~lu entries, is the base", map.address,
                   map.hdr.generation, static_cast<uint64_t>(entries->size()));
    return 0;
  }
  entries->clear();
  return 0;
}

int TCHRecovery::TakeBase(const std::vector<CHMapEntrySpec>& entries) {
  for (const CHMapEntrySpec& entry : entries) {
    if (entry.address < 1 || entry.type == kCHFreeType || entry.type == kCHMapType) continue;
    CHRecoverItemSpec item{entry.type, entry.id, entry.address, 0, 0, kCHRecoverOutOfFile};
    WantSpec want;
    want.checkType = true;
    want.type = entry.type;
    want.checkId = true;
    want.id = entry.id;
    FoundSpec found;
    HeaderFit fit = HeaderFit::kNone;
    bool ok = false;
    uint64_t address = static_cast<uint64_t>(entry.address);
    int code = CheckChunkAt(&m_reader, m_layout, address, want, &found, &fit, &ok);
    if (code != 0) return code;
    if (fit != HeaderFit::kNone) {
      item = Item(found, kCHRecoverOutOfFile);
      if (ok) Seen(found.hdr.generation);
    } else if (address <= m_reader.Length() && m_layout.hdrSize <= m_reader.Length() - address) {
      item.reason = kCHRecoverWrongChunk;
    }
    if (fit == HeaderFit::kFits) item.reason = ok ? kCHRecoverFromMap : kCHRecoverBadChecksum;
    Key key(entry.type, entry.id);
    if (item.reason == kCHRecoverFromMap && m_chosen.count(key) != 0) item.reason = kCHRecoverSuperseded;
    if (item.reason != kCHRecoverFromMap) {
      Drop(item);
      continue;
    }
    m_chosen[key] = ChoiceSpec{found, kCHRecoverFromMap};
  }
  return 0;
}

void TCHRecovery::TakeScanned() {
  uint64_t base = m_map.hdr.generation;
  int reason = m_mapFound ? kCHRecoverNewerCopy : kCHRecoverScanned;
  std::map<Key, FoundSpec> newer;
  for (const FoundSpec& found : m_found) {
    if (found.hdr.type == kCHMapType) continue;
    Seen(found.hdr.generation);
    Key key(found.hdr.type, found.hdr.id);
    auto chosen = m_chosen.find(key);
    if (chosen != m_chosen.end() && chosen->second.found.address == found.address) continue;
    if (m_mapFound && found.hdr.generation <= base) {
      Drop(Item(found, kCHRecoverStale));
      continue;
    }
    auto it = newer.find(key);
    if (it == newer.end()) {
      newer.emplace(key, found);
      continue;
    }
    const FoundSpec& held = it->second;
    bool wins = found.hdr.generation > held.hdr.generation ||
                (found.hdr.generation == held.hdr.generation && found.address > held.address);
    Drop(Item(wins ? held : found, kCHRecoverSuperseded));
    if (wins) it->second = found;
  }
  for (const auto& [key, found] : newer) {
    auto chosen = m_chosen.find(key);
    if (chosen != m_chosen.end()) {
      Drop(Item(chosen->second.found, kCHRecoverSuperseded));
      chosen->second = ChoiceSpec{found, reason};
    } else {
      m_chosen.emplace(key, ChoiceSpec{found, reason});
    }
  }
}

int TCHRecovery::Write() {
  uint32_t encryption = 0;
  if (m_headerUsable) {
    if (m_header.encryption == kCHEncryptionMarker) encryption = kCHEncryptionMarker;
  } else {
    // No header to say so: encrypted chunks imply the marker.
    for (const auto& [key, choice] : m_chosen) {
      if ((choice.found.hdr.flags & kCHFlagEncrypted) != 0) encryption = kCHEncryptionMarker;
    }
  }
  m_report->newGeneration = m_highest + 1;
  TCHSequentialWriter writer(m_target, m_layout.is0100, encryption, m_highest + 1);
  int code = writer.Begin();
  if (code != 0) return code;
  TCHBytes large;
  for (const auto& [key, choice] : m_chosen) {
    const FoundSpec& found = choice.found;
    uint64_t offset = static_cast<uint64_t>(found.address) + m_layout.hdrSize;
    const unsigned char* data = nullptr;
    if (found.hdr.length <= kWindow) {
      code = m_reader.Get(offset, static_cast<size_t>(found.hdr.length), &data);
    } else if (!large.Reserve(static_cast<size_t>(found.hdr.length))) {
      code = kErrNoMemory;
      LogLineChecked(517, u"CHRecover: not enough memory to copy %~lu bytes, %E", found.hdr.length, code);
    } else {
      code = m_reader.Copy(offset, found.hdr.length, large.Data());
      data = large.Data();
    }
    if (code == 0) code = writer.AddChunk(found.hdr, data);
    if (code != 0) return code;
    CHRecoverItemSpec item = Item(found, choice.reason);
    LogItem(true, item);
    m_report->kept.push_back(item);
  }
  return writer.Finish(0);
}

int TCHRecovery::Run() {
  int code = ReadLayout();
  if (code != 0) return code;
  m_report->is0100 = m_layout.is0100;
  m_report->bigEndian = m_layout.bigEndian;
  m_report->chunksVerified = m_found.size();
  if (!m_headerUsable && m_found.empty()) {
    LogLineChecked(517, u"CHRecover: the source holds no container, %E", kErrCHInvalid);
    return kErrCHInvalid;
  }
  std::vector<CHMapEntrySpec> entries;
  code = ChooseMap(&entries);
  if (code != 0) return code;
  m_report->mapFound = m_mapFound;
  m_report->mapAddress = m_mapFound ? m_map.address : 0;
  m_report->mapGeneration = m_mapFound ? m_map.hdr.generation : 0;
  code = TakeBase(entries);
  if (code != 0) return code;
  TakeScanned();
  code = Write();
  if (code != 0) return code;
  LogLineChecked(517, u"CHRecover: kept %~d chunks, dropped %~d", static_cast<int>(m_report->kept.size()),
                 static_cast<int>(m_report->dropped.size()));
  return 0;
}

}  // namespace

int CHRecover(TFile* source, TFile* target, TCHRecoverReport* report) {
  TCHRecoverReport scratch;
  if (report == nullptr) report = &scratch;
  report->Clear();
  if (source == nullptr || target == nullptr || source == target || !source->IsOpen()) {
    LogLineChecked(517, u"CHRecover: no source or no separate target, %E", kErrBadParameter);
    return kErrBadParameter;
  }
  // The target is looked at before the scan, which can take long, and so
  // that a refused call leaves it as it was.
  uint64_t length = 0;
  int code = target->IsOpen() && target->IsWritable() ? target->GetLength(&length) : kErrBadParameter;
  if (code == 0 && length != 0) code = kErrBadParameter;
  if (code != 0) {
    LogLineChecked(517, u"CHRecover: the target is not an open, writable, empty file, %E", code);
    return code;
  }
  code = source->GetLength(&length);
  if (code != 0) {
    LogLineChecked(517, u"CHRecover: can't get the source's length, %E", code);
    return code;
  }
  TCHRecovery recovery(source, target, length, report);
  return recovery.Run();
}
