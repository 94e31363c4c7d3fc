#include "tests/element_space_image.h"

#include <cstring>
#include <utility>

namespace lm_image {

namespace {

constexpr uint32_t kMagic = 0x4C6D732E;
constexpr uint32_t kMaxLength = 0x7FFFFFF8;

uint32_t Word(const std::string& b, size_t at) {
  uint32_t v;
  std::memcpy(&v, b.data() + at, 4);
  return v;
}

uint16_t Half(const std::string& b, size_t at) {
  uint16_t v;
  std::memcpy(&v, b.data() + at, 2);
  return v;
}

std::string Fault(const char* what, uint64_t value) {
  return std::string(what) + " " + std::to_string(value);
}

}  // namespace

uint32_t Phys(int64_t length) {
  if (length < 0 || length > kMaxLength) return 0;
  return static_cast<uint32_t>((length + 7) & ~int64_t{3});
}

std::string Read(const std::string& b, Image* out) {
  *out = Image();
  if (b.size() < 84 || b.size() > 0x7FFFFFFF) return Fault("block size", b.size());
  Image& im = *out;
  im.size = static_cast<uint32_t>(b.size());
  if (Word(b, 0) != kMagic) return Fault("magic", Word(b, 0));
  // Readable when its oldest reader is no newer than this layout.
  if (Half(b, 4) > 0x0100) return Fault("oldest reader version", Half(b, 4));
  im.sizeLimitKB = Word(b, 12);
  im.dataStart = Word(b, 16);
  im.dataEnd = Word(b, 20);
  im.initialKB = Word(b, 24);
  im.flags = Word(b, 28);
  im.lockCount = static_cast<int32_t>(Word(b, 32));
  im.emptySlots = Word(b, 36);
  im.stepKB = Word(b, 44);
  im.count = Word(b, 72);
  if (Word(b, 76) != 0) return Fault("slot 0", Word(b, 76));
  if (im.dataEnd > im.size) return Fault("data end past the block", im.dataEnd);
  if (im.dataStart > im.dataEnd) return Fault("data start past data end", im.dataStart);
  if (im.dataStart % 4 != 0 || im.dataEnd % 4 != 0) return Fault("unaligned data area", im.dataStart);
  if (im.count > 0x8000000 || 80 + 4 * uint64_t{im.count} > im.dataStart) return Fault("table overlaps data, count", im.count);

  // Walk the tiling; every record boundary is remembered by its index.
  std::map<uint32_t, uint32_t> lengths;  // offset -> length
  uint32_t at = im.dataStart;
  while (at < im.dataEnd) {
    if (im.dataEnd - at < 4) return Fault("record header cut at", at);
    uint32_t length = Word(b, at);
    uint32_t phys = Phys(length);
    if (phys == 0) return Fault("record length out of range at", at);
    if (phys > im.dataEnd - at) return Fault("record runs past data end at", at);
    lengths[at] = length;
    at += phys;
  }
  im.records = static_cast<uint32_t>(lengths.size());

  uint32_t empty = 0;
  std::set<uint32_t> used;
  for (uint32_t n = 1; n <= im.count; ++n) {
    uint32_t slot = Word(b, 76 + 4 * size_t{n});
    uint32_t offset = slot & 0x7FFFFFFFu;
    if (offset == 0) {
      if (slot != 0) return Fault("free slot with a mark", n);
      ++empty;
      continue;
    }
    auto it = lengths.find(offset);
    if (it == lengths.end()) return Fault("slot points between records, element", n);
    if (!used.insert(offset).second) return Fault("record shared, element", n);
    uint32_t length = it->second;
    std::string bytes = b.substr(offset + 4, length);
    for (uint32_t p = offset + 4 + length; p < offset + Phys(length); ++p) {
      if (b[p] != 0) return Fault("padding not zero, element", n);
    }
    im.elements[static_cast<int>(n)] = bytes;
    im.offsets[static_cast<int>(n)] = offset;
    if (slot & 0x80000000u) im.marks.insert(static_cast<int>(n));
    im.livePhys += Phys(length);
  }
  if (empty != im.emptySlots) return Fault("empty-slot count, counted", empty);
  return "";
}

std::string ToBigEndian(const std::string& block) {
  std::string b = block;
  auto swap = [&b](size_t at, int width) {
    for (int i = 0; i < width / 2; ++i) std::swap(b[at + i], b[at + width - 1 - i]);
  };
  Image im;
  if (!Read(block, &im).empty()) return b;
  for (size_t at = 0; at < 80; at += 4) {
    if (at == 4) {
      swap(4, 2);
      swap(6, 2);
    } else {
      swap(at, 4);
    }
  }
  for (uint32_t n = 1; n <= im.count; ++n) swap(76 + 4 * size_t{n}, 4);
  for (uint32_t at = im.dataStart; at < im.dataEnd;) {
    uint32_t phys = Phys(Word(block, at));
    swap(at, 4);
    at += phys;
  }
  return b;
}

}  // namespace lm_image
