#include "cloud/storage_group.h"

#include <cstdio>

#include "cloud/cloud_metadata.h"
#include "foundation/errors.h"
#include "foundation/format_checked.h"
#include "storage/inifile.h"

namespace {

constexpr char kSection[] = "CloudStorageGroup";

bool HoldsLineEnd(const TString& text) { return text.FindSet(TString(u"\r\n")) >= 0; }

std::string Quoted(const TString& text) {
  std::string out(1, '"');
  out += TStringAsString(text);
  out += '"';
  return out;
}

// Decimal or 0x hexadecimal, 32 bits.
bool ParseWord(const std::string& text, uint32_t* out) {
  TString wide = TStringFromUTF8(text);
  unsigned value = 0;
  bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  if (text.empty() || text.find_first_not_of(hex ? "0123456789abcdefABCDEFxX" : "0123456789") != std::string::npos) {
    return false;
  }
  if (wide.SScanf(hex ? u"%x" : u"%u", &value) != 1) return false;
  *out = value;
  return true;
}

int Refuse(const char16_t* why, int code) {
  TString text(why);
  LogLineChecked(514, u"ParseCloudStorageGroup: %s, %E", &text, code);
  return code;
}

}  // namespace

int FormatCloudStorageGroup(const CloudStorageGroupSpec& group, std::string* text) {
  if (group.name.IsEmpty() || HoldsLineEnd(group.name) || HoldsLineEnd(group.host) || HoldsLineEnd(group.bucket) ||
      HoldsLineEnd(group.path)) {
    LogLineChecked(514, u"FormatCloudStorageGroup: empty name or a line end in a field, %E", kErrBadParameter);
    return kErrBadParameter;
  }
  TIniText ini;
  char flags[16];
  std::snprintf(flags, sizeof flags, "0x%08X", group.flags);
  ini.Set(kSection, "Version", std::to_string(kCloudStorageGroupVersion));
  ini.Set(kSection, "Name", Quoted(group.name));
  ini.Set(kSection, "Host", Quoted(group.host));
  ini.Set(kSection, "Bucket", Quoted(group.bucket));
  ini.Set(kSection, "Path", Quoted(group.path));
  ini.Set(kSection, "Flags", flags);
  ini.Set(kSection, "Created", CloudGmtText(group.created));
  *text = ini.Serialize();
  return 0;
}

int ParseCloudStorageGroup(const std::string& text, CloudStorageGroupSpec* group) {
  TIniText ini;
  if (ini.Parse(text.data(), text.size()) != 0) return Refuse(u"not ini text", kErrInvalidData);
  std::string value;
  uint32_t version = 0;
  if (!ini.Get(kSection, "Version", &value)) return Refuse(u"no version", kErrInvalidData);
  if (!ParseWord(value, &version) || version == 0) return Refuse(u"bad version", kErrInvalidData);
  if (version > kCloudStorageGroupVersion) return Refuse(u"written by a newer version", kErrNotSupported);
  CloudStorageGroupSpec out;
  out.version = version;
  if (!ini.Get(kSection, "Name", &value) || value.empty()) return Refuse(u"no name", kErrInvalidData);
  out.name = TStringFromUTF8(value);
  if (ini.Get(kSection, "Host", &value)) out.host = TStringFromUTF8(value);
  if (ini.Get(kSection, "Bucket", &value)) out.bucket = TStringFromUTF8(value);
  if (ini.Get(kSection, "Path", &value)) out.path = TStringFromUTF8(value);
  if (ini.Get(kSection, "Flags", &value) && !ParseWord(value, &out.flags)) return Refuse(u"bad flags", kErrInvalidData);
  if (ini.Get(kSection, "Created", &value) && out.created.FromISOString(TStringFromUTF8(value)) != 0) {
    return Refuse(u"bad date", kErrInvalidData);
  }
  *group = out;
  return 0;
}
