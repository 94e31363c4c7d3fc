// The system's message-digest service, in the shape of a cryptographic
// service provider: acquire a provider for one algorithm, create a hash
// object from it, feed it, read its value, destroy it.
//
// On Linux the service is libcrypto's EVP interface: a provider is a fetched
// EVP_MD, a hash object an EVP_MD_CTX. Handles are opaque words, 0 for none.
//
// Every call answers 0 on success or a nonzero service error code, which the
// callers print in their log lines: libcrypto's packed error code of the
// failure (ERR_peek_last_error, the queue is then cleared so that it never
// leaks into a later call), or, when libcrypto queued nothing, kCryptNoDetail.
// A call given a null handle answers kCryptBadHandle without touching the
// service.
#ifndef PLINTH_PLATFORM_CRYPTO_H_
#define PLINTH_PLATFORM_CRYPTO_H_

#include <cstddef>
#include <cstdint>

namespace platform {

using CryptHandle = uintptr_t;

enum class CryptAlgorithm { kMd5, kSha1, kSha256 };

// The service failed without saying why.
constexpr unsigned long kCryptNoDetail = 0x1;
// The handle given is null: the code the Windows service gives for an
// invalid handle, so that callers see the same value on every platform.
constexpr unsigned long kCryptBadHandle = 0x6;

unsigned long CryptAcquire(CryptAlgorithm algorithm, CryptHandle* provider);
// Another reference to the same provider; Release once per reference.
unsigned long CryptAddRef(CryptHandle provider);
void CryptRelease(CryptHandle provider);

unsigned long CryptCreateHash(CryptHandle provider, CryptHandle* hash);
// A new hash object in the same state as `hash`.
unsigned long CryptDuplicateHash(CryptHandle hash, CryptHandle* copy);
unsigned long CryptHashData(CryptHandle hash, const void* data, uint64_t length);
// Finishes the hash: writes its value (at most `size` bytes, `*written` set
// to the count) and leaves the object spent; destroy it afterwards.
unsigned long CryptGetHashValue(CryptHandle hash, unsigned char* out, unsigned size, unsigned* written);
void CryptDestroyHash(CryptHandle hash);

// HMAC-SHA256 of `data` under `key` into `out` (32 bytes): the request
// signatures of the cloud connectors.
constexpr unsigned kHmacSha256Size = 32;
unsigned long HmacSha256(const void* key, size_t keySize, const void* data, size_t size, unsigned char* out);

// Test seam: the next call of `step` made on this thread fails with `code`
// (nonzero) without reaching the service. Passing 0 disarms the step.
enum class CryptStep { kAcquire, kCreateHash, kHashData, kGetHashValue };
void CryptFailNext(CryptStep step, unsigned long code);

}  // namespace platform

#endif  // PLINTH_PLATFORM_CRYPTO_H_
