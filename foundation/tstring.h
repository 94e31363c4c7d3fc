// TString, the library's string: a counted string of UTF-16 code units
// (char16_t on every platform) that every interface takes for names, paths,
// messages and log lines.
//
// Storage: the characters are always followed by a NUL unit, so
// GetConstBuffer() can be handed to code that wants a terminated text.
#ifndef PLINTH_FOUNDATION_TSTRING_H_
#define PLINTH_FOUNDATION_TSTRING_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "foundation/export.h"
#include "foundation/tobject.h"

class PLINTH_API TString : public TObject {
 public:
  TString();
  TString(const TString& other);
  TString(TString&& other) noexcept;
  // From a wide text; `length` -1 reads up to the terminator.
  TString(const char16_t* text, int length = -1);  // NOLINT: implicit on purpose
  ~TString();

  TString& operator=(const TString& other);
  TString& operator=(TString&& other) noexcept;
  TString& operator=(const char16_t* text);

  int GetLength() const { return m_length; }
  bool IsEmpty() const { return m_length == 0; }
  const char16_t* GetConstBuffer() const;

  void Clear();
  void Assign(const char16_t* text, int length = -1);
  void Append(const char16_t* text, int length = -1);
  void Append(const TString& other) { Append(other.GetConstBuffer(), other.m_length); }
  TString& operator+=(const TString& other) { Append(other); return *this; }
  TString& operator+=(const char16_t* text) { Append(text); return *this; }
  TString& operator+=(char16_t ch) { Append(&ch, 1); return *this; }

  bool operator==(const TString& other) const;
  bool operator!=(const TString& other) const { return !(*this == other); }

 private:
  void Reserve(int minLength);

  char16_t* m_data = nullptr;  // MemAlloc'd, NUL-terminated; null while empty
  int m_length = 0;
  int m_capacity = 0;          // code units available before the NUL
};

// UTF-8 text of `s`; unpaired surrogates become U+FFFD.
PLINTH_API std::string TStringAsString(const TString& s);
// Decodes UTF-8; invalid sequences become U+FFFD.
PLINTH_API TString TStringFromUTF8(const std::string& utf8);

#endif  // PLINTH_FOUNDATION_TSTRING_H_
