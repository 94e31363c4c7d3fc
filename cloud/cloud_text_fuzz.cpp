// libFuzzer target: cloud location texts and answer header blocks.
//
// The first byte picks the flags SetFromURI is given (virtual hosts, Azure,
// B2, Dropbox, a bit outside the mask), the Azure option and the flags the
// options held before; the rest is read as UTF-8 for the location and taken
// as it is for the header block. Checks what holds whatever the text: the
// flag mask, the form of host, bucket and path, that blanks around change
// nothing, that the rebuilt location reads back to the same fields, and
// that a header block written back from the map parses to the same map.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "cloud/cloud_metadata.h"
#include "cloud/cloud_options.h"
#include "foundation/tstring.h"

namespace {

constexpr size_t kMaxInput = 1 << 16;
constexpr uint32_t kOutsideMask = 0x1000;
constexpr uint32_t kAllFlags = 0xFFFFFFFF;

void Check(bool ok, int line = __builtin_LINE()) {
  if (!ok) {
    std::fprintf(stderr, "cloud_text_fuzz: check at line %d failed\n", line);
    std::abort();
  }
}

bool EndsWith(const TString& s, char16_t c) { return !s.IsEmpty() && s.GetAt(s.GetLength() - 1) == c; }
bool IsLocationBlank(char16_t c) { return c == u' ' || c == u'\t' || c == u'\n'; }

bool SameFields(const TCloudOptions& a, const TCloudOptions& b) {
  return a.GetHost() == b.GetHost() && a.GetBucket() == b.GetBucket() && a.GetPath() == b.GetPath() &&
         a.GetFlags() == b.GetFlags();
}

void CheckLocation(const TString& text, unsigned flags, bool option, uint32_t before) {
  TCloudOptions options;
  options.SetFlags(before);
  options.SetFromURI(text, flags, option);
  const uint32_t kept = ~(kCloudURIFlagMask | kCloudVirtualHostURI);
  Check((options.GetFlags() & kCloudURIFlagMask) == (flags & kCloudURIFlagMask));
  Check((options.GetFlags() & kept) == (before & kept));
  if (options.UseVirtualHostBasedURI()) {
    Check((flags & kCloudVirtualHostAware) != 0);
    Check(!options.GetHost().IsEmpty() && !options.GetBucket().IsEmpty());
  }
  Check(options.GetPath().IsEmpty() || EndsWith(options.GetPath(), u'/'));
  Check(options.GetHost().FindChar(u'/') < 0 && options.GetBucket().FindChar(u'/') < 0);

  TString padded(u" \t\n");
  padded += text;
  padded += u"\n\t ";
  TCloudOptions blanks;
  blanks.SetFlags(before);
  blanks.SetFromURI(padded, flags, option);
  Check(SameFields(blanks, options) && blanks.GetURIText() == options.GetURIText());

  TString region;
  options.GetRegion(&region);
  Check(region.GetLength() < options.GetHost().GetLength() || region.IsEmpty());
  CanUseCloudMetaData(options.GetHost());

  if (options.GetHost().IsEmpty()) {
    Check(options.GetURIText().IsEmpty());
    return;
  }
  TString uri;
  options.GetURI(&uri);
  Check(uri == options.GetURIText());
  // GetURI drops only one final "/", and blanks at the end of a location
  // are not part of it: those cases do not come back whole.
  const TString& path = options.GetPath();
  const bool doubledEnd = path.GetLength() >= 2 && path.GetAt(path.GetLength() - 2) == u'/';
  if (IsLocationBlank(uri.GetAt(uri.GetLength() - 1)) || path == u"/" || doubledEnd) return;
  TCloudOptions again;
  again.SetFlags(before);
  again.SetFromURI(uri, flags, option);
  Check(SameFields(again, options));
  Check(again.GetURIText() == uri);
}

void CheckAccessKey(const TString& text) {
  TCloudOptions options;
  options.SetHost(u"storage.googleapis.com");
  options.SetAccessKey(text);
  TString joined = options.GetProject();
  if (!joined.IsEmpty()) joined += u'/';
  joined += options.GetAccessKey();
  Check(joined == text);
  Check(options.GetProject().FindChar(u'/') < 0);
}

void CheckHeaders(const std::string& text) {
  TCloudMetaData meta;
  meta.SetFromHeader(text);
  std::string written;
  for (const auto& [name, value] : meta.GetHeaders()) {
    Check(!name.empty() && name.find_first_of(" \t\r\n:") == std::string::npos);
    Check(value.find('\n') == std::string::npos);
    Check(value.empty() || (value.find_first_of(" \t\r") != 0 && value.find_last_of(" \t\r") != value.size() - 1));
    written += name + ": " + value + "\r\n";
  }
  for (int key = -1; key <= kCloudMetaKeyCount; ++key) {
    auto k = static_cast<eCloudMetaKey>(key);
    Check((key >= 0 && key < kCloudMetaKeyCount) || (meta.GetKey(k).empty() && meta.GetValue(k).empty()));
    TDate date = meta.GetValueTDate(k);
    Check(date.IsDefault() || date.IsValid());
  }
  TCloudMetaData again;
  again.SetFromHeader(written);
  Check(again.GetHeaders() == meta.GetHeaders());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > kMaxInput) return 0;
  const uint8_t choice = data[0];
  unsigned flags = 0;
  if ((choice & 0x01) != 0) flags |= kCloudVirtualHostAware;
  if ((choice & 0x02) != 0) flags |= kCloudAzure;
  if ((choice & 0x04) != 0) flags |= kCloudBackblaze;
  if ((choice & 0x08) != 0) flags |= kCloudDropbox;
  if ((choice & 0x20) != 0) flags |= kOutsideMask;
  const bool option = (choice & 0x10) != 0;
  const uint32_t before = (choice & 0x40) != 0 ? kAllFlags : kCloudDefaultFlags;

  std::string bytes(reinterpret_cast<const char*>(data + 1), size - 1);
  TString text = TStringFromUTF8(bytes);
  CheckLocation(text, flags, option, before);
  CheckAccessKey(text);
  CheckHeaders(bytes);
  return 0;
}
