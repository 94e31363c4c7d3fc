#include "files/tfileloc.h"

#include "foundation/errors.h"
#include "foundation/log.h"
#include "platform/file.h"
#include "platform/path.h"

void TFileLoc::Set(const TFolderLoc& folder, const TString& name) {
  m_folder = folder;
  m_name = name;
}

void TFileLoc::SetFullPath(const TString& fullPath) {
  int n = fullPath.GetLength();
  const char16_t* p = fullPath.GetConstBuffer();
  int cut = n - 1;
  while (cut >= 0 && p[cut] != u'/' && p[cut] != u'\\') --cut;
  if (cut < 0) {
    Reset();
    return;
  }
  TString folder;
  // The root keeps its delimiter.
  folder.Assign(p, cut == 0 ? 1 : cut);
  m_folder.Set(folder);
  m_name.Assign(p + cut + 1, n - cut - 1);
}

void TFileLoc::Reset() {
  m_folder.Reset();
  m_name.Clear();
}

TString TFileLoc::GetFullPath() const {
  TString path(m_folder.GetPath());
  int n = path.GetLength();
  if (n == 0 || path.GetConstBuffer()[n - 1] != platform::kPathDelimiter) path += platform::kPathDelimiter;
  path += m_name;
  return path;
}

bool TFileLoc::Exists() const {
  if (!IsValid()) return false;
  TString path = GetFullPath();
  bool exists = false;
  bool isFolder = false;
  int code = platform::PathStatus(path, &exists, &isFolder);
  if (code != 0) LogLine(514, u"TFileLoc::Exists: cannot look at <%s>, %E", &path, code);
  return exists && !isFolder;
}

int TFileLoc::Remove() const {
  TString path = GetFullPath();
  if (!IsValid()) {
    LogLine(514, u"TFileLoc::Remove: invalid location <%s>, %E", &path, kErrBadName);
    return kErrBadName;
  }
  int code = platform::RemoveFile(path);
  if (code != 0) LogLine(514, u"TFileLoc::Remove: cannot remove <%s>, %E", &path, code);
  return code;
}

int TFileLoc::IsWriteLocked(bool* locked) const {
  *locked = false;
  TString path = GetFullPath();
  if (!IsValid()) {
    LogLine(514, u"TFileLoc::IsWriteLocked: invalid location <%s>, %E", &path, kErrBadName);
    return kErrBadName;
  }
  int code = platform::IsPathWriteLocked(path, locked);
  if (code != 0) LogLine(514, u"TFileLoc::IsWriteLocked: cannot test <%s>, %E", &path, code);
  return code;
}
