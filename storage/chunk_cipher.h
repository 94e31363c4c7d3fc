// The cipher of encrypted configuration chunks.
//
// A configuration chunk of a container that carries the encryption marker
// is stored as an envelope around its data:
//
//   offset  size  field
//        0     4  magic 0x31666E43 (bytes "Cnf1")
//        4     4  PBKDF2 iteration count
//        8    16  salt
//       24    12  nonce
//       36     n  ciphertext (as long as the data)
//     36+n    16  authentication tag
//
// All fields are little-endian; the stored length is the data's length plus
// kCHCipherAdjustment (52), for empty data too.
//
// Key: PBKDF2-HMAC-SHA256 over the UTF-8 form of the password and the
// envelope's salt, 32 bytes. Every envelope gets a fresh random salt and
// nonce, so the same data never encrypts to the same bytes twice.
// Cipher: AES-256-GCM with a 12-byte nonce and a 16-byte tag; the
// associated data is the chunk's type (4 bytes) and id (8 bytes), both
// little-endian, so an envelope copied under another type or id does not
// decrypt.
//
// Envelopes are written with kCHCipherIterations rounds. On reading, the
// count is taken from the envelope but must lie within
// [kCHCipherMinIterations, kCHCipherMaxIterations], so a hostile file can
// neither weaken the key nor tie the reader up for hours.
//
// Results: 0, or
//   kErrBadParameter  an empty password, a null pointer with a non-zero
//                     length, a null output vector;
//   kErrNoMemory      the output could not be allocated;
//   kErrEncryption    a failure of libcrypto, an envelope too short or
//                     not of this form, an iteration count out of range,
//                     or a tag that does not match: a wrong password,
//                     changed bytes, another type or id.
// On failure the output vector is empty: a wrong password never yields
// garbage. Keys and the password's bytes are wiped after use.
//
// Nothing here logs: the chunk manager reports failures and sizes in its own
// lines ("ChunkManager::chWriteChunk: ...", "ChunkManager::chReadChunk:
// ...").
//
// No state is shared between calls: any thread may call at any time.
#ifndef PLINTH_STORAGE_CHUNK_CIPHER_H_
#define PLINTH_STORAGE_CHUNK_CIPHER_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "foundation/export.h"
#include "foundation/tstring.h"

constexpr uint32_t kCHCipherMagic = 0x31666E43;
constexpr uint32_t kCHCipherIterations = 100000;
constexpr uint32_t kCHCipherMinIterations = 1000;
constexpr uint32_t kCHCipherMaxIterations = 10000000;
constexpr size_t kCHCipherSaltSize = 16;
constexpr size_t kCHCipherNonceSize = 12;
constexpr size_t kCHCipherTagSize = 16;
constexpr size_t kCHCipherKeySize = 32;
// Offsets of the envelope's fields.
constexpr size_t kCHCipherCountOffset = 4;
constexpr size_t kCHCipherSaltOffset = 8;
constexpr size_t kCHCipherNonceOffset = kCHCipherSaltOffset + kCHCipherSaltSize;  // 24
constexpr size_t kCHCipherDataOffset = kCHCipherNonceOffset + kCHCipherNonceSize;  // 36
// Stored length minus data length.
constexpr uint32_t kCHCipherAdjustment = 52;
static_assert(kCHCipherDataOffset + kCHCipherTagSize == kCHCipherAdjustment);

// Encrypts `length` bytes at `plain` for the chunk (type, id) into
// `*stored` (length + kCHCipherAdjustment bytes). `plain` may be null when
// `length` is 0, and may point into `*stored`.
PLINTH_API int CHEncryptConfig(const TString& password, uint32_t type, uint64_t id, const unsigned char* plain,
                               size_t length, std::vector<unsigned char>* stored);

// Checks and decrypts the envelope of `length` bytes at `stored`, written
// for the chunk (type, id), into `*plain`. `stored` may point into `*plain`.
PLINTH_API int CHDecryptConfig(const TString& password, uint32_t type, uint64_t id, const unsigned char* stored,
                               size_t length, std::vector<unsigned char>* plain);

#endif  // PLINTH_STORAGE_CHUNK_CIPHER_H_
