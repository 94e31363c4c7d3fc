// The resource store: texts addressed by a 16-bit group and a four-character
// key (the key's first character in the most significant byte, so "Nevr" is
// 0x4E657672).
//
// Built-in English texts come with the library; each module that owns texts
// registers its table once at load time (ResourceTableRegistrar). A host may
// load a resource file that adds texts or overrides built-in ones, which is
// how it localises. Host texts win over built-in ones.
//
// Resource file format (UTF-8, one text per line):
//   # a comment            blank lines are ignored too
//   16000 Nevr Never       group, key (exactly four characters), one blank or
//                          tab, then the text to the end of the line
//   16020 =REQ 256 5 64 1024   a requirements record, see below
// Escapes in the text: \n newline, \t tab, \\ backslash, \s a blank (for
// texts that must keep a trailing blank).
#ifndef PLINTH_FOUNDATION_RESOURCES_H_
#define PLINTH_FOUNDATION_RESOURCES_H_

#include <cstdint>

#include "foundation/export.h"

class TString;

struct ResourceTextSpec {
  unsigned short group;
  char key[5];            // four characters and a NUL
  const char16_t* text;
};

// The key value of a four-character code.
constexpr unsigned int ResKey(const char (&k)[5]) {
  return (static_cast<unsigned int>(static_cast<unsigned char>(k[0])) << 24) |
         (static_cast<unsigned int>(static_cast<unsigned char>(k[1])) << 16) |
         (static_cast<unsigned int>(static_cast<unsigned char>(k[2])) << 8) |
         static_cast<unsigned int>(static_cast<unsigned char>(k[3]));
}

// Fills `out` with the text; returns 1 when found, 0 (and `out` empty) when not.
PLINTH_API int LoadResourceText(unsigned short group, unsigned int key, TString* out);
// Reads a host resource file; returns 0 or a library error code. A malformed
// line is skipped and logged "LoadResourceFile: line %~d ignored <%s>" at 514.
PLINTH_API int LoadResourceFile(const TString& path);
// Forgets every host text.
PLINTH_API void ClearHostResources();

// Registers a built-in table; used from a static object in the owning module.
class PLINTH_API ResourceTableRegistrar {
 public:
  ResourceTableRegistrar(const ResourceTextSpec* table, int count);
};

#endif  // PLINTH_FOUNDATION_RESOURCES_H_
