// AES-GCM of the MACsec engine (GCM-AES-128/256 and their XPN variants), over
// the AES of libcrypto. Keys of 16 or 32 bytes, 12-byte nonces, 16-byte ICVs.
#ifndef KAVO_SIM_FW_MACSEC_CRYPTO_H
#define KAVO_SIM_FW_MACSEC_CRYPTO_H

#include <cstddef>
#include <cstdint>

namespace kavo_sim::fw::gcm {

constexpr size_t ICV_SIZE = 16;
constexpr size_t NONCE_SIZE = 12;

/* Encrypts text (in place allowed) under key/nonce with the additional data
   aad, and writes the 16-byte tag. False when libcrypto refuses. */
bool seal(const uint8_t* key, size_t key_size, const uint8_t* nonce, const uint8_t* aad, size_t aad_size,
          const uint8_t* text, size_t text_size, uint8_t* out, uint8_t* tag);

/* Decrypts text into out and checks the tag: true only when the tag matches
   (out holds the decrypted bytes either way). */
bool open(const uint8_t* key, size_t key_size, const uint8_t* nonce, const uint8_t* aad, size_t aad_size,
          const uint8_t* text, size_t text_size, uint8_t* out, const uint8_t* tag);

/* The GHASH key H = AES-K(0^128). */
bool hash_key(const uint8_t* key, size_t key_size, uint8_t* h);

} // namespace kavo_sim::fw::gcm

#endif
