#include "storage/chunk_cipher.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <new>
#include <string>

#include "foundation/errors.h"

namespace {

// EVP updates take int lengths; larger data goes through in pieces.
constexpr size_t kUpdatePiece = size_t{1} << 30;
constexpr size_t kAssociatedSize = 12;

struct CipherCtxFree {
  void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};
using CipherCtx = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree>;

// Bytes that must not outlive their use: wiped on every way out.
class SecretBytes {
 public:
  SecretBytes(unsigned char* data, size_t size) : m_data(data), m_size(size) {}
  ~SecretBytes() { OPENSSL_cleanse(m_data, m_size); }
  SecretBytes(const SecretBytes&) = delete;
  SecretBytes& operator=(const SecretBytes&) = delete;

 private:
  unsigned char* m_data;
  size_t m_size;
};

void PutLE(unsigned char* out, uint64_t value, size_t size) {
  for (size_t i = 0; i < size; ++i) out[i] = static_cast<unsigned char>(value >> (8 * i));
}

uint64_t GetLE(const unsigned char* in, size_t size) {
  uint64_t value = 0;
  for (size_t i = 0; i < size; ++i) value |= static_cast<uint64_t>(in[i]) << (8 * i);
  return value;
}

void AssociatedData(uint32_t type, uint64_t id, unsigned char* out) {
  PutLE(out, type, 4);
  PutLE(out + 4, id, 8);
}

// Leaves libcrypto's per-thread error queue clean so that a later caller
// does not pick up this failure as its own.
int Failed() {
  ERR_clear_error();
  return kErrEncryption;
}

// The key of `password` and `salt`; false when libcrypto refuses.
bool DeriveKey(const TString& password, const unsigned char* salt, uint32_t iterations, unsigned char* key) {
  std::string utf8 = TStringAsString(password);
  SecretBytes wipe(reinterpret_cast<unsigned char*>(utf8.data()), utf8.size());
  if (utf8.size() > INT_MAX) return false;
  return PKCS5_PBKDF2_HMAC(utf8.data(), static_cast<int>(utf8.size()), salt, static_cast<int>(kCHCipherSaltSize),
                           static_cast<int>(iterations), EVP_sha256(), static_cast<int>(kCHCipherKeySize),
                           key) == 1;
}

// A context set up for AES-256-GCM under `key` and `nonce` with the chunk's
// associated data fed in; null when libcrypto refuses.
CipherCtx StartGcm(bool encrypt, const unsigned char* key, const unsigned char* nonce, uint32_t type,
                   uint64_t id) {
  CipherCtx ctx(EVP_CIPHER_CTX_new());
  if (!ctx) return nullptr;
  if (EVP_CipherInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, nullptr, nullptr, encrypt ? 1 : 0) != 1 ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_IVLEN, static_cast<int>(kCHCipherNonceSize), nullptr) != 1 ||
      EVP_CipherInit_ex(ctx.get(), nullptr, nullptr, key, nonce, encrypt ? 1 : 0) != 1) {
    return nullptr;
  }
  unsigned char associated[kAssociatedSize];
  AssociatedData(type, id, associated);
  int written = 0;
  if (EVP_CipherUpdate(ctx.get(), nullptr, &written, associated, static_cast<int>(kAssociatedSize)) != 1) {
    return nullptr;
  }
  return ctx;
}

// Runs `length` bytes through the context; GCM is a stream mode, so each
// piece comes out as long as it went in.
bool Transform(EVP_CIPHER_CTX* ctx, const unsigned char* in, size_t length, unsigned char* out) {
  while (length > 0) {
    size_t piece = std::min(length, kUpdatePiece);
    int written = 0;
    if (EVP_CipherUpdate(ctx, out, &written, in, static_cast<int>(piece)) != 1) return false;
    if (static_cast<size_t>(written) != piece) return false;
    in += piece;
    out += piece;
    length -= piece;
  }
  return true;
}

int Encrypt(const TString& password, uint32_t type, uint64_t id, const unsigned char* plain, size_t length,
            std::vector<unsigned char>* envelope) {
  envelope->resize(length + kCHCipherAdjustment);
  unsigned char* out = envelope->data();
  PutLE(out, kCHCipherMagic, 4);
  PutLE(out + kCHCipherCountOffset, kCHCipherIterations, 4);
  unsigned char* salt = out + kCHCipherSaltOffset;
  unsigned char* nonce = out + kCHCipherNonceOffset;
  if (RAND_bytes(salt, static_cast<int>(kCHCipherSaltSize)) != 1 ||
      RAND_bytes(nonce, static_cast<int>(kCHCipherNonceSize)) != 1) {
    return Failed();
  }
  unsigned char key[kCHCipherKeySize];
  SecretBytes wipe(key, sizeof(key));
  if (!DeriveKey(password, salt, kCHCipherIterations, key)) return Failed();
  CipherCtx ctx = StartGcm(true, key, nonce, type, id);
  if (!ctx) return Failed();
  unsigned char* cipher = out + kCHCipherDataOffset;
  if (!Transform(ctx.get(), plain, length, cipher)) return Failed();
  int written = 0;
  if (EVP_EncryptFinal_ex(ctx.get(), cipher + length, &written) != 1 || written != 0) return Failed();
  if (EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, static_cast<int>(kCHCipherTagSize), cipher + length) !=
      1) {
    return Failed();
  }
  return 0;
}

int Decrypt(const TString& password, uint32_t type, uint64_t id, const unsigned char* stored, size_t length,
            std::vector<unsigned char>* plain) {
  if (stored == nullptr || length < kCHCipherAdjustment) return kErrEncryption;
  if (GetLE(stored, 4) != kCHCipherMagic) return kErrEncryption;
  uint32_t iterations = static_cast<uint32_t>(GetLE(stored + kCHCipherCountOffset, 4));
  if (iterations < kCHCipherMinIterations || iterations > kCHCipherMaxIterations) return kErrEncryption;
  size_t dataLength = length - kCHCipherAdjustment;
  plain->resize(dataLength);
  unsigned char key[kCHCipherKeySize];
  SecretBytes wipe(key, sizeof(key));
  if (!DeriveKey(password, stored + kCHCipherSaltOffset, iterations, key)) return Failed();
  CipherCtx ctx = StartGcm(false, key, stored + kCHCipherNonceOffset, type, id);
  if (!ctx) return Failed();
  const unsigned char* cipher = stored + kCHCipherDataOffset;
  if (!Transform(ctx.get(), cipher, dataLength, plain->data())) return Failed();
  // libcrypto takes the expected tag through a non-const pointer but only
  // reads it.
  unsigned char tag[kCHCipherTagSize];
  std::copy(cipher + dataLength, cipher + dataLength + kCHCipherTagSize, tag);
  if (EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, static_cast<int>(kCHCipherTagSize), tag) != 1) {
    return Failed();
  }
  unsigned char end[1];
  int written = 0;
  if (EVP_DecryptFinal_ex(ctx.get(), end, &written) != 1) return Failed();
  return 0;
}

// Empties `bytes`, wiping what they held: after a failed decryption they
// are unauthenticated plaintext.
void Discard(std::vector<unsigned char>* bytes) {
  OPENSSL_cleanse(bytes->data(), bytes->size());
  bytes->clear();
}

}  // namespace

int CHEncryptConfig(const TString& password, uint32_t type, uint64_t id, const unsigned char* plain, size_t length,
                    std::vector<unsigned char>* stored) {
  if (stored == nullptr) return kErrBadParameter;
  if (password.IsEmpty() || (plain == nullptr && length > 0) || length > SIZE_MAX - kCHCipherAdjustment) {
    stored->clear();
    return kErrBadParameter;
  }
  // Built aside, so that `plain` may lie inside `*stored`.
  std::vector<unsigned char> envelope;
  int status;
  try {
    status = Encrypt(password, type, id, plain, length, &envelope);
  } catch (const std::bad_alloc&) {
    status = kErrNoMemory;
  }
  if (status != 0) {
    stored->clear();
    return status;
  }
  stored->swap(envelope);
  return 0;
}

int CHDecryptConfig(const TString& password, uint32_t type, uint64_t id, const unsigned char* stored, size_t length,
                    std::vector<unsigned char>* plain) {
  if (plain == nullptr) return kErrBadParameter;
  if (password.IsEmpty() || (stored == nullptr && length > 0)) {
    plain->clear();
    return kErrBadParameter;
  }
  std::vector<unsigned char> data;
  int status;
  try {
    status = Decrypt(password, type, id, stored, length, &data);
  } catch (const std::bad_alloc&) {
    status = kErrNoMemory;
  }
  if (status != 0) {
    Discard(&data);
    plain->clear();
    return status;
  }
  plain->swap(data);
  return 0;
}
