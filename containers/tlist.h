// TList, the library's general list of 64-bit values (pointers or integers).
//
// The values keep their order and are addressed by 0-based position. Each
// value lives in a node of its own (TListNode, from MemAlloc), so its address
// (GetAtRaw) stays put while other values come and go, until the value
// itself is removed or the list cleared.
//
// Positions are found by walking from the nearer end or from the last
// position used, whichever is closest, so a loop over the positions in
// order, or inserting and removing at one spot, costs a step each time.
//
// Walking by cursor: a cursor is a node; Next(nullptr) gives the first node,
// Next(node) the one after it, null past the end. Removing the node a cursor
// stands on makes that cursor invalid; every other cursor stays valid.
//
//   for (TListNode* n = list.Next(nullptr); n != nullptr; n = list.Next(n))
//     Use(n->GetValue());
//
// Predicates take a value and answer non-zero for a match: a plain
// function int(uint64_t) or any callable (a lambda with captures), which is
// called only while the operation runs.
//
// A TList is not thread-safe, not even for readers: lookups by position
// update the remembered position. One thread at a time uses a list.
#ifndef PLINTH_CONTAINERS_TLIST_H_
#define PLINTH_CONTAINERS_TLIST_H_

#include <cstdint>
#include <type_traits>

#include "foundation/export.h"
#include "foundation/tobject.h"

class PLINTH_API TListNode : public TObject {
 public:
  uint64_t GetValue() const { return m_value; }
  uint64_t* GetValueRaw() { return &m_value; }
  const uint64_t* GetValueRaw() const { return &m_value; }

 private:
  friend class TList;
  explicit TListNode(uint64_t value) : m_value(value) {}

  uint64_t m_value;
  TListNode* m_prev = nullptr;
  TListNode* m_next = nullptr;
};

// A borrowed reference to a predicate: two words, passed by value.
class TListPredicate {
 public:
  TListPredicate(int (*fn)(uint64_t)) : m_call(&CallFunction) { m_target.function = fn; }
  template <typename F, typename = std::enable_if_t<!std::is_convertible_v<const F&, int (*)(uint64_t)> &&
                                                    std::is_invocable_v<const F&, uint64_t>>>
  TListPredicate(const F& fn) : m_call(&CallObject<F>) {
    m_target.object = &fn;
  }

  int operator()(uint64_t value) const { return m_call(m_target, value); }

 private:
  union Target {
    const void* object;
    int (*function)(uint64_t);
  };
  static int CallFunction(Target target, uint64_t value) { return target.function(value); }
  template <typename F>
  static int CallObject(Target target, uint64_t value) {
    return static_cast<int>((*static_cast<const F*>(target.object))(value));
  }

  Target m_target;
  int (*m_call)(Target, uint64_t);
};

// AddAt's position for "after the last value".
constexpr int kListEnd = -1;

class PLINTH_API TList : public TObject {
 public:
  TList() = default;
  ~TList();

  int GetCount() const { return m_count; }

  // Inserts `value` so that it stands at `position` (0..GetCount(); kListEnd
  // or any negative position appends). A position past the end is refused:
  // kErrBadParameter and "TList::AddAt: position %~d outside 0..%~d, %E".
  int AddAt(uint64_t value, int position);
  // Removes the value at `position` and answers it. A position outside the
  // list is an assertion ("tlist") and answers 0.
  uint64_t RemoveAt(int position);
  // Removes the first occurrence of `value`; answers the position it had,
  // or -1 when the list does not hold it.
  int Remove(uint64_t value);
  // Moves the value at `from` so that it then stands at `to`; the others
  // keep their order. Either position outside the list is refused:
  // kErrBadParameter and "TList::MoveTo: cannot move %~d to %~d in %~d values, %E".
  int MoveTo(int from, int to);
  void Clear();

  // The position of the first occurrence of `value`, or -1.
  int Find(uint64_t value) const;
  // The first node after `cursor` (from the start when null) whose value
  // matches, or null.
  TListNode* FindIf(TListPredicate predicate, const TListNode* cursor = nullptr);
  const TListNode* FindIf(TListPredicate predicate, const TListNode* cursor = nullptr) const;
  // Removes every value that matches; answers how many went.
  int RemoveIf(TListPredicate predicate);
  // Keeps only the values that match; answers how many went.
  int FilterIf(TListPredicate predicate);

  // The address of the value at `position`, or null outside the list.
  uint64_t* GetAtRaw(int position);
  const uint64_t* GetAtRaw(int position) const;
  // The node after `cursor`; the first node for null; null past the end.
  TListNode* Next(const TListNode* cursor);
  const TListNode* Next(const TListNode* cursor) const;

  // Appends the values of `other` in order (a list may append itself).
  TList& operator+=(const TList& other);
  // Removes every occurrence of every value that `other` holds.
  TList& operator-=(const TList& other);

 private:
  TList(const TList&) = delete;
  TList& operator=(const TList&) = delete;

  TListNode* NodeAt(int position) const;
  void LinkBefore(TListNode* node, TListNode* before);
  void Unlink(TListNode* node);
  void Forget() const { m_cacheNode = nullptr; }
  template <bool kMatching>
  int RemoveWhere(TListPredicate predicate);

  TListNode* m_head = nullptr;
  TListNode* m_tail = nullptr;
  int m_count = 0;
  // The node last found by position, and that position.
  mutable TListNode* m_cacheNode = nullptr;
  mutable int m_cacheIndex = 0;
};

#endif  // PLINTH_CONTAINERS_TLIST_H_
