// plinth container: look into, change, check and repair chunk container files.
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

#include "files/tfile.h"
#include "files/tfileloc.h"
#include "foundation/errors.h"
#include "foundation/tmemory.h"
#include "foundation/tstring.h"
#include "storage/chunk_format.h"
#include "storage/chunk_manager.h"
#include "storage/chunk_recover.h"
#include "tools/commands.h"

namespace {

const char kUsage[] =
    "usage: plinth container info FILE               the file header and the counts\n"
    "       plinth container ls FILE                 the chunks by type and id\n"
    "       plinth container get FILE TYPE ID        a chunk's bytes to standard output\n"
    "       plinth container put FILE TYPE ID SRC    store file SRC as a chunk (added or replaced;\n"
    "                                                FILE is made when missing) and save\n"
    "       plinth container rm FILE TYPE ID         remove a chunk and save\n"
    "       plinth container verify FILE             check the map and every chunk's checksum\n"
    "       plinth container compact FILE NEWFILE    write the chunks compactly into NEWFILE\n"
    "       plinth container recover FILE NEWFILE    rebuild a damaged or unsaved FILE into NEWFILE\n"
    "\n"
    "TYPE is four characters (DATA; the first is the most significant byte) or a\n"
    "number, decimal or 0x hexadecimal; a TYPE that reads as a number is one. ID is\n"
    "a number. NEWFILE must not exist. Exit code 0 on success (for verify: the map\n"
    "and every chunk are sound; each damaged chunk is named), 1 when the operation\n"
    "fails, 2 for a usage error.\n";

std::string ErrorText(int code) {
  TString text;
  GetErrorText(code, &text);
  return TStringAsString(text);
}

int Fail(const std::string& what, const std::string& file, int code) {
  std::fprintf(stderr, "plinth container: cannot %s %s: %d: %s\n", what.c_str(), file.c_str(), code,
               ErrorText(code).c_str());
  return 1;
}

int Usage(const std::string& complaint) {
  if (!complaint.empty()) std::fprintf(stderr, "plinth container: %s\n\n", complaint.c_str());
  std::fputs(kUsage, stderr);
  return 2;
}

// A decimal or 0x-hexadecimal number up to `limit`, nothing else.
bool ParseNumber(const char* text, uint64_t limit, uint64_t* value) {
  int base = 10;
  if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text += 2;
  }
  if (*text == 0) return false;
  uint64_t v = 0;
  for (; *text != 0; ++text) {
    int digit;
    char c = *text;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if (base == 16 && c >= 'a' && c <= 'f') {
      digit = c - 'a' + 10;
    } else if (base == 16 && c >= 'A' && c <= 'F') {
      digit = c - 'A' + 10;
    } else {
      return false;
    }
    v = v * base + digit;
    if (v > limit) return false;
  }
  *value = v;
  return true;
}

// Public types are non-negative 32-bit values.
bool ParseType(const char* text, int* type) {
  uint64_t v = 0;
  if (ParseNumber(text, INT32_MAX, &v)) {
    *type = static_cast<int>(v);
    return true;
  }
  if (std::strlen(text) != 4) return false;
  uint32_t code = 0;
  for (int i = 0; i < 4; ++i) {
    auto c = static_cast<unsigned char>(text[i]);
    if (c < 0x20 || c > 0x7E) return false;
    code = code << 8 | c;
  }
  *type = static_cast<int>(code);
  return true;
}

// Ids are 32-bit at the manager's interface; 0x80000000 and up (or a
// negative decimal) name the ids whose low word has the top bit set.
bool ParseId(const char* text, int* id) {
  bool negative = text[0] == '-';
  uint64_t v = 0;
  if (!ParseNumber(text + (negative ? 1 : 0), negative ? uint64_t{1} << 31 : UINT32_MAX, &v)) return false;
  *id = negative ? static_cast<int>(-static_cast<int64_t>(v)) : static_cast<int>(static_cast<uint32_t>(v));
  return true;
}

// "DATA 0x44415441"; bytes that are not printable show as '.'.
std::string TypeName(int type) {
  char text[32];
  char chars[5];
  for (int i = 0; i < 4; ++i) {
    auto c = static_cast<unsigned char>(static_cast<uint32_t>(type) >> (24 - 8 * i));
    chars[i] = c >= 0x20 && c <= 0x7E ? static_cast<char>(c) : '.';
  }
  chars[4] = 0;
  std::snprintf(text, sizeof text, "%s 0x%08X", chars, static_cast<uint32_t>(type));
  return text;
}

std::string ChunkName(int type, int id) { return TypeName(type) + " id " + std::to_string(id); }

TFileLoc LocOf(const std::string& path) {
  std::error_code ec;
  std::filesystem::path full = std::filesystem::absolute(path, ec);
  return TFileLoc(TStringFromUTF8(ec ? path : full.string()));
}

// The type and id a chunk operation names.
struct ChunkArgs {
  int type = 0;
  int id = 0;
};

bool ParseChunkArgs(const char* type, const char* id, ChunkArgs* args, int* rc) {
  if (!ParseType(type, &args->type)) {
    *rc = Usage(std::string("bad type '") + type + "'");
    return false;
  }
  if (!ParseId(id, &args->id)) {
    *rc = Usage(std::string("bad id '") + id + "'");
    return false;
  }
  return true;
}

int NoSuchChunk(const std::string& file, const ChunkArgs& args) {
  std::fprintf(stderr, "plinth container: no chunk %s in %s: %d: %s\n", ChunkName(args.type, args.id).c_str(),
               file.c_str(), kErrNotFound, ErrorText(kErrNotFound).c_str());
  return 1;
}

int Open(ChunkManager* cm, const std::string& file, int mode) {
  TFileLoc loc = LocOf(file);
  return cm->CHOpen(&loc, mode);
}

// ---- info ----

void PrintHeader(const CHFileHeaderSpec& h, bool bigEndian, uint64_t fileLength) {
  bool is0100 = h.writer == kCHVersion0100;
  std::printf("file length:        %" PRIu64 "\n", fileLength);
  std::printf("oldest reader:      0x%04X\n", h.oldestReader);
  std::printf("writer version:     0x%04X\n", h.writer);
  std::printf("generation:         %s\n", is0100 ? "0100" : "current");
  std::printf("byte order:         %s\n", bigEndian ? "big-endian" : "little-endian");
  std::printf("chunk header size:  %zu\n", CHChunkHdrSizeOf(is0100));
  std::printf("map address:        %" PRIu64 "\n", h.mapAddress);
  std::printf("map length:         %" PRIu64 "\n", h.mapLength);
  std::printf("end of space:       %" PRIu64 "\n", h.endOfSpace);
  std::printf("address step:       %u\n", h.addressStep);
  std::printf("data start:         %" PRIu64 "\n", h.dataStart);
  if (h.unsaved == 0) {
    std::printf("unsaved marker:     0\n");
  } else {
    std::printf("unsaved marker:     0x%08X (%s)\n", h.unsaved,
                h.unsaved == kCHUnsavedMarker ? "not fully saved" : "unknown value");
  }
  if (h.encryption == 0) {
    std::printf("encryption marker:  0\n");
  } else {
    std::printf("encryption marker:  0x%08X (%s)\n", h.encryption,
                h.encryption == kCHEncryptionMarker ? "configuration chunks encrypted" : "unknown value");
  }
}

// The header comes from the file's bytes, so that an unsaved or damaged file
// shows it too; the counts need the manager.
int Info(const std::string& file) {
  TFile f;
  int rc = f.Open(LocOf(file), kFileOpenRead);
  uint64_t length = 0;
  if (rc == 0) rc = f.GetLength(&length);
  if (rc != 0) return Fail("open", file, rc);
  if (length == 0) {
    std::printf("file length:        0 (an empty file: a new container once something is saved)\n");
    return 0;
  }
  unsigned char bytes[kCHFileHeaderSize];
  uint32_t count = sizeof bytes;
  rc = f.ReadAt(0, bytes, &count);
  if (rc == kErrEndOfFile) rc = kErrCHUnreadable;
  if (rc != 0) return Fail("read the header of", file, rc);
  f.Close();
  CHFileHeaderSpec header{};
  bool bigEndian = false;
  if ((rc = CHDecodeFileHeader(bytes, &header, &bigEndian)) != 0) return Fail("use the header of", file, rc);
  PrintHeader(header, bigEndian, length);

  ChunkManager cm;
  if ((rc = Open(&cm, file, kFileOpenRead)) != 0) return Fail("open the container", file, rc);
  int types = cm.CHCountTypes();
  int64_t chunks = 0;
  for (int i = 1; i <= types; ++i) chunks += cm.CHCountChunks(cm.CHEnumType(i));
  int64_t extents = 0, freeBytes = 0;
  const CHMapEntrySpec* map = cm.GetMapEntries();
  for (int i = 0; i < cm.GetMapCount(); ++i) {
    if (map[i].type != kCHFreeType || map[i].address == kCHGroupHeadAddress) continue;
    ++extents;
    freeBytes += static_cast<int64_t>(map[i].id);
  }
  std::printf("types:              %d\n", types);
  std::printf("chunks:             %" PRId64 "\n", chunks);
  std::printf("map entries:        %d\n", cm.GetMapCount());
  std::printf("free extents:       %" PRId64 " (%" PRId64 " bytes)\n", extents, freeBytes);
  return 0;
}

// ---- ls, get ----

int List(const std::string& file) {
  ChunkManager cm;
  int rc = Open(&cm, file, kFileOpenRead);
  if (rc != 0) return Fail("open", file, rc);
  std::printf("%-15s %11s %12s %10s %10s\n", "TYPE", "ID", "ADDRESS", "SLOT", "SIZE");
  for (int t = 1; t <= cm.CHCountTypes(); ++t) {
    int type = cm.CHEnumType(t);
    for (int i = 1; i <= cm.CHCountChunks(type); ++i) {
      int id = cm.CHEnumChunk(type, i);
      int64_t address = 0, slot = 0;
      if ((rc = cm.CHPhysInfo(type, id, &address, &slot)) != 0)
        return Fail("locate " + ChunkName(type, id) + " in", file, rc);
      int64_t size = cm.CHChunkSize(type, id);
      if (size < 0) return Fail("size " + ChunkName(type, id) + " in", file, static_cast<int>(size));
      std::printf("%-15s %11d %12" PRId64 " %10" PRId64 " %10" PRId64 "\n", TypeName(type).c_str(), id, address, slot,
                  size);
    }
  }
  return 0;
}

int Get(const std::string& file, const ChunkArgs& args) {
  ChunkManager cm;
  int rc = Open(&cm, file, kFileOpenRead);
  if (rc != 0) return Fail("open", file, rc);
  if (!cm.CHFindChunk(args.type, args.id)) return NoSuchChunk(file, args);
  TMemory* handle = nullptr;
  if ((rc = cm.CHGetChunk(args.type, args.id, &handle, 1)) != 0)
    return Fail("read " + ChunkName(args.type, args.id) + " of", file, rc);
  size_t size = handle->GetSize();
  if (size > 0 && std::fwrite(handle->MemPtr(), 1, size, stdout) != size) rc = kErrWriteFault;
  if (std::fflush(stdout) != 0) rc = kErrWriteFault;
  if (rc != 0) return Fail("write the chunk to", "standard output", rc);
  return 0;
}

// ---- put, rm ----

// The whole of `file` in a new handle.
int ReadSource(const std::string& file, std::unique_ptr<TMemory>* out) {
  TFile f;
  int rc = f.Open(LocOf(file), kFileOpenRead);
  uint64_t length = 0;
  if (rc == 0) rc = f.GetLength(&length);
  if (rc != 0) return rc;
  if (length > UINT32_MAX) return kErrFileTooLarge;
  auto handle = std::make_unique<TMemory>();
  if ((rc = handle->SetSize(length)) != 0) return rc;
  uint32_t count = static_cast<uint32_t>(length);
  if (count > 0 && (rc = f.ReadAt(0, handle->MemPtr(), &count)) != 0) return rc;
  *out = std::move(handle);
  return 0;
}

int Put(const std::string& file, const ChunkArgs& args, const std::string& source) {
  std::unique_ptr<TMemory> data;
  int rc = ReadSource(source, &data);
  if (rc != 0) return Fail("read", source, rc);
  ChunkManager cm;
  if ((rc = Open(&cm, file, kFileOpenReadWriteCreate)) != 0) return Fail("open", file, rc);
  std::string what = "store " + ChunkName(args.type, args.id) + " in";
  if (cm.CHFindChunk(args.type, args.id)) {
    TMemory* handle = nullptr;
    if ((rc = cm.CHGetChunk(args.type, args.id, &handle, 1)) != 0) return Fail(what, file, rc);
    if ((rc = handle->SetSize(data->GetSize())) != 0) return Fail(what, file, rc);
    if (data->GetSize() > 0) std::memcpy(handle->MemPtr(), data->MemPtr(), data->GetSize());
    if ((rc = cm.CHChangedChunk(handle)) != 0) return Fail(what, file, rc);
  } else {
    if ((rc = cm.CHAddChunk(data.get(), args.type, args.id)) != 0) return Fail(what, file, rc);
    data.release();  // the manager's now
  }
  if ((rc = cm.CHSave(0)) != 0) return Fail("save", file, rc);
  if ((rc = cm.CHClose()) != 0) return Fail("close", file, rc);
  return 0;
}

int Remove(const std::string& file, const ChunkArgs& args) {
  ChunkManager cm;
  int rc = Open(&cm, file, kFileOpenReadWrite);
  if (rc != 0) return Fail("open", file, rc);
  if (!cm.CHFindChunk(args.type, args.id)) return NoSuchChunk(file, args);
  std::string what = "remove " + ChunkName(args.type, args.id) + " from";
  TMemory* handle = nullptr;
  if ((rc = cm.CHGetChunk(args.type, args.id, &handle, 0)) != 0) return Fail(what, file, rc);
  if ((rc = cm.CHRemoveChunk(handle)) != 0) return Fail(what, file, rc);
  delete handle;  // given back by the removal
  if ((rc = cm.CHSave(0)) != 0) return Fail("save", file, rc);
  if ((rc = cm.CHClose()) != 0) return Fail("close", file, rc);
  return 0;
}

// ---- verify, compact, recover ----

// The map first, then every chunk read back through its checksum, one at a
// time; each damaged chunk is named and the check goes on.
int Verify(const std::string& file) {
  ChunkManager cm;
  int rc = Open(&cm, file, kFileOpenRead);
  if (rc != 0) return Fail("open", file, rc);
  if ((rc = cm.CHVerify()) != 0) return Fail("verify", file, rc);
  int64_t chunks = 0, damaged = 0;
  for (int t = 1; t <= cm.CHCountTypes(); ++t) {
    int type = cm.CHEnumType(t);
    if (static_cast<uint32_t>(type) == kCHMapType) continue;  // read and checked at open
    for (int i = 1; i <= cm.CHCountChunks(type); ++i) {
      int id = cm.CHEnumChunk(type, i);
      TMemory* handle = nullptr;
      rc = cm.CHGetChunk(type, id, &handle, 1);
      if (rc == 0 && (rc = cm.CHDetachChunk(handle)) == 0) delete handle;
      ++chunks;
      if (rc == 0) continue;
      ++damaged;
      std::fprintf(stderr, "plinth container: %s: %s is damaged: %d: %s\n", file.c_str(), ChunkName(type, id).c_str(),
                   rc, ErrorText(rc).c_str());
    }
  }
  if (damaged != 0) {
    std::fprintf(stderr, "plinth container: %s: %" PRId64 " of %" PRId64 " chunks damaged\n", file.c_str(), damaged,
                 chunks);
    return 1;
  }
  std::printf("%s: ok: %" PRId64 " chunks\n", file.c_str(), chunks);
  return 0;
}

// Opens NEWFILE, which must not exist yet; `made` is set once it does.
int OpenTarget(TFile* target, const std::string& file, bool* made) {
  int rc = target->Open(LocOf(file), kFileOpenCreateNew);
  *made = rc == 0;
  return rc;
}

// A target left half-written is removed.
int FailTarget(const std::string& what, const std::string& file, int code, TFile* target, bool made) {
  target->Close();
  if (made) LocOf(file).Remove();
  return Fail(what, file, code);
}

int Finish(TFile* target, const std::string& file, bool made) {
  int rc = target->Sync();
  if (rc == 0) rc = target->Close();
  if (rc != 0) return FailTarget("write", file, rc, target, made);
  return 0;
}

int Compact(const std::string& file, const std::string& newFile) {
  ChunkManager cm;
  int rc = Open(&cm, file, kFileOpenRead);
  if (rc != 0) return Fail("open", file, rc);
  TFile target;
  bool made = false;
  if ((rc = OpenTarget(&target, newFile, &made)) != 0) return Fail("make", newFile, rc);
  if ((rc = cm.CHTruncate(&target)) != 0) return FailTarget("compact into", newFile, rc, &target, made);
  uint64_t before = 0, after = 0;
  cm.CHRefnum()->GetLength(&before);
  target.GetLength(&after);
  if ((rc = Finish(&target, newFile, made)) != 0) return rc;
  std::printf("%s: %" PRIu64 " bytes; %s: %" PRIu64 " bytes\n", file.c_str(), before, newFile.c_str(), after);
  return 0;
}

const char* ReasonText(int reason) {
  switch (reason) {
    case kCHRecoverFromMap:
      return "named by the map";
    case kCHRecoverNewerCopy:
      return "newer than the map";
    case kCHRecoverScanned:
      return "found without a map";
    case kCHRecoverBadChecksum:
      return "bad checksum";
    case kCHRecoverWrongChunk:
      return "another chunk at its address";
    case kCHRecoverOutOfFile:
      return "past the end of the file";
    case kCHRecoverStale:
      return "stale copy";
    case kCHRecoverSuperseded:
      return "superseded by a newer copy";
    default:
      return "unknown reason";
  }
}

void PrintItem(const char* verdict, const CHRecoverItemSpec& item) {
  std::printf("%-7s %-15s %11d %12" PRId64 " %10" PRIu64 " %10" PRIu64 "  %s\n", verdict,
              TypeName(static_cast<int>(item.type)).c_str(), static_cast<int>(static_cast<uint32_t>(item.id)),
              item.address, item.length, item.generation, ReasonText(item.reason));
}

int Recover(const std::string& file, const std::string& newFile) {
  TFile source;
  int rc = source.Open(LocOf(file), kFileOpenRead);
  if (rc != 0) return Fail("open", file, rc);
  TFile target;
  bool made = false;
  if ((rc = OpenTarget(&target, newFile, &made)) != 0) return Fail("make", newFile, rc);
  TCHRecoverReport report;
  if ((rc = CHRecover(&source, &target, &report)) != 0) return FailTarget("recover into", newFile, rc, &target, made);
  if ((rc = Finish(&target, newFile, made)) != 0) return rc;
  if (report.mapFound) {
    std::printf("base map at %" PRId64 ", generation %" PRIu64 "; new map generation %" PRIu64 "\n", report.mapAddress,
                report.mapGeneration, report.newGeneration);
  } else {
    std::printf("no usable map: chunks found by scanning; new map generation %" PRIu64 "\n", report.newGeneration);
  }
  std::printf("%-7s %-15s %11s %12s %10s %10s  %s\n", "", "TYPE", "ID", "ADDRESS", "LENGTH", "GENERATION", "REASON");
  for (const CHRecoverItemSpec& item : report.kept) PrintItem("kept", item);
  for (const CHRecoverItemSpec& item : report.dropped) PrintItem("dropped", item);
  std::printf("%zu kept, %zu dropped\n", report.kept.size(), report.dropped.size());
  return 0;
}

}  // namespace

int RunContainerCommand(int argc, char** argv) {
  // Asked for help anywhere, help it is: never a file named "--help". No
  // verb takes an option, so any other word in that form is a mistake.
  if (AsksForHelp(argc, argv)) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  for (int i = 0; i < argc; ++i) {
    if (std::strncmp(argv[i], "--", 2) == 0) return Usage(std::string("unknown option ") + argv[i]);
  }
  if (argc < 2) return Usage("");
  std::string verb = argv[0], file = argv[1];
  int rc = 0;
  ChunkArgs args;
  if (verb == "info" && argc == 2) return Info(file);
  if (verb == "ls" && argc == 2) return List(file);
  if (verb == "verify" && argc == 2) return Verify(file);
  if (verb == "compact" && argc == 3) return Compact(file, argv[2]);
  if (verb == "recover" && argc == 3) return Recover(file, argv[2]);
  if (verb == "get" && argc == 4) return ParseChunkArgs(argv[2], argv[3], &args, &rc) ? Get(file, args) : rc;
  if (verb == "rm" && argc == 4) return ParseChunkArgs(argv[2], argv[3], &args, &rc) ? Remove(file, args) : rc;
  if (verb == "put" && argc == 5) return ParseChunkArgs(argv[2], argv[3], &args, &rc) ? Put(file, args, argv[4]) : rc;
  return Usage("");
}
