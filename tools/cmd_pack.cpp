// plinth pack: a folder into a new chunk container, through a pipeline.
//
// The host thread is the producer: it walks the folder, reads each file
// into work buffers (one chunk per buffer) and adds them as work. Behind it
// a serial intake station checks and counts the chunks (a pipeline cannot
// start with a parallel group), two parallel stations fingerprint them,
// and after the manager's sequencing station a serial station writes each
// chunk into the container at once and lets go of it, so memory stays at
// the fixed stock of buffers whatever the size of the folder. The
// catalogue (storage/pack_catalog.h) is added last, then the container is
// saved.
//
// With --to s3://BUCKET/KEY the container goes straight into the bucket
// through a TBucketFile (tools/bucket_file.h): chunks go up as they are
// stored, and the object appears only once the save completes the upload.
//
// Every work buffer starts with a slot header (the chunk's
// PackChunkRefSpec: id and length from the producer, fingerprints from the
// hash stations); the chunk's bytes follow at kSlotHeader.
#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <vector>

#include "files/tfile.h"
#include "foundation/errors.h"
#include "foundation/tmemory.h"
#include "pipeline/tpipelinemgr.h"
#include "security/blockhash.h"
#include "storage/chunk_manager.h"
#include "storage/pack_catalog.h"
#include "tools/commands.h"
#include "tools/interrupt.h"
#include "tools/pack_cloud.h"
#include "tools/pack_common.h"
#include "tools/s3_commands.h"
#include "tools/s3_location.h"
#include "tools/s3_report.h"
#include "tools/tool_host.h"

namespace fs = std::filesystem;

namespace {

const char kUsage[] =
    "usage: plinth pack DIR FILE\n"
    "       plinth pack [options] --to s3://BUCKET/KEY DIR\n"
    "\n"
    "Packs every regular file and folder under DIR (relative paths, sizes,\n"
    "modification times, permission bits) into the new chunk container FILE,\n"
    "one chunk per MiB of data, each fingerprinted with a SHA-1 block hash and a\n"
    "CRC. Symbolic links and special files are skipped and listed. FILE must not\n"
    "exist; a pack that fails removes it.\n"
    "\n"
    "With --to the container is the object KEY of the bucket, uploaded as it is\n"
    "written (nothing goes to the disk); KEY must not exist. The object appears\n"
    "only when the pack is complete: a pack that fails or is interrupted aborts\n"
    "the upload and leaves no object.\n"
    "\n"
    "options (with --to):\n"
    "%s"
    "\n"
    "%s"
    "\n"
    "Exit code 0 on success, 1 on failure, 2 for a usage error.\n";

constexpr uint32_t kChunkSize = uint32_t{1} << 20;
constexpr uint32_t kSlotHeader = 64;
static_assert(sizeof(PackChunkRefSpec) <= kSlotHeader);

PackChunkRefSpec ReadSlot(TPiWorkBuf& buf) {
  PackChunkRefSpec ref;
  std::memcpy(&ref, buf.buf(), sizeof ref);
  return ref;
}

void WriteSlot(TPiWorkBuf& buf, const PackChunkRefSpec& ref) { std::memcpy(buf.buf(), &ref, sizeof ref); }

// The first failure of any station: its code and the chunk it struck.
class TFailure {
 public:
  void Set(int code, uint32_t chunk, const char* what) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_code != 0) return;
    m_code = code;
    m_chunk = chunk;
    m_what = what;
  }
  // Read after the station threads were joined.
  int code() const { return m_code; }
  uint32_t chunk() const { return m_chunk; }
  const char* what() const { return m_what; }

 private:
  std::mutex m_mutex;
  int m_code = 0;
  uint32_t m_chunk = 0;
  const char* m_what = "";
};

// Chunks must come numbered 1, 2, 3, ... and fit the buffer.
class TIntakeStation : public TPiSerialStation {
 public:
  TIntakeStation(TPipelineMgr& mgr, TFailure* failure) : TPiSerialStation("Intake", mgr, false, true), m_failure(failure) {}
  void tryDoWorkBuf(TPiWorkBuf& buf, TPiWorkBuf*, bool& used2nd) override {
    used2nd = false;
    PackChunkRefSpec ref = ReadSlot(buf);
    if (ref.id != m_lastId + 1 || ref.length == 0 || ref.length > buf.bufSize() - kSlotHeader) {
      m_failure->Set(kErrPiLogic, ref.id, "take in");
      UPiThrow(kErrPiLogic);
    }
    m_lastId = ref.id;
  }
  void tryDoMsg(TPiMsg&, bool& consumed) override { consumed = false; }

 private:
  TFailure* m_failure;
  uint32_t m_lastId = 0;
};

class THashStation : public TPiParallelStation {
 public:
  THashStation(const char* name, TPipelineMgr& mgr, TFailure* failure)
      : TPiParallelStation(name, mgr, false), m_hash(static_cast<unsigned char>(kPackDigestType)), m_failure(failure) {}
  void tryDoWorkBuf(TPiWorkBuf& buf, TPiWorkBuf*, bool& used2nd) override {
    used2nd = false;
    PackChunkRefSpec ref = ReadSlot(buf);
    int status = PackHashChunk(&m_hash, kPackDataType, ref.id, buf.buf() + kSlotHeader, ref.length, &ref);
    if (status != 0) {
      m_failure->Set(status, ref.id, "fingerprint");
      UPiThrow(status);
    }
    WriteSlot(buf, ref);
  }
  void tryDoMsg(TPiMsg&, bool& consumed) override { consumed = false; }

 private:
  TBlockHash m_hash;
  TFailure* m_failure;
};

// Writes each chunk now and detaches it, so the manager keeps only its map.
class TStoreStation : public TPiSerialStation {
 public:
  TStoreStation(TPipelineMgr& mgr, ChunkManager* cm, TFailure* failure)
      : TPiSerialStation("Store", mgr, false, true), m_cm(cm), m_failure(failure), m_handle(std::make_unique<TMemory>()) {}
  void tryDoWorkBuf(TPiWorkBuf& buf, TPiWorkBuf*, bool& used2nd) override {
    used2nd = false;
    PackChunkRefSpec ref = ReadSlot(buf);
    int status = Store(ref, buf.buf() + kSlotHeader);
    if (status != 0) {
      m_failure->Set(status, ref.id, "store");
      UPiThrow(status);
    }
    m_refs.push_back(ref);
    m_bytes += ref.length;
  }
  void tryDoMsg(TPiMsg&, bool& consumed) override { consumed = false; }

  // The stored chunks in id order; read once the run has ended.
  const std::vector<PackChunkRefSpec>& refs() const { return m_refs; }
  uint64_t bytes() const { return m_bytes; }

 private:
  int Store(const PackChunkRefSpec& ref, const unsigned char* data) {
    if (m_handle == nullptr) return kErrPiLogic;  // lost to an earlier failure
    int status = m_handle->SetSize(ref.length);
    if (status != 0) return status;
    std::memcpy(m_handle->MemPtr(), data, ref.length);
    if ((status = m_cm->CHAddChunk(m_handle.get(), kPackDataType, static_cast<int>(ref.id))) != 0) return status;
    TMemory* lent = m_handle.release();  // the manager's until detached
    status = m_cm->CHStoreChunk(lent);
    if (status == 0) status = m_cm->CHDetachChunk(lent);
    if (status == 0) m_handle.reset(lent);  // the manager keeps it otherwise and frees it on closing
    return status;
  }

  ChunkManager* m_cm;
  TFailure* m_failure;
  std::unique_ptr<TMemory> m_handle;
  std::vector<PackChunkRefSpec> m_refs;
  uint64_t m_bytes = 0;
};

// What the walk found: the catalogue's entries without fingerprints.
struct WalkSpec {
  std::vector<PackEntrySpec> entries;
  std::vector<fs::path> sources;  // of each entry
  std::vector<std::string> skipped;
};

int Problem(const std::string& what, const std::string& path, int code) {
  std::fprintf(stderr, "plinth pack: cannot %s %s: %s\n", what.c_str(), path.c_str(), DescribeCode(code).c_str());
  return code;
}

int Describe(const fs::path& source, const fs::file_status& status, const std::string& path, uint16_t kind,
             PackEntrySpec* entry) {
  std::error_code ec;
  fs::file_time_type time = fs::last_write_time(source, ec);
  if (ec) return Problem("read the time of", source.string(), CodeOf(ec));
  entry->path = path;
  entry->kind = kind;
  entry->mode = static_cast<uint32_t>(status.permissions() & fs::perms::mask) & kPackMaxMode;
  ToUnixTime(time, &entry->mtimeSeconds, &entry->mtimeNanos);
  return 0;
}

// Every folder and regular file under `root`, parents before children, in
// a stable order.
int Walk(const fs::path& root, WalkSpec* walk) {
  std::error_code ec;
  std::vector<fs::path> found;
  fs::recursive_directory_iterator it(root, fs::directory_options::none, ec);
  if (ec) return Problem("list", root.string(), CodeOf(ec));
  while (it != fs::recursive_directory_iterator()) {
    found.push_back(it->path());
    it.increment(ec);
    if (ec) return Problem("list", found.back().string(), CodeOf(ec));
  }
  std::sort(found.begin(), found.end());
  for (const fs::path& source : found) {
    std::string path = source.lexically_relative(root).generic_string();
    fs::file_status status = fs::symlink_status(source, ec);
    if (ec) return Problem("look at", source.string(), CodeOf(ec));
    uint16_t kind;
    if (fs::is_symlink(status)) {
      walk->skipped.push_back(path + " (symbolic link)");
      continue;
    } else if (fs::is_directory(status)) {
      kind = kPackKindFolder;
    } else if (fs::is_regular_file(status)) {
      kind = kPackKindFile;
    } else {
      walk->skipped.push_back(path + " (not a regular file)");
      continue;
    }
    // What lies under an unstorable folder name carries that name too.
    if (!PackIsSafePath(path)) {
      walk->skipped.push_back(path + " (name not storable: not UTF-8, or a backslash or control character)");
      continue;
    }
    PackEntrySpec entry;
    int described = Describe(source, status, path, kind, &entry);
    if (described != 0) return described;
    walk->entries.push_back(std::move(entry));
    walk->sources.push_back(source);
  }
  return 0;
}

struct RunSpec {
  uint64_t bytes = 0;
  uint64_t files = 0;
  uint32_t chunks = 0;
  unsigned elapsedSecs = 0;
  unsigned workSecs = 0;
  unsigned bufWaitSecs = 0;
};

// Feeds every file of `walk` through the pipeline into `cm`; fills in the
// chunk references. 0, or the code of the failure, already reported.
int RunPipeline(const std::string& dirName, WalkSpec* walk, ChunkManager* cm, RunSpec* run) {
  TFailure failure;
  TPipelineMgr mgr(kSlotHeader + kChunkSize, false);
  TStoreStation* store = nullptr;
  try {
    mgr.tryAddStationAfterLast(*std::make_unique<TIntakeStation>(mgr, &failure).release());
    mgr.tryAddStationAfterLast(*std::make_unique<THashStation>("Hash1", mgr, &failure).release());
    mgr.tryAddStationParallelToLast(*std::make_unique<THashStation>("Hash2", mgr, &failure).release());
    auto owned = std::make_unique<TStoreStation>(mgr, cm, &failure);
    store = owned.get();
    mgr.tryAddStationAfterLast(*owned.release());
  } catch (int code) {
    return Problem("build the pipeline for", "packing", code);
  }

  // The producer. A failed read ends the run with the reader's code; a
  // failed station shows as a pool without buffers and is told by `failure`.
  TPackProgress progress("pack");
  int readCode = 0;
  int poolCode = 0;
  std::string failedPath;
  uint32_t nextId = 1;
  try {
    for (size_t i = 0; i < walk->entries.size() && readCode == 0 && poolCode == 0; ++i) {
      PackEntrySpec& entry = walk->entries[i];
      if (entry.kind != kPackKindFile) continue;
      TFile file;
      int status = file.Open(LocOf(walk->sources[i]), kFileOpenRead);
      uint64_t offset = 0;
      while (status == 0) {
        int err = 0;
        TPiWorkBuf* buf = mgr.waitForWorkBuf(err);
        if (buf == nullptr) {
          poolCode = err == 0 ? kErrPiLogic : err;
          break;
        }
        uint32_t count = kChunkSize;
        status = file.ReadAt(offset, buf->buf() + kSlotHeader, &count);
        if (status == kErrEndOfFile) status = 0;
        if (status != 0 || count == 0) {
          mgr.returnWorkBuf(*buf);
          break;
        }
        PackChunkRefSpec ref;
        ref.id = nextId++;
        ref.length = count;
        WriteSlot(*buf, ref);
        mgr.addWork(*buf);
        entry.chunks.push_back(ref);
        offset += count;
        progress.Add(count, 0);
        if (count < kChunkSize) break;
      }
      if (status != 0) {
        readCode = status;
        failedPath = walk->sources[i].string();
      }
      entry.size = offset;
      progress.Add(0, 1);
    }
  } catch (int code) {
    poolCode = code;
  }
  progress.Finish();

  int whyEnd = 0;
  try {
    if (readCode != 0 || poolCode != 0) {
      mgr.cancelAndWait(readCode != 0 ? readCode : poolCode, whyEnd);
    } else {
      unsigned buf2WaitSecs = 0;
      mgr.noMoreWorkAndWaitTillEnd(whyEnd, run->elapsedSecs, run->workSecs, run->bufWaitSecs, buf2WaitSecs, false);
    }
  } catch (int code) {
    if (whyEnd == 0) whyEnd = code;
  }
  if (failure.code() != 0) {
    std::string path = "chunk " + std::to_string(failure.chunk());
    for (size_t i = 0; i < walk->entries.size(); ++i)
      for (const PackChunkRefSpec& c : walk->entries[i].chunks)
        if (c.id == failure.chunk()) path = walk->sources[i].string();
    return Problem(failure.what(), path, failure.code());
  }
  if (readCode != 0) return Problem("read", failedPath, readCode);
  if (poolCode != 0) return Problem("pack", dirName, poolCode);
  // A run that never started (no file had bytes) ends with -1024 itself.
  if (whyEnd != 0 && whyEnd != kErrPiEndOfWork) return Problem("finish packing", dirName, whyEnd);

  // Every chunk came through the store in order: take its fingerprints.
  const std::vector<PackChunkRefSpec>& refs = store->refs();
  if (refs.size() != nextId - 1) return Problem("account for", "the chunks", kErrPiLogic);
  for (PackEntrySpec& e : walk->entries) {
    for (PackChunkRefSpec& c : e.chunks) {
      if (refs[c.id - 1].id != c.id || refs[c.id - 1].length != c.length)
        return Problem("account for", "chunk " + std::to_string(c.id), kErrPiLogic);
      c = refs[c.id - 1];
    }
    if (e.kind == kPackKindFile) ++run->files;
  }
  run->bytes = store->bytes();
  run->chunks = nextId - 1;
  return 0;
}

int AddCatalogue(const WalkSpec& walk, ChunkManager* cm) {
  PackCatalogSpec catalog;
  catalog.chunkSize = kChunkSize;
  catalog.entries = walk.entries;
  auto bytes = std::make_unique<TMemory>();
  int status = PackEncodeCatalog(catalog, bytes.get());
  if (status != 0) return Problem("write", "the catalogue", status);
  if ((status = cm->CHAddChunk(bytes.get(), kPackCatalogType, kPackCatalogId)) != 0)
    return Problem("store", "the catalogue", status);
  bytes.release();  // the manager's now
  return 0;
}

// The folder's walk, or 1 after a message.
int WalkFolder(const fs::path& dir, WalkSpec* walk) {
  std::error_code ec;
  if (!fs::is_directory(dir, ec)) {
    int code = ec ? CodeOf(ec) : kErrNotFound;
    std::fprintf(stderr, "plinth pack: %s is not a folder: %s\n", dir.string().c_str(), DescribeCode(code).c_str());
    return 1;
  }
  if (Walk(dir, walk) != 0) return 1;
  for (const std::string& s : walk->skipped) std::fprintf(stderr, "plinth pack: skipped %s\n", s.c_str());
  return 0;
}

// Packs into the open, empty `target`; 0 or the code of the failure, which
// is reported.
int PackInto(const fs::path& dir, WalkSpec* walk, TFile* target, const std::string& name, int saveFlags,
             RunSpec* run) {
  ChunkManager cm;
  int status = cm.CHOpenRef(target);
  if (status != 0) Problem("open the container", name, status);
  if (status == 0) status = RunPipeline(dir.string(), walk, &cm, run);
  if (status == 0) status = AddCatalogue(*walk, &cm);
  if (status == 0 && (status = cm.CHSave(saveFlags)) != 0) Problem("save", name, status);
  if (cm.IsOpen()) {
    int closed = cm.CHClose();
    if (status == 0 && closed != 0) status = Problem("close", name, closed);
  }
  return status;
}

void PrintPacked(const WalkSpec& walk, const RunSpec& run, const std::string& name, uint64_t length,
                 std::chrono::steady_clock::time_point started) {
  size_t folders = walk.entries.size() - run.files;
  double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  std::printf("packed %" PRIu64 " files (%" PRIu64 " bytes) and %zu folders into %s: %u chunks, %" PRIu64
              " bytes; %zu skipped; %.2f s, %.1f MiB/s\n",
              run.files, run.bytes, folders, name.c_str(), run.chunks, length, walk.skipped.size(), secs,
              secs > 0 ? static_cast<double>(run.bytes) / (1024.0 * 1024.0) / secs : 0.0);
  if (run.elapsedSecs > 0)
    std::printf("pipeline, in whole seconds: %u from the first chunk, %u of station work, %u waiting for buffers\n",
                run.elapsedSecs, run.workSecs, run.bufWaitSecs);
}

int Pack(const fs::path& dir, const fs::path& file) {
  WalkSpec walk;
  if (WalkFolder(dir, &walk) != 0) return 1;
  // Made here, so an existing FILE is never touched; removed on failure.
  TFileLoc loc = LocOf(file);
  TFile target;
  int status = target.Open(loc, kFileOpenCreateNew);
  if (status != 0) {
    Problem("make", file.string(), status);
    return 1;
  }
  RunSpec run;
  auto started = std::chrono::steady_clock::now();
  status = PackInto(dir, &walk, &target, file.string(), 0, &run);
  int closed = target.Close();
  if (status == 0 && closed != 0) status = Problem("close", file.string(), closed);
  if (status != 0) {
    loc.Remove();
    std::fprintf(stderr, "plinth pack: %s removed\n", file.string().c_str());
    return 1;
  }
  std::error_code sizeEc;
  PrintPacked(walk, run, file.string(), fs::file_size(file, sizeEc), started);
  return 0;
}

// What the walked files hold, for the upload's part size.
uint64_t WalkedBytes(const WalkSpec& walk) {
  uint64_t total = 0;
  for (size_t i = 0; i < walk.entries.size(); ++i) {
    std::error_code ec;
    if (walk.entries[i].kind == kPackKindFile) total += fs::file_size(walk.sources[i], ec);
  }
  return total;
}

int PackToBucket(const fs::path& dir, const std::string& location, const S3FlagsSpec& flags) {
  WalkSpec walk;
  if (WalkFolder(dir, &walk) != 0) return 1;
  // Chunk headers and the map add far less than a MiB per MiB of data.
  uint64_t bytes = WalkedBytes(walk);
  CloudContainerSpec cloud;
  int exitCode = OpenCloudContainer("pack", location, flags, true, bytes + bytes / 8 + (1 << 20), &cloud);
  if (exitCode != 0) return exitCode;
  RunSpec run;
  auto started = std::chrono::steady_clock::now();
  // The manager's syncs have nothing to make durable here: the object
  // appears whole when the upload completes, or not at all.
  int status = PackInto(dir, &walk, cloud.file.get(), cloud.label, kCHSaveNoSync, &run);
  if (status == 0) {
    ClearToolFailure();
    status = cloud.file->Finish();
  }
  if (status != 0) {
    std::string cause = !cloud.file->Refusal().empty() ? cloud.file->Refusal() : CloudCause(status);
    std::fprintf(stderr, "plinth pack: %s: %s [%s]; the upload was aborted and no object stored\n",
                 cloud.label.c_str(), cause.c_str(), DescribeCode(status).c_str());
    ClearToolFailure();
    int dropped = cloud.file->Abandon();
    if (dropped != 0) ReportPartsLeft("pack", cloud.label, dropped);
    return Interrupted() ? InterruptedExitCode() : 1;
  }
  uint64_t length = 0;
  cloud.file->GetLength(&length);
  PrintPacked(walk, run, cloud.label, length, started);
  return 0;
}

void PrintUsage(std::FILE* to) { std::fprintf(to, kUsage, kS3FlagsHelp, kS3EnvironmentHelp); }

}  // namespace

int RunPackCommand(int argc, char** argv) {
  std::string to;
  S3FlagsSpec flags;
  std::vector<std::string> args;
  for (int i = 0; i < argc; ++i) {
    std::string arg = argv[i];
    std::string why;
    if (arg == "--help" || arg == "-h") {
      PrintUsage(stdout);
      return 0;
    }
    int taken = TakePackCloudFlag(argc, argv, &i, &flags, &why);
    if (taken < 0) return S3Usage("pack", why);
    if (taken > 0) continue;
    if (arg == "--to") {
      if (i + 1 == argc) return S3Usage("pack", "--to needs an s3://BUCKET/KEY location");
      to = argv[++i];
    } else if (arg.size() > 1 && arg[0] == '-') {
      return S3Usage("pack", "unknown option " + arg);
    } else {
      args.push_back(arg);
    }
  }
  // "pack DIR s3://BUCKET/KEY" reads as --to.
  if (to.empty() && args.size() == 2 && IsS3Location(args[1])) {
    to = args[1];
    args.pop_back();
  }
  if (!to.empty() && args.size() == 1) return PackToBucket(args[0], to, flags);
  if (to.empty() && args.size() == 2 && flags.endpoint.empty() && flags.region.empty() && flags.profile.empty()) {
    return Pack(args[0], args[1]);
  }
  PrintUsage(stderr);
  return 2;
}
