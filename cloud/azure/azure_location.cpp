#include "cloud/azure/azure_location.h"

#include "cloud/cloud_domains.h"

namespace {

constexpr char16_t kLocationBlanks[] = u" \t\n";
constexpr char16_t kSchemes[][9] = {u"https://", u"http://"};
constexpr char16_t kPathDelimiter = u'/';

bool DropScheme(TString* text) {
  for (const char16_t* scheme : kSchemes) {
    TString prefix(scheme);
    if (!text->StartWith(prefix, true)) continue;
    *text = text->Mid(prefix.GetLength());
    return true;
  }
  return false;
}

// "ACCOUNT.<domain>" with an account in front: fills `account`.
bool SplitAccountHost(const TString& host, const char16_t* domain, TString* account) {
  TString suffix(u".");
  suffix += domain;
  int at = host.GetLength() - suffix.GetLength();
  if (at < 1 || host.FindSubstring(suffix, at, true) != at) return false;
  *account = host.Left(at);
  return true;
}

// Azure account names are letters and digits; anything else (a port, a
// blank) names some other host and is left alone.
bool IsBareAccount(const TString& text) {
  if (text.IsEmpty()) return false;
  for (int i = 0; i < text.GetLength(); ++i) {
    char16_t c = text.GetAt(i);
    bool alnum = (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9');
    if (!alnum) return false;
  }
  return true;
}

}  // namespace

void ParseAzureLocation(TString* text, bool usGov, TString* host, TString* container, TString* path) {
  // Pasted URLs come with blanks and sometimes a doubled scheme.
  do {
    text->StripEnds(TString(kLocationBlanks));
  } while (DropScheme(text));

  int slash = text->FindChar(kPathDelimiter);
  TString first = slash < 0 ? *text : text->Left(slash);
  TString account;
  const char16_t* domain = nullptr;
  if (SplitAccountHost(first, kAzureBlobDomain, &account)) {
    domain = kAzureBlobDomain;
  } else if (SplitAccountHost(first, kAzureUsGovBlobDomain, &account)) {
    domain = kAzureUsGovBlobDomain;
  } else if (IsBareAccount(first)) {
    account = first;
    domain = usGov ? kAzureUsGovBlobDomain : kAzureBlobDomain;
  }
  if (domain != nullptr) {
    account.ToLower();
    first = account;
    first += u'.';
    first += domain;
    TString rest = slash < 0 ? TString() : text->Mid(slash);
    *text = first;
    *text += rest;
    slash = text->FindChar(kPathDelimiter);
  }

  *host = first;
  int second = slash < 0 ? -1 : text->FindChar(kPathDelimiter, slash + 1);
  *container = slash < 0 ? TString() : text->Mid(slash + 1, second < 0 ? -1 : second - slash - 1);
  *path = second < 0 ? TString() : text->Mid(second + 1);
  if (!path->IsEmpty() && path->GetAt(path->GetLength() - 1) != kPathDelimiter) path->AddLastChar(kPathDelimiter);
}
