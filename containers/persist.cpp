#include "containers/persist.h"

#include "containers/byteorder.h"
#include "foundation/hooks.h"

bool IsPersistSignature(uint32_t signature) {
  return (signature & 0x80808080u) == 0 && (signature & 0x60606060u) != 0;
}

void* _initpersist(PersistHeader* header, unsigned int signature, unsigned short first, unsigned short second) {
  if (header == nullptr) {
    Debug("marshall", __LINE__, 0);
    return nullptr;
  }
  if (!IsPersistSignature(signature) || static_cast<int16_t>(first) < 1 || static_cast<int16_t>(second) < 1) {
    Debug("marshall", 213, 0);
  }
  header->signature = signature;
  header->first = static_cast<int16_t>(first);
  header->second = static_cast<int16_t>(second);
  return header + 1;
}

int _checkpersist(const PersistHeader* header, unsigned int signature, unsigned short first, unsigned short second) {
  if (header == nullptr) {
    Debug("marshall", __LINE__, 0);
    return kErrPersistInvalid;
  }
  if (!IsPersistSignature(header->signature)) return kErrPersistInvalid;
  int16_t storedFirst = header->first;
  int16_t storedSecond = header->second;
  bool swapped = false;
  if (header->signature != signature) {
    if (header->signature != SwapUint32(signature)) {
      if (storedFirst < 1 || storedSecond < 1) return kErrPersistInvalid;
      return kErrPersistSignature;
    }
    swapped = true;
    storedFirst = SwapSint16(storedFirst);
    storedSecond = SwapSint16(storedSecond);
  }
  if (storedFirst < 1 || storedSecond < 1) return kErrPersistInvalid;
  if (storedSecond < first) return kErrPersistTooOld;
  if (storedFirst > second) return kErrPersistTooNew;
  return swapped ? kErrPersistOtherOrder : 0;
}
