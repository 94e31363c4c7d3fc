// TFileLoc: the location of a file, a folder location and a name.
//
// A location is valid once both parts are set; the file need not exist.
// Locations are values: copying one (copy construction, assignment, Copy)
// copies both parts. Queries of the file system write one 514 log line
// when the system fails them; a missing file is an answer, not a failure.
#ifndef PLINTH_FILES_TFILELOC_H_
#define PLINTH_FILES_TFILELOC_H_

#include "files/tfolderloc.h"
#include "foundation/export.h"
#include "foundation/tobject.h"
#include "foundation/tstring.h"

class PLINTH_API TFileLoc : public TObject {
 public:
  TFileLoc() = default;
  TFileLoc(const TFolderLoc& folder, const TString& name) { Set(folder, name); }
  // Splits a full path at its last delimiter ('/' or '\\').
  explicit TFileLoc(const TString& fullPath) { SetFullPath(fullPath); }

  void Set(const TFolderLoc& folder, const TString& name);
  void SetFullPath(const TString& fullPath);
  void Reset();
  bool IsValid() const { return m_folder.IsValid() && !m_name.IsEmpty(); }

  const TFolderLoc& GetFolder() const { return m_folder; }
  const TString& GetName() const { return m_name; }
  // The folder's path, one delimiter, the name.
  TString GetFullPath() const;

  void Copy(const TFileLoc& other) { *this = other; }

  // Whether a file (not a folder) is there; false when the system cannot say.
  bool Exists() const;
  // Removes the file: 0, kErrNotFound, or the mapped failure.
  int Remove() const;
  // Whether another open holds a lock on the file that would stop a write
  // lock (see TFile::LockWrite). A missing file is not locked.
  int IsWriteLocked(bool* locked) const;

  bool operator==(const TFileLoc& other) const { return m_folder == other.m_folder && m_name == other.m_name; }

 private:
  TFolderLoc m_folder;
  TString m_name;
};

#endif  // PLINTH_FILES_TFILELOC_H_
