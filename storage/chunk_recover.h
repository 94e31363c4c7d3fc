// CHRecover: rebuilds a consistent chunk container from a damaged one or
// from one whose last save did not complete.
//
//   TCHRecoverReport report;
//   int code = CHRecover(&damaged, &emptyFile, &report);
//   // report.kept / report.dropped say what happened to every chunk
//
// The source is only read. The target, an empty writable file, receives a
// new container written by TCHSequentialWriter in the source's generation
// (0100 or current), with the source's encryption marker; every chunk kept
// is copied with its stored header fields and bytes unchanged, so encrypted
// chunks stay encrypted. The new map carries a generation one above the
// highest the source shows, so a later recovery of the target prefers it.
//
// How chunks are chosen:
//  1. The file header is read with its unsaved marker ignored. When it is
//     unusable the file is taken as little-endian with address step 4 and
//     data start 512, and both generations are tried; the one under which
//     more chunks verify wins (the current one on a tie).
//  2. The file is scanned from the data start at address-step alignment for
//     chunk headers that verify: a public type (top bit clear, so never the
//     free type), reserved words zero, data below 2 GiB that fits inside the
//     file, and a matching checksum
//     (CHChecksum, or CHEncryptedChecksum for encrypted chunks). Each header
//     is tried in the file's byte order and then in the other. A verified
//     chunk moves the scan past its slot. The checksum of data that is
//     empty or all zeros is 1, and runs of zeros with a 1 in the right
//     place are common (chunk headers and map entries side by side), so the
//     scan does not take a chunk with checksum 1 on its own: such a chunk
//     survives only where the base map places it.
//  3. The candidate maps are the map at the header's map address and every
//     map chunk the scan found; the one whose chunk header carries the
//     highest save generation is the base (on a tie the header's, then the
//     later in the file). Each chunk the base places on disk is kept when the
//     bytes at its address verify and name the same type and id.
//  4. A scanned chunk with a generation above the base's was written by an
//     interrupted save (or stored before one): it is kept, the newest
//     generation of each type and id winning (on a tie the higher address),
//     and replaces the base's copy. A scanned chunk at or below the base's
//     generation that the base does not place there is a stale copy.
//     Without any usable map, the newest verified copy of every type and id
//     is kept.
// Map chunks themselves are not listed in the report: the target gets a
// new map.
//
// Logging: one line at 519 per decision, one summary line at 517
// ("CHRecover: kept %~d chunks, dropped %~d"), and one line at 517 for a
// failure.
#ifndef PLINTH_STORAGE_CHUNK_RECOVER_H_
#define PLINTH_STORAGE_CHUNK_RECOVER_H_

#include <cstdint>
#include <vector>

#include "files/tfile.h"
#include "foundation/export.h"
#include "foundation/tobject.h"

// Why a chunk was kept (positive) or dropped (from 10 up).
constexpr int kCHRecoverFromMap = 1;        // the base map names it and it verifies
constexpr int kCHRecoverNewerCopy = 2;      // found by the scan, newer than the base map
constexpr int kCHRecoverScanned = 3;        // found by the scan, no usable map at all
constexpr int kCHRecoverBadChecksum = 10;   // the data does not match its checksum
constexpr int kCHRecoverWrongChunk = 11;    // the bytes at the map's address name no such chunk
constexpr int kCHRecoverOutOfFile = 12;     // the chunk runs past the file's end (or past 2 GiB)
constexpr int kCHRecoverStale = 13;         // a copy no newer than the base map, which does not use it
constexpr int kCHRecoverSuperseded = 14;    // a newer copy of the same type and id was kept

// One decision. `address` is the chunk's place in the source; `length` its
// stored data length and `generation` its header's save generation, both 0
// when no header could be read there.
struct CHRecoverItemSpec {
  uint32_t type;
  uint64_t id;
  int64_t address;
  uint64_t length;
  uint64_t generation;
  int reason;
};

// What CHRecover found and decided. Kept chunks are listed in the order
// they were written to the target (by type, then id); dropped ones in the
// order they were judged.
class PLINTH_API TCHRecoverReport : public TObject {
 public:
  std::vector<CHRecoverItemSpec> kept;
  std::vector<CHRecoverItemSpec> dropped;
  bool headerUsable = false;  // the source's file header passed its check
  bool is0100 = false;        // the generation the source was read in
  bool bigEndian = false;     // the source's header was big-endian
  bool mapFound = false;      // a verified map served as the base
  int64_t mapAddress = 0;     // the base map's address in the source
  uint64_t mapGeneration = 0; // the base map's save generation
  uint64_t newGeneration = 0; // the generation of the target's map
  uint64_t chunksVerified = 0;  // chunk headers the scan verified, maps included

  void Clear();
};

// Writes a consistent container recovered from `source` into the empty,
// writable `target`. 0 when a container was written (which may have lost
// chunks: see the report); kErrBadParameter for a missing source, a target
// that is the source or is not open, writable and empty; kErrCHInvalid when
// the source shows neither a usable header nor a single verified chunk; a
// read or write failure's code otherwise. The target is untouched unless
// writing began. `report` may be null.
PLINTH_API int CHRecover(TFile* source, TFile* target, TCHRecoverReport* report);

#endif  // PLINTH_STORAGE_CHUNK_RECOVER_H_
