#include "files/tfolderloc.h"

void TFolderLoc::Set(const TString& path) {
  int n = path.GetLength();
  const char16_t* p = path.GetConstBuffer();
  while (n > 1 && (p[n - 1] == u'/' || p[n - 1] == u'\\')) --n;
  m_path.Assign(p, n);
}
