// TString, the library's string: a counted string of UTF-16 code units
// (char16_t on every platform, written as u"..." literals) that every
// interface takes for names, paths, messages and log lines.
//
// Storage. Up to kInlineUnits units live inside the object; longer texts
// live in a MemAlloc'd block that grows by half again each time it must
// grow. The characters are always followed by a NUL unit, so
// GetConstBuffer() can be handed to code that wants a terminated text; the
// text itself may contain NUL units. Lengths and indexes count code units
// (a character outside the Basic Multilingual Plane is two units); no string
// is longer than kMaxLength units, and requests beyond it are refused.
//
// Errors. Members that can fail return a library error code: 0 or negative
// (kErrBadParameter, -1010, for bad arguments, out-of-range indexes and
// refused input; kErrNoMoreItems, -1024, for a token or parameter index past
// the end; kErrNotFound, -1101, when a looked-for part is missing) and write
// one debug-log line. On failure the string is left as it was unless said
// otherwise. Accessors take out-of-range indexes without failing: GetAt
// gives 0, Left/Mid/Right clamp.
//
// Invalid text. Unpaired surrogates are kept as they are inside a TString;
// every conversion out of UTF-16 (UTF-8, UTF-32) turns each one into U+FFFD.
// UTF-8 input is decoded strictly (no overlong forms, no surrogates, nothing
// above U+10FFFF); each maximal ill-formed part becomes one U+FFFD, the
// practice the Unicode standard recommends, so "\xE0\x80\x80" gives three.
//
// 8-bit text ("Ansi"). The system's 8-bit code page on this platform is
// UTF-8, so every *Ansi member and ConvertWideToAnsi/ConvertAnsiToWide speak
// UTF-8. "Wchar" vectors hold char16_t units, the platform's wide character
// for this library.
//
// Parameters. The formatter records, beside the text, one TStringParameter
// per value it formatted: the conversion character, the raw (machine) form
// of the value, and where the displayed value sits in the text, plus the
// format string it worked from. Left, Mid, Right and StripEnds carry the
// parameters along, relocated, and cut those that fall outside the kept
// text (a parameter partly outside is clipped to its kept part). Append
// keeps them (appending a TString brings its parameters along, shifted);
// SetAt, ToUpper and ToLower keep them; copying or assigning a TString
// copies them. Every other change of the text (assigning a text, the buffer
// members, replacing, stripping inside, Ellipsize ...) clears them. The format string is kept only while the text is whole:
// any cut or edit drops it.
//
// Case. ToUpper, ToLower and every ignoreCase option use simple (one unit
// to one unit) case mapping, independent of the locale, covering ASCII,
// Latin-1, Latin Extended-A, basic Greek (U+0386..U+03CE) and basic
// Cyrillic (U+0400..U+045F); other units are left as they are. Case-blind
// comparisons fold to lower case.
//
// Threads. A TString is a plain value: one thread at a time may use it.
#ifndef PLINTH_FOUNDATION_TSTRING_H_
#define PLINTH_FOUNDATION_TSTRING_H_

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "foundation/export.h"
#include "foundation/errors.h"
#include "foundation/tobject.h"

class TStringParameterList;
struct TStringParameter;

class PLINTH_API TString : public TObject {
 public:
  static constexpr int kInlineUnits = 11;
  static constexpr int kMaxLength = 0x3FFFFFF0;

  // Byte orders of raw UTF-16 input and output (AssignImport, StorBuffer).
  enum ByteOrder { kHostOrder = 0, kLittleEndian = 1, kBigEndian = 2 };
  enum Newline { kNewlineLf = 0, kNewlineCrLf = 1, kNewlineCr = 2 };
  enum EllipsisAt { kEllipsisStart = 0, kEllipsisMiddle = 1, kEllipsisEnd = 2 };

  // ---- construction and assignment ----------------------------------------
  TString();
  TString(const TString& other);
  TString(TString&& other) noexcept;
  // From a wide text; `length` -1 (any negative) reads up to the terminator.
  TString(const char16_t* text, int length = -1);  // NOLINT: implicit on purpose
  explicit TString(char16_t ch);
  // The resource text (group, key); empty when the key is missing.
  TString(unsigned short group, unsigned int key);
  // From UTF-8 text; `length` -1 reads up to the terminator.
  explicit TString(const char* text, int length = -1);
  ~TString();

  TString& operator=(const TString& other);
  TString& operator=(TString&& other) noexcept;
  TString& operator=(const char16_t* text);
  TString& operator+=(const TString& other) { Append(other); return *this; }
  TString& operator+=(const char16_t* text) { Append(text); return *this; }
  TString& operator+=(char16_t ch) { Append(&ch, 1); return *this; }

  // Fills the string with the resource text; 1 when found, 0 (string empty)
  // when the key is missing.
  int LoadKString(unsigned short group, unsigned int key);

  // A null `text` with a positive length is refused.
  int Assign(const char16_t* text, int length = -1);
  int Assign(const TString& other);
  // Raw UTF-16 bytes (e.g. read from a file) in the string's byte order
  // (setByteOrder, host order by default). A leading byte-order mark U+FEFF
  // in either order wins: it selects the order, is dropped, and the string's
  // byte order is set to it. An odd byte count is refused.
  int AssignImport(const void* bytes, size_t byteCount);
  // Raw big-endian UTF-16; a leading U+FEFF is dropped. Odd counts refused.
  int AssignImportBE(const void* bytes, size_t byteCount);
  // Binary data: one unit per byte (0..255), so any byte string round-trips
  // through GetBinary; GetBinarySize is the byte count.
  int AssignBinary(const void* data, size_t size);
  // Copies the bytes back; refused when `size` is too small or a unit is
  // above 255 (the string holds no binary data).
  int GetBinary(void* out, size_t size) const;
  size_t GetBinarySize() const { return static_cast<size_t>(m_length); }

  int Append(const char16_t* text, int length = -1);
  // Brings `other`'s parameters along, shifted by the old length.
  int Append(const TString& other);
  // Appends `text` with every occurrence of `from` replaced by `to`; an
  // empty `from` appends `text` unchanged.
  int AppendWithReplace(const TString& text, const TString& from, const TString& to);
  int AddLastChar(char16_t ch) { return Append(&ch, 1); }
  // Removes the last character (both units of a surrogate pair) and returns
  // its code point; 0 when the string is empty.
  char32_t RemoveLastChar();
  void Clear();
  // Index outside 0..length-1 is refused.
  int SetAt(int index, char16_t ch);
  // The string becomes `count` copies of `ch`; a negative count is refused.
  int Fill(char16_t ch, int count);
  // 0 outside 0..length-1.
  char16_t GetAt(int index) const;

  // Copies of a part of the text with the parameters relocated. Counts and
  // starts are clamped to the text; `count` -1 in Mid runs to the end.
  TString Left(int count) const;
  TString Mid(int start, int count = -1) const;
  TString Right(int count) const;

  int GetLength() const { return m_length; }
  bool IsEmpty() const { return m_length == 0; }

  // ---- 8-bit (UTF-8) text --------------------------------------------------
  // Bytes of the UTF-8 form, without a terminator.
  int LengthAnsi() const;
  // A writable 8-bit buffer of at least `minLength` bytes plus a NUL, holding
  // the current text as UTF-8. ReleaseBufferAnsi decodes the first
  // `newLength` bytes (-1: up to the first NUL) into the string and frees the
  // buffer; a length beyond the buffer is clamped and reported.
  char* GetBufferAnsi(int minLength);
  int ReleaseBufferAnsi(int newLength = -1);
  // The text as terminated UTF-8, valid until CloseBufferAnsi, the next
  // ReadBufferAnsi/GetBufferAnsi or destruction (later edits do not show in
  // it).
  const char* ReadBufferAnsi();
  void CloseBufferAnsi();
  // Writes the UTF-8 form with a NUL into `buffer`, cut at a character
  // boundary when it does not fit; returns the bytes written before the NUL.
  // A null buffer or size below 1 is refused.
  int FillBufferAnsi(char* buffer, int bufferSize) const;
  // The UTF-8 form cut to at most `maxBytes` bytes at a character boundary.
  std::string LeftAnsi(int maxBytes) const;
  int AssignAnsi(const char* text, int length = -1);

  // ---- direct buffer access --------------------------------------------------
  const char16_t* GetConstBuffer() const { return m_data; }
  // A writable buffer of at least `minLength` units plus a NUL; units past
  // the current text are zero. Call ReleaseBuffer before using the string
  // again; it sets the length (-1: up to the first NUL) and clears the
  // parameters. A length beyond the buffer is clamped and reported; a
  // minLength above kMaxLength gives null.
  char16_t* GetBuffer(int minLength);
  int ReleaseBuffer(int newLength = -1);

  // ---- search and compare ------------------------------------------------------
  // Indexes of the first match at or after `start`, -1 when there is none.
  // An empty `sub` matches at `start` (when start <= length).
  int FindChar(char16_t ch, int start = 0) const;
  int FindSubstring(const TString& sub, int start = 0, bool ignoreCase = false) const;
  // First unit that is any of the units of `set`.
  int FindSet(const TString& set, int start = 0) const;
  bool StartWith(const TString& prefix, bool ignoreCase = false) const;
  // -1, 0 or 1, by code unit values (folded to lower case when asked).
  int Compare(const TString& other, bool ignoreCase = false) const;
  // Same text and the same parameters and format string.
  bool Identical(const TString& other) const;
  // Index of the first unit that differs, -1 when the texts are equal; when
  // one text is a prefix of the other, the shorter length.
  int FirstDiscrepancy(const TString& other, bool ignoreCase = false) const;
  // Whole-text match: '*' any run of characters, '?' exactly one character
  // (a surrogate pair is one character); everything else matches itself.
  bool MatchPattern(const TString& pattern, bool ignoreCase = false) const;
  // The `n`th (from 0) of the tokens separated by any unit of `delimiters`;
  // empty tokens count ("a,,b" has three). kErrNoMoreItems past the last.
  int GetNthToken(int n, const TString& delimiters, TString* token) const;
  // FNV-1a over the units in little-endian byte order: the same value on
  // every host.
  uint32_t Hash() const;

  bool operator==(const TString& other) const { return Compare(other) == 0; }
  bool operator!=(const TString& other) const { return Compare(other) != 0; }
  bool operator<(const TString& other) const { return Compare(other) < 0; }
  bool operator<=(const TString& other) const { return Compare(other) <= 0; }
  bool operator>(const TString& other) const { return Compare(other) > 0; }
  bool operator>=(const TString& other) const { return Compare(other) >= 0; }
  bool operator==(const char16_t* text) const { return CompareText(text) == 0; }
  bool operator!=(const char16_t* text) const { return CompareText(text) != 0; }
  bool operator<(const char16_t* text) const { return CompareText(text) < 0; }
  bool operator<=(const char16_t* text) const { return CompareText(text) <= 0; }
  bool operator>(const char16_t* text) const { return CompareText(text) > 0; }
  bool operator>=(const char16_t* text) const { return CompareText(text) >= 0; }

  // ---- editing -------------------------------------------------------------------
  // Replaces every occurrence (only the first unless `all`), scanning left
  // to right without rescanning replaced text; returns the number replaced.
  // An empty `from` is refused.
  int ReplaceSubstring(const TString& from, const TString& to, bool all = true);
  // Replaces every unit that is in `set` by `with`; returns the number.
  int ReplaceSet(const TString& set, char16_t with);
  // Removes the units of `set` from both ends (default: blanks, tabs, CR,
  // LF); the parameters follow as with Mid.
  void StripEnds(const TString& set = TString(u" \t\r\n"));
  // Removes every unit of `set` wherever it is.
  void Strip(const TString& set);
  // Removes accelerator marks: "&x" becomes "x", "&&" becomes "&", and a
  // final lone '&' goes.
  void StripHotkey();
  // Every CR LF, lone CR and lone LF becomes the chosen newline.
  void ConvertNewlines(Newline style);
  // Shortens the text to `width` units by putting "..." in place of the cut
  // part (at the start, the middle or the end). A text that fits is left
  // alone; below 4 units there is no room for the dots and the text is
  // simply cut at the end. A surrogate pair is never split, so the result
  // may be a unit shorter. A negative width is refused.
  int Ellipsize(int width, EllipsisAt where);
  // The string becomes the English ordinal of `n`: "1st", "2nd", "3rd",
  // "4th", "11th", "112th", "-1st".
  void FormatOrdinal(int64_t n);
  void ToUpper();
  void ToLower();
  // Path helpers; '/' and '\\' are both delimiters. AddPathDelimiter appends
  // platform::kPathDelimiter unless the text is empty or already ends with a
  // delimiter. RemoveLastPathDelimiter removes one final delimiter unless it
  // is the whole path ("/") or follows a drive ("C:\").
  void AddPathDelimiter();
  void RemoveLastPathDelimiter();
  // When the text is `mountPoint` or lies under it (whole segments, either
  // delimiter, any trailing delimiter of `mountPoint` ignored, case kept),
  // removes it and leaves the rest from its delimiter on ("/mnt/v/a/b" less
  // "/mnt/v" is "/a/b"; the mount point itself becomes the delimiter).
  // kErrNotFound otherwise.
  int RemoveVolumesMountPoint(const TString& mountPoint);
  // The last segment, ignoring one final delimiter ("a/b/" gives "b").
  TString GetLastSegmentOfPath() const;

  // ---- serialisation -------------------------------------------------------------
  // Stored form: a 32-bit unit count, then the units, each 16 bits; Export
  // writes both in host byte order, NetExport in network (big-endian) order.
  // Export/NetExport refuse a buffer smaller than the stored size. Import and
  // NetImport read at most `available` bytes; a count that does not fit in
  // them, or above kMaxLength, is refused without reading past the buffer.
  // `consumed` (optional) receives the bytes used.
  size_t StoreSize() const { return 4 + 2 * static_cast<size_t>(m_length); }
  int Export(void* buffer, size_t bufferSize) const;
  int Import(const void* buffer, size_t available, size_t* consumed = nullptr);
  size_t NetStoreSize() const { return StoreSize(); }
  int NetExport(void* buffer, size_t bufferSize) const;
  int NetImport(const void* buffer, size_t available, size_t* consumed = nullptr);
  // The bare units (no count, no terminator, 2 * length bytes) in the
  // string's byte order, or in little-endian order.
  int StorBuffer(void* buffer, size_t bufferSize) const;
  int StorBufferLE(void* buffer, size_t bufferSize) const;
  void setByteOrder(ByteOrder order) { m_byteOrder = order; }
  ByteOrder getByteOrder() const { return m_byteOrder; }

  // ---- encodings ---------------------------------------------------------------
  // RFC 4648 Base64 (standard alphabet, '=' padding) and Base16. Encoding
  // never fails. Decoding is strict: Base64 needs whole padded quanta, zero
  // pad bits and '=' only at the end, and skips blanks, tabs, CR and LF;
  // Base16 takes either case and an even number of digits. Bad input is
  // refused with kErrBadParameter.
  static TString Base64Encode(const uint8_t* data, size_t size);
  static TString Base16Encode(const uint8_t* data, size_t size, bool upperCase = true);
  int Base64Decode(std::vector<uint8_t>* out) const;
  int Base16Decode(std::vector<uint8_t>* out) const;
  // In place, over the UTF-8 bytes of the text: encoding replaces the text
  // with the encoding of its UTF-8 form; decoding replaces it with the
  // decoded bytes read as UTF-8 (ill-formed parts become U+FFFD).
  void Base64Encode();
  int Base64Decode();
  void Base16Encode();
  int Base16Decode();

  // ---- formatting (tstring_format.h) ---------------------------------------------
  // Replace the text with the format rendered with the arguments, record one
  // parameter per formatted value and the format string; return the new
  // length. Formatting never fails. The format and the arguments may be this
  // string itself.
  int SPrintf(TString* format, ...);
  int SPrintf(const char16_t* format, ...);
  // The format is the resource text (group, key); empty when it is missing.
  int SPrintf(unsigned short group, int key, ...);
  // The core of the three; `length` -1 reads up to the terminator. Hosts
  // use it to render what their DebugLogf hook receives.
  int VSPrintf(const char16_t* format, int length, va_list ap);

  // Read values from the text as DoScanf (tstring_scan.h) describes; return
  // the number of values assigned.
  int SScanf(TString* format, ...) const;
  int SScanf(const char16_t* format, ...) const;
  int SScanf(unsigned short group, int key, ...) const;

  // ---- parameters ----------------------------------------------------------------
  int GetParameterCount() const;
  // The record of parameter `index`; kErrNoMoreItems past the last, and
  // kErrBadParameter for a negative index. Null outputs are skipped.
  int GetParametric(int index, TString* raw, char16_t* kind = nullptr, int* position = nullptr,
                    int* length = nullptr) const;
  const TStringParameter* GetParameter(int index) const;
  // The format string the parameters came from; kErrNotFound when none.
  int GetFormatString(TString* format) const;
  int RemoveParametric(int index);
  void ClearParameters();
  // Used by the formatter: records a formatted value at [position,
  // position + length) and the format string.
  int AddParameter(char16_t kind, int position, int length, const TString& raw);
  int AddParameter(char16_t kind, int position, int length, const char16_t* raw, int rawLength);
  void SetFormatString(const TString& format);
  void SetFormatString(const char16_t* format, int length);
  // Used by the formatter: replaces the text and empties the parameter list
  // and format string while keeping their storage, so formatting into the
  // same string again does not allocate them anew. `text` must not point
  // into this string.
  void ReplaceFormatted(const char16_t* text, int length);
  // Relocation of this string's parameters to follow a cut of its text:
  // keep those in [0, count), in [start, start + count) moved to 0, or in the
  // last `count` units; RelocateParameters moves those at or after `from` by
  // `delta` (removed when moved before `from`). All drop the format string.
  void LeftParameters(int count);
  void MidParameters(int start, int count);
  void RightParameters(int count);
  void RelocateParameters(int from, int delta);

 private:
  int CompareText(const char16_t* text) const;
  bool Reserve(int minLength);
  void SetLength(int length);
  void ReplaceText(const char16_t* text, int length);
  void DropParameters();
  void TakeFrom(TString* other);
  void KeepPart(int start, int count);

  char16_t* m_data = m_inline;    // m_inline or a MemAlloc'd block; never null
  int m_length = 0;
  int m_capacity = kInlineUnits;  // units available before the NUL slot
  TStringParameterList* m_params = nullptr;
  char* m_ansi = nullptr;         // GetBufferAnsi / ReadBufferAnsi block
  int m_ansiSize = 0;
  ByteOrder m_byteOrder = kHostOrder;
  char16_t m_inline[kInlineUnits + 1] = {};
};

inline bool operator==(const char16_t* text, const TString& s) { return s == text; }
inline bool operator!=(const char16_t* text, const TString& s) { return s != text; }
inline bool operator<(const char16_t* text, const TString& s) { return s > text; }
inline bool operator<=(const char16_t* text, const TString& s) { return s >= text; }
inline bool operator>(const char16_t* text, const TString& s) { return s < text; }
inline bool operator>=(const char16_t* text, const TString& s) { return s <= text; }

// One value the formatter recorded.
struct TStringParameter {
  char16_t kind = 0;  // the conversion character ('d', 'E', 's', ...)
  int position = 0;   // first unit of the displayed value in the text
  int length = 0;     // units of the displayed value
  TString raw;        // the value's raw (machine) form
};

// ---- conversions ---------------------------------------------------------------
// UTF-8 text of `s`; unpaired surrogates become U+FFFD.
PLINTH_API std::string TStringAsString(const TString& s);
// Decodes UTF-8; ill-formed parts become U+FFFD.
PLINTH_API TString TStringFromUTF8(const std::string& utf8);
PLINTH_API TString TStringFromUTF8(const char* utf8, int length);
// "Ansi" is UTF-8 on this platform. `length` -1 reads up to the terminator.
PLINTH_API std::string ConvertWideToAnsi(const char16_t* text, int length = -1);
PLINTH_API TString ConvertAnsiToWide(const char* text, int length = -1);
// Wide-character vectors for system-style calls: the units followed by one
// NUL. TStringFromWcharVector stops at the first NUL or the vector's end.
PLINTH_API std::vector<char16_t> TStringAsWcharVector(const TString& s);
PLINTH_API TString TStringFromWcharVector(const std::vector<char16_t>& v);
PLINTH_API std::vector<char16_t> WcharVectorFromWcharStr(const char16_t* text);
// Code points above U+10FFFF and surrogate code points become U+FFFD; in
// the other direction unpaired surrogates become U+FFFD.
PLINTH_API TString ConvertUTF32toUTF16(const char32_t* text, size_t length);
PLINTH_API TString ConvertUTF32toUTF16(const std::u32string& text);
PLINTH_API std::u32string ConvertUTF16toUTF32(const TString& s);

#endif  // PLINTH_FOUNDATION_TSTRING_H_
