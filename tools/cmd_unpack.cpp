// plinth unpack and plinth verify: a packed folder back out of its
// container, and a check of every chunk against the catalogue.
//
// The catalogue is the container's word only: it is decoded with every
// check of PackDecodeCatalog (no absolute paths, no "..", no entry under a
// file), the target folder must be new or empty, and files are made with
// exclusive creation, so nothing outside the target is reached. Every
// chunk is checked against its fingerprints before its bytes are written.
//
// A container in a bucket (s3://BUCKET/KEY) is read in place through a
// TBucketFile: the header, the map and the catalogue at the end, then the
// chunks in order, fetched ahead in ranges.
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "files/tfile.h"
#include "foundation/errors.h"
#include "foundation/tmemory.h"
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

namespace fs = std::filesystem;

namespace {

const char kUnpackUsage[] =
    "usage: plinth unpack FILE DIR\n"
    "       plinth unpack [options] --from s3://BUCKET/KEY DIR\n"
    "\n"
    "Restores the files and folders packed into FILE, or into the object KEY of\n"
    "the bucket (read in place, never copied to the disk), under DIR (contents,\n"
    "modification times, permission bits). DIR is made when missing and must be\n"
    "empty otherwise. Every chunk is checked against its block hashes first; a\n"
    "file with a damaged chunk is not restored.\n"
    "\n"
    "options (with --from):\n"
    "%s"
    "\n"
    "%s"
    "\n"
    "Exit code 0 when everything was restored, 1 when something failed, 2 for a\n"
    "usage error.\n";

const char kVerifyUsage[] =
    "usage: plinth verify [options] FILE|s3://BUCKET/KEY\n"
    "\n"
    "Checks the container FILE made by plinth pack, or the object KEY of the\n"
    "bucket (read in place): its map, its catalogue, and every data chunk against\n"
    "its block hashes; every chunk must belong to exactly one file. Prints each\n"
    "problem.\n"
    "\n"
    "options (with s3://):\n"
    "%s"
    "\n"
    "%s"
    "\n"
    "Exit code 0 when the container is clean, 1 otherwise, 2 for a usage error.\n";

// An open container and its decoded catalogue; a container in a bucket
// keeps its file (and the file its bucket) until the manager is gone.
struct PackedSpec {
  S3FlagsSpec flags;
  CloudContainerSpec cloud;
  ChunkManager cm;
  PackCatalogSpec catalog;
};

// 0, or the exit code after a message.
int OpenContainer(const char* tool, const std::string& file, PackedSpec* packed) {
  if (IsS3Location(file)) {
    int exitCode = OpenCloudContainer(tool, file, packed->flags, false, 0, &packed->cloud);
    if (exitCode != 0) return exitCode;
    int status = packed->cm.CHOpenRef(packed->cloud.file.get());
    if (status == 0) return 0;
    if (status == kErrCHUnreadable || status == kErrCHInvalid || status == kErrCHBadMap) {
      std::fprintf(stderr, "plinth %s: cannot open %s: %s\n", tool, file.c_str(), DescribeCode(status).c_str());
      return 1;
    }
    return ReportCloudFailure(tool, "open", file, status);
  }
  TFileLoc loc = LocOf(file);
  int status = packed->cm.CHOpen(&loc, kFileOpenRead);
  if (status != 0) {
    std::fprintf(stderr, "plinth %s: cannot open %s: %s\n", tool, file.c_str(), DescribeCode(status).c_str());
    return 1;
  }
  return 0;
}

// 0, or the exit code after a message.
int OpenPacked(const char* tool, const std::string& file, PackedSpec* packed) {
  int exitCode = OpenContainer(tool, file, packed);
  if (exitCode != 0) return exitCode;
  int status = 0;
  if (!packed->cm.CHFindChunk(kPackCatalogType, kPackCatalogId)) {
    std::fprintf(stderr, "plinth %s: %s has no catalogue: %s\n", tool, file.c_str(),
                 DescribeCode(kErrNotFound).c_str());
    return 1;
  }
  TMemory* handle = nullptr;
  status = packed->cm.CHGetChunk(kPackCatalogType, kPackCatalogId, &handle, 1);
  if (status == 0) {
    status = PackDecodeCatalog(static_cast<const unsigned char*>(handle->MemPtr()), handle->GetSize(),
                               &packed->catalog);
    if (packed->cm.CHDetachChunk(handle) == 0) delete handle;
  }
  if (status != 0) {
    std::fprintf(stderr, "plinth %s: the catalogue of %s is unusable: %s\n", tool, file.c_str(),
                 DescribeCode(status).c_str());
    return 1;
  }
  return 0;
}

// Reads chunk `ref` and checks it; `data` holds it afterwards.
int ReadChunk(PackedSpec* packed, TBlockHash* hash, const PackChunkRefSpec& ref, std::unique_ptr<TMemory>* data) {
  int type = static_cast<int>(packed->catalog.dataType);
  int id = static_cast<int>(ref.id);
  if (!packed->cm.CHFindChunk(type, id)) return kErrNotFound;
  TMemory* handle = nullptr;
  int status = packed->cm.CHGetChunk(type, id, &handle, 1);
  if (status != 0) return status;
  status = packed->cm.CHDetachChunk(handle);
  if (status != 0) return status;
  data->reset(handle);
  return PackCheckChunk(hash, packed->catalog.dataType, ref, static_cast<const unsigned char*>(handle->MemPtr()),
                        handle->GetSize());
}

// ---- unpack ----

int Complain(const std::string& what, const std::string& path, int code) {
  std::fprintf(stderr, "plinth unpack: cannot %s %s: %s\n", what.c_str(), path.c_str(), DescribeCode(code).c_str());
  return code;
}

int SetAttributes(const fs::path& target, const PackEntrySpec& entry) {
  std::error_code ec;
  fs::permissions(target, static_cast<fs::perms>(entry.mode), fs::perm_options::replace, ec);
  if (!ec) fs::last_write_time(target, FromUnixTime(entry.mtimeSeconds, entry.mtimeNanos), ec);
  if (ec) return Complain("set the mode and time of", target.string(), CodeOf(ec));
  return 0;
}

// Writes one file from its chunks; a file that cannot be finished is
// removed again.
int RestoreFile(PackedSpec* packed, TBlockHash* hash, const fs::path& target, const PackEntrySpec& entry,
                TPackProgress* progress) {
  std::error_code ec;
  fs::create_directories(target.parent_path(), ec);
  if (ec) return Complain("make the folder", target.parent_path().string(), CodeOf(ec));
  TFileLoc loc = LocOf(target);
  TFile out;
  int status = out.Open(loc, kFileOpenCreateNew);
  if (status != 0) return Complain("make", target.string(), status);
  uint64_t offset = 0;
  for (const PackChunkRefSpec& ref : entry.chunks) {
    std::unique_ptr<TMemory> data;
    status = ReadChunk(packed, hash, ref, &data);
    if (status != 0) {
      Complain("restore", entry.path + " (chunk " + std::to_string(ref.id) + ")", status);
      break;
    }
    uint32_t count = data->GetSize();
    if ((status = out.WriteAt(offset, data->MemPtr(), &count)) != 0) {
      Complain("write", target.string(), status);
      break;
    }
    offset += count;
    progress->Add(count, 0);
  }
  if (status == 0 && (status = out.Close()) != 0) Complain("close", target.string(), status);
  if (status != 0) {
    out.Close();
    loc.Remove();
    return status;
  }
  progress->Add(0, 1);
  return SetAttributes(target, entry);
}

int Unpack(const std::string& file, const fs::path& dir, const S3FlagsSpec& flags) {
  PackedSpec packed;
  packed.flags = flags;
  int exitCode = OpenPacked("unpack", file, &packed);
  if (exitCode != 0) return exitCode;
  std::error_code ec;
  if (fs::exists(dir, ec)) {
    if (!fs::is_directory(dir, ec) || !fs::is_empty(dir, ec)) {
      std::fprintf(stderr, "plinth unpack: %s exists and is not an empty folder\n", dir.string().c_str());
      return 1;
    }
  } else if (fs::create_directories(dir, ec), ec) {
    Complain("make the folder", dir.string(), CodeOf(ec));
    return 1;
  }

  TBlockHash hash(static_cast<unsigned char>(kPackDigestType));
  TPackProgress progress("unpack");
  int failed = 0;
  uint64_t files = 0, folders = 0, bytes = 0;
  for (const PackEntrySpec& entry : packed.catalog.entries) {
    // Ctrl-C on a read from a bucket: stop, rather than fail file by file.
    if (Interrupted()) break;
    fs::path target = dir / fs::path(entry.path);
    if (entry.kind == kPackKindFolder) {
      fs::create_directories(target, ec);
      if (ec) {
        Complain("make the folder", target.string(), CodeOf(ec));
        ++failed;
      }
      continue;
    }
    if (RestoreFile(&packed, &hash, target, entry, &progress) != 0) {
      ++failed;
      continue;
    }
    ++files;
    bytes += entry.size;
  }
  // Folders last and deepest first: their times change with every file
  // made in them, and a read-only folder takes no more files.
  for (auto it = packed.catalog.entries.rbegin(); it != packed.catalog.entries.rend(); ++it) {
    if (it->kind != kPackKindFolder) continue;
    fs::path target = dir / fs::path(it->path);
    if (!fs::is_directory(target, ec)) continue;  // reported above
    if (SetAttributes(target, *it) != 0) ++failed;
    ++folders;
  }
  progress.Finish();
  if (Interrupted()) {
    std::fprintf(stderr, "plinth unpack: interrupted; %s holds what was restored before\n", dir.string().c_str());
    return InterruptedExitCode();
  }
  if (failed != 0) {
    std::fprintf(stderr, "plinth unpack: %d of %zu entries failed\n", failed, packed.catalog.entries.size());
    return 1;
  }
  std::printf("unpacked %" PRIu64 " files (%" PRIu64 " bytes) and %" PRIu64 " folders into %s\n", files, bytes,
              folders, dir.string().c_str());
  return 0;
}

// ---- verify ----

int Verify(const std::string& file, const S3FlagsSpec& flags) {
  PackedSpec packed;
  packed.flags = flags;
  int exitCode = OpenPacked("verify", file, &packed);
  if (exitCode != 0) return exitCode;
  int problems = 0;
  auto report = [&](const std::string& text) {
    std::fprintf(stderr, "plinth verify: %s: %s\n", file.c_str(), text.c_str());
    ++problems;
  };
  int status = packed.cm.CHVerify();
  if (status != 0) report("the map is inconsistent: " + DescribeCode(status));

  TBlockHash hash(static_cast<unsigned char>(kPackDigestType));
  TPackProgress progress("verify");
  std::set<uint32_t> referenced;
  uint64_t files = 0, chunks = 0, bytes = 0;
  for (const PackEntrySpec& entry : packed.catalog.entries) {
    if (Interrupted()) break;
    if (entry.kind == kPackKindFile) ++files;
    for (const PackChunkRefSpec& ref : entry.chunks) {
      referenced.insert(ref.id);
      std::unique_ptr<TMemory> data;
      status = ReadChunk(&packed, &hash, ref, &data);
      if (status != 0) {
        report(entry.path + ": chunk " + std::to_string(ref.id) + ": " +
               (status == kErrCrc && data != nullptr ? "block hash mismatch" : "unreadable") + ": " +
               DescribeCode(status));
        continue;
      }
      ++chunks;
      bytes += ref.length;
      progress.Add(ref.length, 0);
    }
    progress.Add(0, 1);
  }
  progress.Finish();
  if (Interrupted()) {
    std::fprintf(stderr, "plinth verify: %s: interrupted\n", file.c_str());
    return InterruptedExitCode();
  }

  // Every chunk of the container belongs to the catalogue.
  int dataType = static_cast<int>(packed.catalog.dataType);
  for (int t = 1; t <= packed.cm.CHCountTypes(); ++t) {
    int type = packed.cm.CHEnumType(t);
    if (type == kPackCatalogType || static_cast<uint32_t>(type) == kCHMapType) continue;
    if (type != dataType) {
      report("chunks of an unknown type " + std::to_string(type));
      continue;
    }
    for (int i = 1; i <= packed.cm.CHCountChunks(type); ++i) {
      auto id = static_cast<uint32_t>(packed.cm.CHEnumChunk(type, i));
      if (referenced.count(id) == 0) report("chunk " + std::to_string(id) + " belongs to no file");
    }
  }
  if (problems != 0) {
    std::fprintf(stderr, "plinth verify: %s: %d problems\n", file.c_str(), problems);
    return 1;
  }
  std::printf("%s: ok: %" PRIu64 " files, %zu entries, %" PRIu64 " chunks, %" PRIu64 " bytes\n", file.c_str(), files,
              packed.catalog.entries.size(), chunks, bytes);
  return 0;
}

void PrintUsage(const char* usage, std::FILE* to) { std::fprintf(to, usage, kS3FlagsHelp, kS3EnvironmentHelp); }

// The arguments of unpack or verify: positionals, the cloud options and,
// for unpack, --from. 0, -1 after --help, or 2 after a usage message.
int ParseArgs(const char* tool, const char* usage, int argc, char** argv, bool takesFrom,
              std::vector<std::string>* args, S3FlagsSpec* flags) {
  std::string from;
  for (int i = 0; i < argc; ++i) {
    std::string arg = argv[i];
    std::string why;
    if (arg == "--help" || arg == "-h") {
      PrintUsage(usage, stdout);
      return -1;
    }
    int taken = TakePackCloudFlag(argc, argv, &i, flags, &why);
    if (taken < 0) return S3Usage(tool, why);
    if (taken > 0) continue;
    if (takesFrom && arg == "--from") {
      if (i + 1 == argc) return S3Usage(tool, "--from needs an s3://BUCKET/KEY location");
      from = argv[++i];
    } else if (arg.size() > 1 && arg[0] == '-') {
      return S3Usage(tool, "unknown option " + arg);
    } else {
      args->push_back(arg);
    }
  }
  if (!from.empty()) {
    if (!IsS3Location(from)) return S3Usage(tool, "--from takes an s3://BUCKET/KEY location, not " + from);
    args->insert(args->begin(), from);
  }
  bool cloudFlags = !flags->endpoint.empty() || !flags->region.empty() || !flags->profile.empty();
  size_t want = takesFrom ? 2 : 1;
  if (args->size() != want || (cloudFlags && !IsS3Location(args->front()))) {
    PrintUsage(usage, stderr);
    return 2;
  }
  return 0;
}

}  // namespace

int RunUnpackCommand(int argc, char** argv) {
  std::vector<std::string> args;
  S3FlagsSpec flags;
  int parsed = ParseArgs("unpack", kUnpackUsage, argc, argv, true, &args, &flags);
  if (parsed != 0) return parsed < 0 ? 0 : parsed;
  return Unpack(args[0], args[1], flags);
}

int RunVerifyCommand(int argc, char** argv) {
  std::vector<std::string> args;
  S3FlagsSpec flags;
  int parsed = ParseArgs("verify", kVerifyUsage, argc, argv, false, &args, &flags);
  if (parsed != 0) return parsed < 0 ? 0 : parsed;
  return Verify(args[0], flags);
}
