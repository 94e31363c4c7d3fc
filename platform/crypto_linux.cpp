#include "platform/crypto.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

namespace platform {
namespace {

thread_local unsigned long g_failNext[4] = {0, 0, 0, 0};

// The injected failure of `step`, consumed; 0 when none is armed.
unsigned long TakeInjected(CryptStep step) {
  unsigned long& slot = g_failNext[static_cast<int>(step)];
  unsigned long code = slot;
  slot = 0;
  return code;
}

unsigned long LastServiceError() {
  unsigned long code = ERR_peek_last_error();
  ERR_clear_error();
  return code != 0 ? code : kCryptNoDetail;
}

EVP_MD* Md(CryptHandle h) { return reinterpret_cast<EVP_MD*>(h); }
EVP_MD_CTX* Ctx(CryptHandle h) { return reinterpret_cast<EVP_MD_CTX*>(h); }

}  // namespace

void CryptFailNext(CryptStep step, unsigned long code) { g_failNext[static_cast<int>(step)] = code; }

unsigned long CryptAcquire(CryptAlgorithm algorithm, CryptHandle* provider) {
  *provider = 0;
  if (unsigned long injected = TakeInjected(CryptStep::kAcquire)) return injected;
  const char* name = algorithm == CryptAlgorithm::kMd5 ? "MD5" : algorithm == CryptAlgorithm::kSha1 ? "SHA1" : "SHA256";
  EVP_MD* md = EVP_MD_fetch(nullptr, name, nullptr);
  if (md == nullptr) return LastServiceError();
  *provider = reinterpret_cast<CryptHandle>(md);
  return 0;
}

unsigned long CryptAddRef(CryptHandle provider) {
  if (provider == 0) return kCryptBadHandle;
  return EVP_MD_up_ref(Md(provider)) == 1 ? 0 : LastServiceError();
}

void CryptRelease(CryptHandle provider) {
  if (provider != 0) EVP_MD_free(Md(provider));
}

unsigned long CryptCreateHash(CryptHandle provider, CryptHandle* hash) {
  *hash = 0;
  if (unsigned long injected = TakeInjected(CryptStep::kCreateHash)) return injected;
  if (provider == 0) return kCryptBadHandle;
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  if (ctx == nullptr) return LastServiceError();
  if (EVP_DigestInit_ex(ctx, Md(provider), nullptr) != 1) {
    EVP_MD_CTX_free(ctx);
    return LastServiceError();
  }
  *hash = reinterpret_cast<CryptHandle>(ctx);
  return 0;
}

unsigned long CryptDuplicateHash(CryptHandle hash, CryptHandle* copy) {
  *copy = 0;
  if (hash == 0) return kCryptBadHandle;
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  if (ctx == nullptr) return LastServiceError();
  if (EVP_MD_CTX_copy_ex(ctx, Ctx(hash)) != 1) {
    EVP_MD_CTX_free(ctx);
    return LastServiceError();
  }
  *copy = reinterpret_cast<CryptHandle>(ctx);
  return 0;
}

unsigned long CryptHashData(CryptHandle hash, const void* data, uint64_t length) {
  if (unsigned long injected = TakeInjected(CryptStep::kHashData)) return injected;
  if (hash == 0) return kCryptBadHandle;
  if (length == 0) return 0;
  return EVP_DigestUpdate(Ctx(hash), data, length) == 1 ? 0 : LastServiceError();
}

unsigned long CryptGetHashValue(CryptHandle hash, unsigned char* out, unsigned size, unsigned* written) {
  *written = 0;
  if (unsigned long injected = TakeInjected(CryptStep::kGetHashValue)) return injected;
  if (hash == 0) return kCryptBadHandle;
  unsigned char value[EVP_MAX_MD_SIZE];
  unsigned int n = 0;
  if (EVP_DigestFinal_ex(Ctx(hash), value, &n) != 1) return LastServiceError();
  if (n > size) n = size;
  for (unsigned i = 0; i < n; ++i) out[i] = value[i];
  *written = n;
  return 0;
}

void CryptDestroyHash(CryptHandle hash) {
  if (hash != 0) EVP_MD_CTX_free(Ctx(hash));
}

unsigned long HmacSha256(const void* key, size_t keySize, const void* data, size_t size, unsigned char* out) {
  unsigned int n = 0;
  static const unsigned char kEmpty = 0;
  if (HMAC(EVP_sha256(), keySize > 0 ? key : &kEmpty, static_cast<int>(keySize),
           size > 0 ? static_cast<const unsigned char*>(data) : &kEmpty, size, out, &n) == nullptr ||
      n != kHmacSha256Size) {
    return LastServiceError();
  }
  return 0;
}

}  // namespace platform
