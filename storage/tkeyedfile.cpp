#include "storage/tkeyedfile.h"

#include "platform/atomic_file.h"
#include "storage/inifile.h"
#include "time/tdate.h"

namespace {

const char16_t kDefaultSection[] = u"Default";

}  // namespace

TString TKeyedFile::DeviceFileName(uint32_t device) {
  TString name;
  name.SPrintf(u"device%02~lu.rdi", static_cast<unsigned long>(device));
  return name;
}

TString TKeyedFile::DeviceSectionName(uint32_t device) {
  TString name;
  name.SPrintf(u"Device%02~lu", static_cast<unsigned long>(device));
  return name;
}

int TKeyedFile::SetFile(const TFolderLoc* folder) {
  m_device = 0;
  m_multiSec = 0;
  // No upper bound: the name grows past two digits.
  for (uint32_t n = 0;; ++n) {
    TFileLoc candidate(*folder, DeviceFileName(n));
    if (!platform::FileIsPresent(candidate.GetFullPath())) {
      m_file = candidate;
      return 0;
    }
  }
}

int TKeyedFile::SetFile(const TFolderLoc* folder, int device) {
  m_device = 0;
  m_multiSec = 0;
  m_file.Set(*folder, DeviceFileName(static_cast<uint32_t>(device)));
  return 0;
}

int TKeyedFile::SetFile(const TFolderLoc* folder, const TString* name) {
  m_device = 0;
  m_multiSec = 0;
  m_file.Set(*folder, *name);
  return 0;
}

int TKeyedFile::SetFile(const TFileLoc* file) {
  m_device = 0;
  m_multiSec = 0;
  m_file = *file;
  return 0;
}

int TKeyedFile::Exists() const { return m_file.IsValid() && platform::FileIsPresent(Path()) ? 1 : 0; }

int TKeyedFile::GetFileLoc(TFileLoc* file) const {
  *file = m_file;
  return 0;
}

int TKeyedFile::SetKey(const TString* key, const TString* value) {
  TString section(kDefaultSection);
  TString path = Path();
  UWritePrivateProfileString(&section, key, value, &path);
  return 0;
}

int TKeyedFile::SetKey(const TString* key, const unsigned* value) {
  TString text;
  text.SPrintf(u"0x%x", *value);
  return SetKey(key, &text);
}

void TKeyedFile::SetKey(const TString* key, const TDate* value) {
  TString text = value->ToISOString();
  SetKey(key, &text);
}

void TKeyedFile::SetKey(const TString* section, const TString* key, const TString* value) {
  TString path = Path();
  UWritePrivateProfileString(section, key, value, &path);
}

TString TKeyedFile::ReadSection() const {
  return m_multiSec != 0 ? DeviceSectionName(m_device) : TString(kDefaultSection);
}

int TKeyedFile::GetKey(const TString* key, TString* value) const {
  TString section = ReadSection();
  return GetKey(&section, key, value);
}

int TKeyedFile::GetKey(const TString* section, const TString* key, TString* value) const {
  value->Clear();
  TString path = Path();
  TString empty;
  UGetPrivateProfileString(section, key, &empty, value, &path);
  return value->IsEmpty() ? 0 : 1;
}

int TKeyedFile::GetKey(const TString* key, unsigned* value) const {
  TString section = ReadSection();
  return GetKey(&section, key, value);
}

int TKeyedFile::GetKey(const TString* section, const TString* key, unsigned* value) const {
  TString text;
  int found = GetKey(section, key, &text);
  if (found != 0) text.SScanf(u"%u", value);
  return found;
}

int TKeyedFile::GetKey(const TString* key, int* value) const {
  TString section = ReadSection();
  return GetKey(&section, key, value);
}

int TKeyedFile::GetKey(const TString* section, const TString* key, int* value) const {
  TString text;
  int found = GetKey(section, key, &text);
  if (found != 0) text.SScanf(u"%d", value);
  return found;
}

int TKeyedFile::isMultiSec(const TString* key) {
  TString section(kDefaultSection);
  TString value;
  m_multiSec = GetKey(&section, key, &value) != 0 ? 0 : 1;
  return m_multiSec;
}

int TKeyedFile::CountSections(const TString* key) {
  int count = 0;
  TString value;
  while (count < kMaxSections) {
    TString section = DeviceSectionName(static_cast<uint32_t>(count));
    if (GetKey(&section, key, &value) == 0) break;
    ++count;
  }
  if (count > 0) m_multiSec = 1;
  m_sectionCount = count;
  return count;
}

void TKeyedFile::Delete(int missingOk) { platform::RemoveFileAt(Path(), missingOk != 0); }

void TKeyedFile::Flush() {
  TString path = Path();
  UWritePrivateProfileString(nullptr, nullptr, nullptr, &path);
}
