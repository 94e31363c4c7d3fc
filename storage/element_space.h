// ElementSpace: numbered variable-length byte strings (elements, numbered
// from 1) in one self-contained, movable block. The block holds offsets,
// never pointers, so it can be copied, moved and stored as it stands.
//
// Layout (4-byte fields in the block's byte order, offsets from its start):
// the 80-byte header LmSpaceSpec; then the index table, slot n at 76 + 4n;
// free space; then the data area [dataStart, dataEnd), which grows downward
// from the block's end. A slot holds its element's record offset in bits
// 0..30 (0: the number is free) and the element's mark in bit 31. A record
// is a 4-byte length, the bytes, and zero padding to a multiple of 4; its
// physical size is LmPhys(length).
//
// The data area is always tiled by records: besides the live ones, a
// removed element's record stays where it was, unreferenced, and a gap left
// by LmSet or compaction is written as an unreferenced record whose length
// is the gap less 4 (gaps are cut into pieces of at most 0x7FFFFFF8 bytes).
// Compaction slides the live records up to dataEnd and raises dataStart by
// what it freed; while it runs, the slots hold lengths and the records the
// negated element numbers, so no side table is needed.
//
// Header fields the block defines beyond its creation values:
//   offset 12: size limit in kilobytes, 0 for none; growth never passes it
//     (a pooled space sets it to its pool's block size);
//   offset 76: slot 0, which no element has; always 0 (LmValid checks it);
//   offsets 8, 40 and 48..71: zero at creation, carried unchanged, not
//   checked.
//
// Growth. A request fits when its physical size is at most LmAvail(),
// which keeps room for one more slot. When an add does not fit, the space
// is compacted (if it holds any free records); when it still does not fit,
// the block grows by the growth step (more if the request needs more) and
// the data area moves up to the new end. Before each growth the step
// doubles while a quarter of the block's size exceeds it; it stays within
// [initial size, 16384 KiB]. A fixed-size space (flag bit 0) grows only by
// what the request needs and keeps its step. No block grows past
// 0x7FFFFFFF bytes or past its size limit: growth is cut at the limit, and
// a request the limit cannot take fails with kErrMemOutOfMemory.
//
// Locking. LmLock raises the header's lock count and pins the block (a
// pooled space then cannot be archived); LmGet's pointer is only stable
// while the space is locked or while nothing moves the block. Anything that
// can move records (add, dupe, a set that needs a larger record,
// compaction, reservation) on a locked space is a broken invariant:
// Debug("lmspace", ...) and kErrInUse. Removing, marking and shrinking
// move nothing and are allowed. Unlocking an unlocked space is a broken
// invariant too (kErrBadParameter).
//
// The consistency check (LmValid) reads nothing outside the block,
// whatever its bytes, and names the first fault in this order: header
// (block under 84 bytes, magic, oldest-reader version above 0x0100), data
// end below data start, data end past the block, slot table reaching data
// start (or a count above 0x8000000), alignment of data start and of every
// slot offset, alignment of data end, slot 0; then the walk of the records
// from data start: a negative length, a length above 0x7FFFFFF8 or a record
// running past the block ("size is out of range"), a walk that passes data
// end ("ended up wrong"); then the slots: an offset that is not a record
// start inside the data area, two slots on one record; last the zero count.
//
// Repair keeps every element whose slot (before the first slot that would
// lie at or above a kept record) points at a well-formed record inside the
// block, the first claimant of a record winning; it packs them at the end
// of the block with clean padding, keeps their marks and rebuilds the
// header, zero count and slot table. The stored lock count is cleared when
// nothing holds the space. A block without the magic or with a newer
// oldest-reader version becomes a new empty space (LmNew(0, 0)).
//
// Operations other than LmValid and LmRepair expect a consistent block;
// they refuse a block under 84 bytes and check numbers against the table,
// whose count they cut to the slots inside the block. Reads of a damaged
// block stay inside it; edits of one may damage it further.
//
// Errors. Operations answer 0 (or their result) or a library code, with one
// debug line at 515: kErrBadParameter for an argument out of range,
// kErrMemOutOfMemory (or the storage's code) when the block cannot grow,
// kErrLmFull when the slot count would pass 0x8000000, kErrInvalidData from
// LmValid.
//
// Element spaces written in big-endian order are read through the ...BE
// operations, which read every field in that order and change nothing but
// the lock count; LmFromBE turns such a block into host order in place.
#ifndef PLINTH_STORAGE_ELEMENT_SPACE_H_
#define PLINTH_STORAGE_ELEMENT_SPACE_H_

#include <cstdint>
#include <cstring>

#include "foundation/export.h"
#include "foundation/tmemory.h"

class TMemPool;

constexpr uint32_t kLmMagic = 0x4C6D732E;
constexpr uint16_t kLmVersion = 0x0100;
constexpr uint32_t kLmHeaderSize = 80;
// The block at creation: initial kilobytes * 1024 + kLmOverhead.
constexpr uint32_t kLmOverhead = 84;
constexpr uint32_t kLmMaxElementSize = 0x7FFFFFF8;
constexpr uint32_t kLmMaxCount = 0x8000000;
constexpr uint32_t kLmMaxStepKB = 16384;
constexpr uint32_t kLmMarkBit = 0x80000000u;

// Header flag bits.
constexpr uint32_t kLmFixedSize = 1;
constexpr uint32_t kLmPooled = 4;

constexpr int kErrLmFull = -612;

struct LmSpaceSpec {
  uint32_t magic;            // 0  kLmMagic
  uint16_t oldestReader;     // 4  kLmVersion
  uint16_t writer;           // 6  kLmVersion
  uint32_t reserved8;        // 8
  uint32_t sizeLimitKB;      // 12 0: none
  uint32_t dataStart;        // 16
  uint32_t dataEnd;          // 20
  uint32_t initialKB;        // 24
  uint32_t flags;            // 28 kLmFixedSize, kLmPooled
  int32_t lockCount;         // 32
  uint32_t emptySlots;       // 36
  uint32_t reserved40;       // 40
  uint32_t stepKB;           // 44
  uint32_t reserved48[6];    // 48..71
  uint32_t count;            // 72 slot count
  uint32_t slot0;            // 76 always 0
};
static_assert(sizeof(LmSpaceSpec) == kLmHeaderSize, "the header is 80 bytes");

class PLINTH_API ElementSpace : public TMemory {
 public:
  // LmNew(sizeHint, fixed); a failure is left in CheckError().
  ElementSpace(int sizeHint, int fixed);
  // A pooled space in `pool` (size hint 0), header flag kLmPooled.
  ElementSpace(TMemPool* pool, int fixed);

  // Replaces the contents with a new empty space of max(hint / 1024, 1)
  // KiB + 84 bytes.
  int LmNew(int sizeHint, int fixed);

  // The new element's number, or a negative code. Null `data` adds zeros.
  int LmAdd(const char* data, int length);
  // A copy of element n under a new number.
  int LmDupe(int n);
  // Element n's length becomes `length`: the first bytes stay, new bytes
  // are zero; a record that no longer fits moves. 0 or a code.
  int LmSet(int n, int length);
  // The same, with failure a broken invariant (Debug) as well.
  int LmAddAssert(const char* data, int length);
  int LmDupeAssert(int n);
  int LmSetAssert(int n, int length);

  // Frees number n (its mark goes with it); trailing free numbers are
  // dropped from the table. Removing a free number changes nothing; a
  // number outside 1..count is refused with a line.
  int LmRemove(int n);
  // Exchanges the contents of m and n (either may be free); the marks stay
  // with the numbers (a number left free has none) and a trailing free
  // number is dropped.
  int LmSwap(int m, int n);
  // The element's bytes; null (and a line) for a bad or free number.
  char* LmGet(int n) {
    // Reads of a heap space take no call: the checks are the slow path's,
    // which runs (and logs) only when one of them fails. Few instructions
    // matter here: random reads are bound by how many misses are in flight.
    if ((GetFlags() & kTMemPooled) == 0) {
      // Heap and mapped storage always has bytes behind a size of 84 or more.
      auto* bytes = static_cast<const unsigned char*>(UnpinnedPtr());
      uint64_t size = GetSize();
      uint32_t index = uint32_t(n) - 1;  // n < 1 wraps far past any size
      if (uint64_t{index} * 4 + kLmOverhead <= size) {
        uint32_t count;
        uint32_t slot;
        std::memcpy(&count, bytes + 72, 4);
        std::memcpy(&slot, bytes + 80 + uint64_t{index} * 4, 4);
        slot &= ~kLmMarkBit;
        // slot - 1 wraps for a free number, so one test keeps 1 <= slot <= size - 4.
        if (index < count && uint64_t{slot} - 1 < size - 4) {
          return reinterpret_cast<char*>(const_cast<unsigned char*>(bytes) + slot + 4);
        }
      }
    }
    return LmGetChecked(n);
  }
  // The element's length; 0 for a free number; a code when out of range
  // (kErrBadParameter) or when a damaged record would run past the block
  // (kErrInvalidData).
  int LmSize(int n);
  // The first used number above n (start with 0); 0 after the last.
  int LmEnumRef(int n);
  // Non-zero when n is a used number.
  int LmTest(int n);

  // Sets the mark of used number n; a free or bad number is refused.
  int LmMark(int n);
  // Clears every mark.
  void LmUnmark();
  // Removes every used element without a mark and clears the survivors'
  // marks; answers how many were removed.
  int LmCollect();

  // 0 or a code.
  int LmLock();
  int LmUnlock();

  // The physical size of a record of `length` bytes; 0 when out of range.
  static int LmPhys(int length);
  // dataStart - (4 * count + 84): -4 when the table meets the data.
  int LmAvail();
  int LmEnd();
  int LmCount();
  int LmCountUsed();

  // Compacts; answers the bytes freed, or a code.
  int LmCompress();
  // Makes LmAvail() at least `bytes`, compacting and growing as needed.
  int LmReserve(int bytes);
  // The bytes the block would have to grow by for LmAdd(length): 0 when it
  // fits now or after compaction; a code when it cannot be added at all.
  int LmPreflight(int length);
  // Non-zero when LmAdd(length) does not fit in the free space as it is.
  int LmFull(int length);

  // Growth step and size limit, in kilobytes. The step is kept within
  // [initial size, 16384]; a limit of 0 means none, others may not be below
  // the current size.
  int LmSetParms(int stepKB, int limitKB);
  int LmGetParms(int* stepKB, int* limitKB);

  // 0 when the block is consistent, else kErrInvalidData after one line
  // naming the first fault.
  int LmValid();
  // Makes the block consistent, keeping every element it can: answers the
  // number of elements dropped (a block beyond saving becomes an empty
  // space, every element dropped), or a code when memory fails.
  int LmRepair();

  // The same operations on a space held in big-endian order.
  char* LmGetBE(int n);
  int LmSizeBE(int n);
  int LmLockBE();
  int LmUnlockBE();
  int LmValidBE();
  // A valid big-endian space turned into host order; 0 or a code.
  int LmFromBE();
  // True when the block's magic reads in big-endian order.
  bool LmIsBE();

 private:
  char* LmGetChecked(int n);
};

#endif  // PLINTH_STORAGE_ELEMENT_SPACE_H_
