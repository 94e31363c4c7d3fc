#include "files/tfolderloc.h"

#include "foundation/errors.h"
#include "foundation/log.h"
#include "platform/file.h"

void TFolderLoc::Set(const TString& path) {
  int n = path.GetLength();
  const char16_t* p = path.GetConstBuffer();
  while (n > 1 && (p[n - 1] == u'/' || p[n - 1] == u'\\')) --n;
  m_path.Assign(p, n);
}

bool TFolderLoc::Exists() const {
  bool exists = false;
  bool isFolder = false;
  if (!IsValid()) return false;
  int code = platform::PathStatus(m_path, &exists, &isFolder);
  if (code != 0) LogLine(514, u"TFolderLoc::Exists: cannot look at <%s>, %E", &m_path, code);
  return exists && isFolder;
}

int TFolderLoc::Create() const {
  if (!IsValid()) {
    LogLine(514, u"TFolderLoc::Create: no folder named, %E", kErrBadName);
    return kErrBadName;
  }
  int code = platform::MakeFolder(m_path);
  if (code != 0) LogLine(514, u"TFolderLoc::Create: cannot make <%s>, %E", &m_path, code);
  return code;
}
