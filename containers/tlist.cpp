#include "containers/tlist.h"

#include <algorithm>
#include <climits>

#include "foundation/errors.h"
#include "foundation/hooks.h"
#include "foundation/log.h"
#include "foundation/memory.h"

TList::~TList() { Clear(); }

TListNode* TList::NodeAt(int position) const {
  if (position < 0 || position >= m_count) return nullptr;
  TListNode* node = m_head;
  int at = 0;
  int distance = position;
  if (m_count - 1 - position < distance) {
    node = m_tail;
    at = m_count - 1;
    distance = at - position;
  }
  if (m_cacheNode != nullptr) {
    int fromCache = m_cacheIndex > position ? m_cacheIndex - position : position - m_cacheIndex;
    if (fromCache < distance) {
      node = m_cacheNode;
      at = m_cacheIndex;
    }
  }
  for (; at < position; ++at) node = node->m_next;
  for (; at > position; --at) node = node->m_prev;
  m_cacheNode = node;
  m_cacheIndex = position;
  return node;
}

// `before` null links at the end. Leaves the remembered position alone.
void TList::LinkBefore(TListNode* node, TListNode* before) {
  node->m_next = before;
  node->m_prev = before != nullptr ? before->m_prev : m_tail;
  (node->m_prev != nullptr ? node->m_prev->m_next : m_head) = node;
  (before != nullptr ? before->m_prev : m_tail) = node;
  ++m_count;
}

void TList::Unlink(TListNode* node) {
  (node->m_prev != nullptr ? node->m_prev->m_next : m_head) = node->m_next;
  (node->m_next != nullptr ? node->m_next->m_prev : m_tail) = node->m_prev;
  node->m_prev = node->m_next = nullptr;
  --m_count;
}

int TList::AddAt(uint64_t value, int position) {
  if (position < 0) position = m_count;
  if (position > m_count || m_count == INT_MAX) {
    LogLine(514, u"TList::AddAt: position %~d outside 0..%~d, %E", position, m_count, kErrBadParameter);
    return kErrBadParameter;
  }
  TListNode* before = position == m_count ? nullptr : NodeAt(position);
  TListNode* node = new TListNode(value);
  LinkBefore(node, before);
  m_cacheNode = node;
  m_cacheIndex = position;
  return 0;
}

uint64_t TList::RemoveAt(int position) {
  TListNode* node = NodeAt(position);
  if (node == nullptr) {
    Debug("tlist", __LINE__, 0);
    return 0;
  }
  // Keep the remembered position on the value that moves up into the gap.
  if (node->m_next != nullptr) {
    m_cacheNode = node->m_next;
  } else {
    m_cacheNode = node->m_prev;
    m_cacheIndex = position - 1;
  }
  uint64_t value = node->m_value;
  Unlink(node);
  delete node;
  return value;
}

int TList::Remove(uint64_t value) {
  int position = Find(value);
  if (position >= 0) RemoveAt(position);
  return position;
}

int TList::MoveTo(int from, int to) {
  if (from < 0 || from >= m_count || to < 0 || to >= m_count) {
    LogLine(514, u"TList::MoveTo: cannot move %~d to %~d in %~d values, %E", from, to, m_count, kErrBadParameter);
    return kErrBadParameter;
  }
  if (from == to) return 0;
  TListNode* node = NodeAt(from);
  Unlink(node);
  Forget();
  LinkBefore(node, to == m_count ? nullptr : NodeAt(to));
  m_cacheNode = node;
  m_cacheIndex = to;
  return 0;
}

void TList::Clear() {
  TListNode* node = m_head;
  while (node != nullptr) {
    TListNode* next = node->m_next;
    delete node;
    node = next;
  }
  m_head = m_tail = nullptr;
  m_count = 0;
  Forget();
}

int TList::Find(uint64_t value) const {
  int position = 0;
  for (const TListNode* node = m_head; node != nullptr; node = node->m_next, ++position) {
    if (node->m_value == value) return position;
  }
  return -1;
}

TListNode* TList::FindIf(TListPredicate predicate, const TListNode* cursor) {
  for (TListNode* node = Next(cursor); node != nullptr; node = node->m_next) {
    if (predicate(node->m_value) != 0) return node;
  }
  return nullptr;
}

const TListNode* TList::FindIf(TListPredicate predicate, const TListNode* cursor) const {
  return const_cast<TList*>(this)->FindIf(predicate, cursor);
}

template <bool kMatching>
int TList::RemoveWhere(TListPredicate predicate) {
  int removed = 0;
  TListNode* node = m_head;
  while (node != nullptr) {
    TListNode* next = node->m_next;
    if ((predicate(node->m_value) != 0) == kMatching) {
      Unlink(node);
      delete node;
      ++removed;
    }
    node = next;
  }
  if (removed != 0) Forget();
  return removed;
}

int TList::RemoveIf(TListPredicate predicate) { return RemoveWhere<true>(predicate); }

int TList::FilterIf(TListPredicate predicate) { return RemoveWhere<false>(predicate); }

uint64_t* TList::GetAtRaw(int position) {
  TListNode* node = NodeAt(position);
  return node != nullptr ? &node->m_value : nullptr;
}

const uint64_t* TList::GetAtRaw(int position) const { return const_cast<TList*>(this)->GetAtRaw(position); }

TListNode* TList::Next(const TListNode* cursor) { return cursor == nullptr ? m_head : cursor->m_next; }

const TListNode* TList::Next(const TListNode* cursor) const { return cursor == nullptr ? m_head : cursor->m_next; }

TList& TList::operator+=(const TList& other) {
  // Counted first, so a list appending itself stops at its old end.
  int n = other.m_count;
  if (n > INT_MAX - m_count) {
    LogLine(514, u"TList::operator+=: %~d values do not fit after %~d, %E", n, m_count, kErrBadParameter);
    return *this;
  }
  const TListNode* node = other.m_head;
  for (int k = 0; k < n; ++k, node = node->m_next) LinkBefore(new TListNode(node->m_value), nullptr);
  return *this;
}

TList& TList::operator-=(const TList& other) {
  if (other.m_count == 0 || m_count == 0) return *this;
  // A sorted copy of the other list's values: n log m rather than n * m, and
  // a list may take itself away.
  size_t n = static_cast<size_t>(other.m_count);
  auto* values = static_cast<uint64_t*>(MemAlloc(n * sizeof(uint64_t)));
  size_t k = 0;
  for (const TListNode* node = other.m_head; node != nullptr; node = node->m_next) values[k++] = node->m_value;
  std::sort(values, values + n);
  RemoveIf([values, n](uint64_t value) { return std::binary_search(values, values + n, value) ? 1 : 0; });
  MemFree(values);
  return *this;
}
