// TBucketFile: an object in a bucket as the TFile a ChunkManager works on
// (CHOpenRef), so that a container is read from or written to the bucket
// as it goes, never copied whole to the disk.
//
// Reading: ReadAt goes to the bucket's read file, which fetches ranges
// ahead of a reader that goes forward and moves its window when a read
// jumps (the map at the end, then the chunks from the start). The length is
// the object's, asked once when opened.
//
// Writing: a new object through the bucket's write file, a multipart
// upload for anything above one part. Writes must go forward: a write at
// the end appends, a write past it appends zeros first (a hole reads as
// zeros in a disk file too). A write below the end can only land in the
// first part, which the upload holds in memory and sends only at Finish;
// that is where a container's header is written again at the end
// of a save. Any other write back, a cut of the length or a read is
// refused (kErrNotPossible) and Refusal() says why. Sync and Flush answer
// 0 without waiting for anything: the object appears only when Finish
// completes the upload, whole and at once, and an upload that is never
// completed leaves no object behind, so there is nothing an earlier sync
// could make safe.
//
// No file of the disk is open under a bucket file: IsOpen and IsWritable
// answer for the object, and every transfer goes to the bucket.
#ifndef PLINTH_TOOLS_BUCKET_FILE_H_
#define PLINTH_TOOLS_BUCKET_FILE_H_

#include <cstdint>
#include <string>

#include "cloud/tcloudbucket.h"
#include "files/tfile.h"

class TBucketFile : public TFile {
 public:
  // `bucket` must outlive the file.
  TBucketFile(TCloudBucket* bucket, const std::string& key);
  // An upload not finished is aborted.
  ~TBucketFile() override;

  // The object must exist; 0 or the failure of asking for its size.
  int OpenForRead();
  // Starts the upload of a new object (or one to replace the key's).
  // `sizeHint` (0: unknown) lets the part size grow for a huge object.
  int OpenForWrite(uint64_t sizeHint);
  // Completes the upload: the object appears now.
  int Finish();
  // Aborts the upload: no object, no parts left on the service.
  int Abandon();

  // Why the last refused transfer was refused; empty when none was.
  const std::string& Refusal() const { return m_refusal; }

  int ReadAt(uint64_t offset, void* buffer, uint32_t* count) override;
  int WriteAt(uint64_t offset, const void* buffer, uint32_t* count) override;
  int GetLength(uint64_t* length) override;
  int SetLength(uint64_t length) override;
  bool IsOpen() const override { return m_open; }
  bool IsWritable() const override { return m_open && m_writing; }
  int Flush() override { return 0; }
  int Sync() override { return 0; }

 private:
  int Refuse(const std::string& why);
  int AppendZeros(uint64_t count);
  int Append(const uint8_t* bytes, uint64_t count);

  TCloudBucket* m_bucket;
  std::string m_key;
  TString m_name;
  bool m_open = false;
  bool m_writing = false;
  bool m_uploadOpen = false;
  uint64_t m_length = 0;
  std::string m_refusal;
};

#endif  // PLINTH_TOOLS_BUCKET_FILE_H_
