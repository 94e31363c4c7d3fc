#include "foundation/tstring_params.h"

#include <new>
#include <utility>

#include "foundation/memory.h"

TStringParameterList::TStringParameterList(const TStringParameterList& other)
    : m_format(other.m_format), m_hasFormat(other.m_hasFormat) {
  AppendShifted(other, 0);
}

TStringParameterList::~TStringParameterList() {
  for (int i = 0; i < m_count; ++i) m_items[i].~TStringParameter();
  MemFree(m_items);
}

void TStringParameterList::Grow() {
  int capacity = m_capacity < 4 ? 4 : m_capacity * 2;
  auto* items = static_cast<TStringParameter*>(MemAlloc(sizeof(TStringParameter) * static_cast<size_t>(capacity)));
  for (int i = 0; i < m_count; ++i) {
    new (&items[i]) TStringParameter(std::move(m_items[i]));
    m_items[i].~TStringParameter();
  }
  MemFree(m_items);
  m_items = items;
  m_capacity = capacity;
}

void TStringParameterList::Add(char16_t kind, int position, int length, const TString& raw) {
  if (m_count == m_capacity) Grow();
  TStringParameter* p = new (&m_items[m_count]) TStringParameter();
  p->kind = kind;
  p->position = position;
  p->length = length;
  p->raw = raw;
  ++m_count;
}

void TStringParameterList::Add(char16_t kind, int position, int length, const char16_t* raw, int rawLength) {
  if (m_count == m_capacity) Grow();
  TStringParameter* p = new (&m_items[m_count]) TStringParameter();
  p->kind = kind;
  p->position = position;
  p->length = length;
  p->raw.Assign(raw, rawLength);
  ++m_count;
}

void TStringParameterList::Reset() {
  while (m_count > 0) m_items[--m_count].~TStringParameter();
  m_format.Clear();  // keeps its block
  m_hasFormat = false;
}

void TStringParameterList::Remove(int index) {
  for (int i = index; i + 1 < m_count; ++i) m_items[i] = std::move(m_items[i + 1]);
  --m_count;
  m_items[m_count].~TStringParameter();
}

void TStringParameterList::SetFormat(const TString& format) {
  m_format = format;
  m_hasFormat = true;
}

void TStringParameterList::SetFormat(const char16_t* format, int length) {
  m_format.Assign(format, length);
  m_hasFormat = true;
}

void TStringParameterList::DropFormat() {
  m_format.Clear();
  m_hasFormat = false;
}

void TStringParameterList::Keep(int start, int end) {
  DropFormat();
  int kept = 0;
  for (int i = 0; i < m_count; ++i) {
    TStringParameter& p = m_items[i];
    int from = p.position;
    int to = p.position + p.length;
    if (from < start) from = start;
    if (to > end) to = end;
    // An empty record survives when it sits inside or on the edges; others
    // while some of their text is kept.
    bool inside = p.length == 0 ? (p.position >= start && p.position <= end) : from < to;
    if (!inside) continue;
    p.position = from - start;
    p.length = to - from;
    if (kept != i) m_items[kept] = std::move(p);
    ++kept;
  }
  while (m_count > kept) m_items[--m_count].~TStringParameter();
}

void TStringParameterList::Shift(int from, int delta) {
  DropFormat();
  int kept = 0;
  for (int i = 0; i < m_count; ++i) {
    TStringParameter& p = m_items[i];
    if (p.position >= from) {
      if (p.position + delta < from) continue;
      p.position += delta;
    }
    if (kept != i) m_items[kept] = std::move(p);
    ++kept;
  }
  while (m_count > kept) m_items[--m_count].~TStringParameter();
}

void TStringParameterList::AppendShifted(const TStringParameterList& other, int offset) {
  for (int i = 0; i < other.m_count; ++i) {
    const TStringParameter& p = other.m_items[i];
    Add(p.kind, p.position + offset, p.length, p.raw);
  }
}

bool TStringParameterList::SameAs(const TStringParameterList& other) const {
  if (m_count != other.m_count || m_hasFormat != other.m_hasFormat) return false;
  if (m_hasFormat && !m_format.Identical(other.m_format)) return false;
  for (int i = 0; i < m_count; ++i) {
    const TStringParameter& a = m_items[i];
    const TStringParameter& b = other.m_items[i];
    if (a.kind != b.kind || a.position != b.position || a.length != b.length || !a.raw.Identical(b.raw)) return false;
  }
  return true;
}
