// The persistent header that opens a stored record.
//
// Eight bytes: a four-character signature and two signed 16-bit version
// numbers, both at least 1. The writer sets `first` to the oldest reader
// version that can read the record and `second` to its own version; a
// reader accepts the record when the two ranges meet.
//
// Signature rule: no byte has bit 7 set, and at least one byte has bit 5 or
// 6 set (printable letters, not control bytes or zeros). The rule reads the
// same in either byte order.
//
// The header is written in the writer's byte order. A reader of the other
// order sees the signature byte-reversed, which is how it knows to convert
// the record (see byteorder.h).
#ifndef PLINTH_CONTAINERS_PERSIST_H_
#define PLINTH_CONTAINERS_PERSIST_H_

#include <cstdint>

#include "foundation/export.h"

struct PersistHeader {
  uint32_t signature;
  int16_t first;   // oldest reader version that can read the record
  int16_t second;  // version of the writer
};
static_assert(sizeof(PersistHeader) == 8);

// Layout string of the header for the record converters.
constexpr const char* kPersistHeaderLayout = "l2w";

// Results of _checkpersist.
constexpr int kErrPersistOtherOrder = -690;  // valid, but in the other byte order
constexpr int kErrPersistInvalid = -691;     // signature rule broken, or a number below 1
constexpr int kErrPersistSignature = -692;   // not the expected signature either way
constexpr int kErrPersistTooOld = -693;      // written by a version older than the reader accepts
constexpr int kErrPersistTooNew = -694;      // needs a newer reader than this one

// True when `signature` keeps the signature rule.
PLINTH_API bool IsPersistSignature(uint32_t signature);

// Writes `signature`, `first` and `second` in host order and answers the
// address just after the header. A signature that breaks the rule, or a
// number below 1 (as a signed 16-bit value: 0 or 32768 and above), is an
// assertion ("marshall", line 213); the header is written all the same.
// A null header is an assertion too and answers null.
PLINTH_API void* _initpersist(PersistHeader* header, unsigned int signature, unsigned short first,
                              unsigned short second);

// Checks a stored header against the expected `signature` and the range of
// writer versions this reader accepts, from `first` to `second`:
//   -691  the stored signature breaks the rule (before it is compared), or
//         a stored number is below 1;
//   -692  the stored signature is neither `signature` nor its reversal;
//   -693  the stored second number (writer) is below `first`;
//   -694  the stored first number (oldest reader) is above `second`;
//   -690  all is well but the header is in the other byte order: the caller
//         converts the whole record, header included, with ChangeEndian;
//    0    all is well, host order.
// The stored numbers are read in the header's own order: reversed when the
// signature was found reversed, and as they stand when it matched neither
// way (a number below 1 then still wins over -692). The header itself is
// not changed. Writes no log line: the caller reports the refusal in its own
// terms. A null header is an assertion ("marshall") and answers -691.
PLINTH_API int _checkpersist(const PersistHeader* header, unsigned int signature, unsigned short first,
                             unsigned short second);

#endif  // PLINTH_CONTAINERS_PERSIST_H_
