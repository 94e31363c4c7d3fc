// TSectionKeyFile: values looked up in a text file of sections, each a
// header line with a name in square brackets followed by lines of a key, an
// equals sign and a value.
//
//   [Main]
//   Path = "D:\Data"
//
// Lines are compared with their spaces at both ends stripped and in lower
// case, the whole line, so values come back in lower case too: section main,
// key path give d:\data. The key argument is compared case-blind; the
// section's header, "[name]" lower-cased, likewise. Quotes around a value
// are removed.
//
// Lookups read forward from the current read position. GetSection finds a
// header at or after it (or returns to the current section's first line when
// asked for that section again, in any case); GetKey reads on within the section and
// stops at the next header, leaving the read position at that header so that
// a following GetSection can find it. To search the file again from its
// start, call TTextFile::Reset() (which also forgets the buffer) and Reset().
#ifndef PLINTH_FILES_TSECTIONKEYFILE_H_
#define PLINTH_FILES_TSECTIONKEYFILE_H_

#include <cstdint>

#include "files/ttextfile.h"
#include "foundation/export.h"
#include "foundation/tstring.h"

class PLINTH_API TSectionKeyFile : public TTextFile {
 public:
  TSectionKeyFile() = default;

  // 1 when the section was found (the read position is just past its
  // header line), 0 when not.
  int GetSection(const TString& section);
  // Sets `*value` to the key's value in the current section, or to
  // `defaultValue` when the key is not there. The value's length when the
  // key was found, else 0 (so a key with an empty value answers 0 too).
  int GetKey(const TString& key, const TString& defaultValue, TString* value);
  // GetSection, then GetKey; the default when the section is missing.
  int GetSectionKey(const TString& section, const TString& key, const TString& defaultValue, TString* value);
  // Forgets the current section.
  void Reset();

 private:
  TString m_section;
  uint32_t m_sectionStart = 0;
};

#endif  // PLINTH_FILES_TSECTIONKEYFILE_H_
