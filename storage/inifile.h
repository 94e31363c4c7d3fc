// Initialisation files: sections in square brackets, "key=value" lines.
//
// The profile functions read and write such files by path, with the
// behaviour of the classic private-profile routines:
//  - Section names and keys compare without regard to case; blanks around
//    a section name, a key and a value are trimmed. A value enclosed in a
//    matching pair of double or single quotes is read without them.
//  - The first section of a name and the first key of a name in it count;
//    later duplicates are kept in the file but never read or written.
//  - Lines whose first non-blank character is ';' or '#' are comments.
//    Lines that are neither a section, a key nor a comment are kept and
//    otherwise ignored, as are keys before the first section.
//  - A read of a missing file, section or key answers the default.
//  - A write creates the file, the section (at the end of the file) and the
//    key (after the last key of its section) as needed, and keeps every
//    other byte of the file as it was. A missing value deletes the key; a
//    missing key deletes the section with all its lines.
//  - Writes replace the file atomically (platform/atomic_file.h), so a crash
//    leaves the old file or the new one.
// Files are UTF-8, optionally with a byte-order mark. Lines end in LF, CRLF
// or a lone CR, each kept as found; new lines take the file's first line
// end, or CRLF in a file that has none. Files over kIniMaxFileBytes, lines
// over kIniMaxLineBytes, NUL bytes and invalid UTF-8 are refused with
// kErrFileTooLarge or kErrInvalidData. Every failure returns a library code
// and writes one log line (517); a process-wide lock keeps each
// read-modify-write whole against the other threads of the process.
#ifndef PLINTH_STORAGE_INIFILE_H_
#define PLINTH_STORAGE_INIFILE_H_

#include <cstddef>
#include <string>
#include <vector>

#include "foundation/export.h"
#include "foundation/tstring.h"

inline constexpr size_t kIniMaxFileBytes = size_t{16} << 20;
inline constexpr size_t kIniMaxLineBytes = size_t{64} << 10;

// Reads `key` of `section` into `value`, or `defaultValue` (empty when null)
// when the file, the section or the key is missing. `found`, when given, is
// set to whether the key was there. 0 or a library code (value then holds the
// default).
PLINTH_API int UGetPrivateProfileString(const TString* section, const TString* key, const TString* defaultValue,
                                        TString* value, const TString* path, bool* found = nullptr);
// Sets `key` of `section` to `value`; a null value deletes the key, a null
// key deletes the section. With all three null there is nothing to write
// out, since every write reaches the disk at once: answers 0. Keys must be
// non-empty and hold no '=' or line end, and may not open with '[', ';' or
// '#'; section names hold no ']' or line end; values hold no line end;
// anything else is kErrBadParameter.
PLINTH_API int UWritePrivateProfileString(const TString* section, const TString* key, const TString* value,
                                          const TString* path);
// The names of the sections, in file order, first occurrences only.
PLINTH_API int GetProfileSectionNames(const TString* path, std::vector<TString>* names);
// The keys of `section`, in file order, first occurrences only.
PLINTH_API int GetProfileKeyNames(const TString* section, const TString* path, std::vector<TString>* names);

// The engine, on UTF-8 text in memory: parsing keeps every byte, so
// Serialize() of an unchanged text gives back exactly what was parsed.
class TIniText {
 public:
  // 0, kErrFileTooLarge or kErrInvalidData; logs nothing.
  int Parse(const char* data, size_t size);
  std::string Serialize() const;

  bool Get(const std::string& section, const std::string& key, std::string* value) const;
  void Set(const std::string& section, const std::string& key, const std::string& value);
  // Whether there was something to delete.
  bool DeleteKey(const std::string& section, const std::string& key);
  bool DeleteSection(const std::string& section);
  std::vector<std::string> SectionNames() const;
  std::vector<std::string> KeyNames(const std::string& section) const;

 private:
  enum class Kind { kOther, kSection, kKey };
  struct Line {
    std::string text;  // without its line end
    std::string end;   // "\n", "\r\n", "\r" or "" (the last line only)
    Kind kind = Kind::kOther;
    std::string name;  // section name or key, trimmed, as written
    std::string folded;  // `name` case-folded, for comparisons
    std::string value;   // a key's value, trimmed and unquoted
  };

  static Line MakeLine(std::string text, std::string end);
  // Index of the first header of `section`, or -1.
  int FindSection(const std::string& folded) const;
  // Index one past the last line of the section headed at `header`.
  size_t SectionEnd(size_t header) const;
  int FindKey(size_t header, const std::string& folded) const;
  const std::string& NewLineEnd() const;

  std::string m_bom;
  std::vector<Line> m_lines;
};

// Section and key names as compared: blanks trimmed, case folded.
std::string FoldIniName(const std::string& utf8);

#endif  // PLINTH_STORAGE_INIFILE_H_
