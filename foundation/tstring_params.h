// The parameter list a TString carries beside its text: the records the
// formatter made (one per formatted value) and the format string they came
// from. A plain container with the arithmetic that keeps the records in
// step with cuts of the text; TString owns one only while it has records or
// a format string.
#ifndef PLINTH_FOUNDATION_TSTRING_PARAMS_H_
#define PLINTH_FOUNDATION_TSTRING_PARAMS_H_

#include "foundation/tobject.h"
#include "foundation/tstring.h"

class TStringParameterList : public TObject {
 public:
  TStringParameterList() = default;
  TStringParameterList(const TStringParameterList& other);
  TStringParameterList& operator=(const TStringParameterList&) = delete;
  ~TStringParameterList();

  int Count() const { return m_count; }
  bool Empty() const { return m_count == 0 && !m_hasFormat; }
  const TStringParameter& At(int index) const { return m_items[index]; }

  void Add(char16_t kind, int position, int length, const TString& raw);
  void Add(char16_t kind, int position, int length, const char16_t* raw, int rawLength);
  void Remove(int index);
  // No records and no format, the storage kept.
  void Reset();
  void SetFormat(const TString& format);
  void SetFormat(const char16_t* format, int length);
  void DropFormat();
  bool HasFormat() const { return m_hasFormat; }
  const TString& Format() const { return m_format; }

  // Keeps the records inside [start, end), clipped to it, moved by -start.
  void Keep(int start, int end);
  // Moves records at or after `from` by `delta`; a record moved to before
  // `from` is dropped.
  void Shift(int from, int delta);
  // Appends `other`'s records moved by `offset`.
  void AppendShifted(const TStringParameterList& other, int offset);

  bool SameAs(const TStringParameterList& other) const;

 private:
  void Grow();

  TStringParameter* m_items = nullptr;  // MemAlloc'd, m_capacity slots
  int m_count = 0;
  int m_capacity = 0;
  TString m_format;
  bool m_hasFormat = false;
};

#endif  // PLINTH_FOUNDATION_TSTRING_PARAMS_H_
