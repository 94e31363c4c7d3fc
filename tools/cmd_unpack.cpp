// plinth unpack and plinth verify: a packed folder back out of its
// container, and a check of every chunk against the catalogue.
//
// The catalogue is the container's word only: it is decoded with every
// check of PackDecodeCatalog (no absolute paths, no "..", no entry under a
// file), the target folder must be new or empty, and files are made with
// exclusive creation, so nothing outside the target is reached. Every
// chunk is checked against its fingerprints before its bytes are written.
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
#include "tools/pack_common.h"

namespace fs = std::filesystem;

namespace {

const char kUnpackUsage[] =
    "usage: plinth unpack FILE DIR\n"
    "\n"
    "Restores the files and folders packed into FILE (contents, modification\n"
    "times, permission bits) under DIR, which is made when missing and must be\n"
    "empty otherwise. Every chunk is checked against its block hashes first; a\n"
    "file with a damaged chunk is not restored. Exit code 0 when everything was\n"
    "restored, 1 when something failed, 2 for a usage error.\n";

const char kVerifyUsage[] =
    "usage: plinth verify FILE\n"
    "\n"
    "Checks the container FILE made by plinth pack: its map, its catalogue, and\n"
    "every data chunk against its block hashes; every chunk must belong to\n"
    "exactly one file. Prints each problem. Exit code 0 when FILE is clean, 1\n"
    "otherwise, 2 for a usage error.\n";

// An open container and its decoded catalogue.
struct PackedSpec {
  ChunkManager cm;
  PackCatalogSpec catalog;
};

int OpenPacked(const char* tool, const std::string& file, PackedSpec* packed) {
  TFileLoc loc = LocOf(file);
  int status = packed->cm.CHOpen(&loc, kFileOpenRead);
  if (status != 0) {
    std::fprintf(stderr, "plinth %s: cannot open %s: %s\n", tool, file.c_str(), DescribeCode(status).c_str());
    return status;
  }
  if (!packed->cm.CHFindChunk(kPackCatalogType, kPackCatalogId)) {
    std::fprintf(stderr, "plinth %s: %s has no catalogue: %s\n", tool, file.c_str(),
                 DescribeCode(kErrNotFound).c_str());
    return kErrNotFound;
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
  }
  return status;
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

int Unpack(const std::string& file, const fs::path& dir) {
  PackedSpec packed;
  if (OpenPacked("unpack", file, &packed) != 0) return 1;
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
  if (failed != 0) {
    std::fprintf(stderr, "plinth unpack: %d of %zu entries failed\n", failed, packed.catalog.entries.size());
    return 1;
  }
  std::printf("unpacked %" PRIu64 " files (%" PRIu64 " bytes) and %" PRIu64 " folders into %s\n", files, bytes,
              folders, dir.string().c_str());
  return 0;
}

// ---- verify ----

int Verify(const std::string& file) {
  PackedSpec packed;
  if (OpenPacked("verify", file, &packed) != 0) return 1;
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

  // Every chunk of the container belongs to the catalogue.
  int dataType = static_cast<int>(packed.catalog.dataType);
  for (int t = 1; t <= packed.cm.CHCountTypes(); ++t) {
    int type = packed.cm.CHEnumType(t);
    if (type == kPackCatalogType) continue;
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

bool WantsHelp(int argc, char** argv) {
  return argc == 1 && (std::strcmp(argv[0], "--help") == 0 || std::strcmp(argv[0], "-h") == 0);
}

}  // namespace

int RunUnpackCommand(int argc, char** argv) {
  if (WantsHelp(argc, argv)) {
    std::fputs(kUnpackUsage, stdout);
    return 0;
  }
  if (argc != 2) {
    std::fputs(kUnpackUsage, stderr);
    return 2;
  }
  return Unpack(argv[0], argv[1]);
}

int RunVerifyCommand(int argc, char** argv) {
  if (WantsHelp(argc, argv)) {
    std::fputs(kVerifyUsage, stdout);
    return 0;
  }
  if (argc != 1) {
    std::fputs(kVerifyUsage, stderr);
    return 2;
  }
  return Verify(argv[0]);
}
