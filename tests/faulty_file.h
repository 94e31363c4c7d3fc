// TFaultyFile: a TFile whose writes fail on cue, for crash and failure tests
// of the storage formats.
//
// Open it like any TFile. Write calls are numbered from 1 in the order they
// arrive. A plan says what happens:
//   CountOnly()          nothing fails; the calls are only counted and logged
//                        (learn how many writes an operation makes);
//   StopAfter(n)         calls 1..n go through; every later one fails with
//                        kErrWriteFault and writes nothing;
//   WritePrefixOf(n, k)  calls before n go through; call n writes only its
//                        first k bytes (half when k is kHalf) and answers
//                        kErrWriteFault with the short count; every later
//                        call fails as above.
// Once a fault has fired the file behaves like the disk of a dead process:
// SetLength, Flush and Sync fail too and change nothing. Independently,
// FailSync and FailSetLength make those calls fail from the start.
//
// Every transfer that changes the file, and every Sync, is recorded in
// Calls() in order, so a test can check the order of an operation's writes.
#ifndef PLINTH_TESTS_FAULTY_FILE_H_
#define PLINTH_TESTS_FAULTY_FILE_H_

#include <cstdint>
#include <vector>

#include "files/tfile.h"

class TFaultyFile : public TFile {
 public:
  static constexpr uint32_t kHalf = 0xFFFFFFFF;

  enum class CallKind { kWrite, kSetLength, kSync, kFlush };
  struct CallSpec {
    CallKind kind;
    uint64_t offset;      // kWrite; the new length for kSetLength
    uint32_t count;       // bytes asked for (kWrite)
    uint32_t transferred; // bytes written (kWrite)
    int status;
    std::vector<unsigned char> bytes;  // what was asked to be written
  };

  void CountOnly();
  void StopAfter(int writes);
  void WritePrefixOf(int write, uint32_t bytes);
  void FailSync(bool fail) { m_failSync = fail; }
  void FailSetLength(bool fail) { m_failSetLength = fail; }

  int WriteCount() const { return m_writes; }
  int SyncCount() const { return m_syncs; }
  bool Faulted() const { return m_faulted; }
  const std::vector<CallSpec>& Calls() const { return m_calls; }
  void ClearCalls() { m_calls.clear(); }

  int WriteAt(uint64_t offset, const void* buffer, uint32_t* count) override;
  int SetLength(uint64_t length) override;
  int Flush() override;
  int Sync() override;

 private:
  enum class Plan { kCount, kStop, kPrefix };
  void Record(CallKind kind, uint64_t offset, uint32_t count, uint32_t transferred, int status,
              const void* bytes);

  Plan m_plan = Plan::kCount;
  int m_limit = 0;        // kStop: last call that goes through; kPrefix: the short call
  uint32_t m_prefix = 0;  // kPrefix: bytes of the short call
  bool m_failSync = false;
  bool m_failSetLength = false;
  bool m_faulted = false;
  int m_writes = 0;
  int m_syncs = 0;
  std::vector<CallSpec> m_calls;
};

#endif  // PLINTH_TESTS_FAULTY_FILE_H_
