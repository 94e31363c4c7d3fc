// TKeyedFile: named values for devices in a small initialisation file.
//
// The files are named "device%02d.rdi" inside a folder (the number simply
// grows past two digits: device 100 is "device100.rdi"). Values live either
// in the section "Default" or, for a file that describes several devices, in
// sections "Device%02d" numbered from 00.
//
// Writes without an explicit section always go to "Default". Reads without
// one follow the multi-section flag: "Device%02d" of the current device
// number when it is set, else "Default". The flag is set by isMultiSec and
// CountSections and cleared by every SetFile.
//
// Reads answer 1 when they found a non-empty value, else 0 (the value is
// then empty). Failures of the file itself (unreadable, not an
// initialisation file) read as empty and are logged by the profile
// functions of storage/inifile.h, which do the reading and writing.
//
// Numbers: SetKey writes an unsigned as "0x%x", while GetKey converts with
// "%u" or "%d", so a value written by SetKey reads back as 0 through the
// numeric GetKey; read such values as strings.
#ifndef PLINTH_STORAGE_TKEYEDFILE_H_
#define PLINTH_STORAGE_TKEYEDFILE_H_

#include <cstdint>

#include "files/tfileloc.h"
#include "files/tfolderloc.h"
#include "foundation/export.h"
#include "foundation/tobject.h"
#include "foundation/tstring.h"

class TDate;

class PLINTH_API TKeyedFile : public TObject {
 public:
  // The most sections CountSections looks at.
  static constexpr int kMaxSections = 100;

  TKeyedFile() = default;
  ~TKeyedFile() = default;

  // Each SetFile clears the device number and the multi-section flag first.
  // The first free "device%02d.rdi" in the folder, counting from 0.
  int SetFile(const TFolderLoc* folder);
  // "device%02d.rdi" of `device` in the folder.
  int SetFile(const TFolderLoc* folder, int device);
  int SetFile(const TFolderLoc* folder, const TString* name);
  int SetFile(const TFileLoc* file);

  // Whether the file exists.
  int Exists() const;
  int GetFileLoc(TFileLoc* file) const;

  // Writes to section "Default".
  int SetKey(const TString* key, const TString* value);
  int SetKey(const TString* key, const unsigned* value);
  // The date in its ISO form (TDate::ToISOString).
  void SetKey(const TString* key, const TDate* value);
  void SetKey(const TString* section, const TString* key, const TString* value);

  int GetKey(const TString* key, TString* value) const;
  int GetKey(const TString* section, const TString* key, TString* value) const;
  int GetKey(const TString* key, unsigned* value) const;
  int GetKey(const TString* section, const TString* key, unsigned* value) const;
  int GetKey(const TString* key, int* value) const;
  int GetKey(const TString* section, const TString* key, int* value) const;

  // Clears the multi-section flag when `key` has a value in "Default", else
  // sets it; returns the flag.
  int isMultiSec(const TString* key);
  // Counts "Device00", "Device01", ... while `key` has a non-empty value in
  // them, at most kMaxSections; any hit sets the multi-section flag. The
  // count is kept and returned.
  int CountSections(const TString* key);

  // Removes the keyed file. A non-zero `missingOk` takes a missing file for
  // success; with 0 it is logged as a failure.
  void Delete(int missingOk);
  // Every write reaches the disk at once; this only hands the profile
  // functions their flush request.
  void Flush();

  // The current device number, which names the "Device%02d" section.
  void SetDevice(uint32_t device) { m_device = device; }
  uint32_t GetDevice() const { return m_device; }
  int IsMultiSection() const { return m_multiSec; }
  int GetSectionCount() const { return m_sectionCount; }

  // "device%02d.rdi" and "Device%02d" of a number.
  static TString DeviceFileName(uint32_t device);
  static TString DeviceSectionName(uint32_t device);

 private:
  TString ReadSection() const;
  TString Path() const { return m_file.GetFullPath(); }

  uint32_t m_device = 0;
  TFileLoc m_file;
  int32_t m_multiSec = 0;
  int32_t m_sectionCount = 0;
};

#endif  // PLINTH_STORAGE_TKEYEDFILE_H_
