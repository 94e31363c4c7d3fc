// TFolderLoc: the location of a folder, kept as its full path.
//
// A location is valid once it names a folder; it need not exist yet.
#ifndef PLINTH_FILES_TFOLDERLOC_H_
#define PLINTH_FILES_TFOLDERLOC_H_

#include "foundation/export.h"
#include "foundation/tobject.h"
#include "foundation/tstring.h"

class PLINTH_API TFolderLoc : public TObject {
 public:
  TFolderLoc() = default;
  explicit TFolderLoc(const TString& path) { Set(path); }

  // Names the folder; trailing delimiters are dropped (but "/" stays).
  void Set(const TString& path);
  void Reset() { m_path.Clear(); }
  bool IsValid() const { return !m_path.IsEmpty(); }
  // The full path without a trailing delimiter.
  const TString& GetPath() const { return m_path; }

  // Whether a folder is there; false when the system cannot say.
  bool Exists() const;
  // Makes the folder (its parent must exist); kErrAlreadyExists when it is
  // there already.
  int Create() const;

  bool operator==(const TFolderLoc& other) const { return m_path == other.m_path; }

 private:
  TString m_path;
};

#endif  // PLINTH_FILES_TFOLDERLOC_H_
