// AES-GCM over libcrypto's EVP interface: one context per call, nothing kept.
#include "fw/macsec_crypto.h"

#include <memory>

#include <openssl/evp.h>

namespace kavo_sim::fw::gcm {
namespace {

struct ctx_free {
    void operator()(EVP_CIPHER_CTX* c) const { EVP_CIPHER_CTX_free(c); }
};
using ctx_ptr = std::unique_ptr<EVP_CIPHER_CTX, ctx_free>;

const EVP_CIPHER* gcm_cipher(size_t key_size)
{
    return key_size == 32 ? EVP_aes_256_gcm() : key_size == 16 ? EVP_aes_128_gcm() : nullptr;
}

/* A context keyed for GCM with a 12-byte nonce, the additional data fed. */
ctx_ptr begin(bool encrypt, const uint8_t* key, size_t key_size, const uint8_t* nonce, const uint8_t* aad,
              size_t aad_size)
{
    const EVP_CIPHER* cipher = gcm_cipher(key_size);
    ctx_ptr c(EVP_CIPHER_CTX_new());
    if (!cipher || !c) return nullptr;
    int n = 0;
    if (EVP_CipherInit_ex(c.get(), cipher, nullptr, nullptr, nullptr, encrypt ? 1 : 0) != 1 ||
        EVP_CIPHER_CTX_ctrl(c.get(), EVP_CTRL_GCM_SET_IVLEN, int(NONCE_SIZE), nullptr) != 1 ||
        EVP_CipherInit_ex(c.get(), nullptr, nullptr, key, nonce, encrypt ? 1 : 0) != 1 ||
        (aad_size != 0 && EVP_CipherUpdate(c.get(), nullptr, &n, aad, int(aad_size)) != 1))
        return nullptr;
    return c;
}

} // namespace

bool seal(const uint8_t* key, size_t key_size, const uint8_t* nonce, const uint8_t* aad, size_t aad_size,
          const uint8_t* text, size_t text_size, uint8_t* out, uint8_t* tag)
{
    ctx_ptr c = begin(true, key, key_size, nonce, aad, aad_size);
    int n = 0;
    if (!c || (text_size != 0 && EVP_EncryptUpdate(c.get(), out, &n, text, int(text_size)) != 1)) return false;
    return EVP_EncryptFinal_ex(c.get(), out + n, &n) == 1 &&
           EVP_CIPHER_CTX_ctrl(c.get(), EVP_CTRL_GCM_GET_TAG, int(ICV_SIZE), tag) == 1;
}

bool open(const uint8_t* key, size_t key_size, const uint8_t* nonce, const uint8_t* aad, size_t aad_size,
          const uint8_t* text, size_t text_size, uint8_t* out, const uint8_t* tag)
{
    ctx_ptr c = begin(false, key, key_size, nonce, aad, aad_size);
    int n = 0;
    if (!c || (text_size != 0 && EVP_DecryptUpdate(c.get(), out, &n, text, int(text_size)) != 1)) return false;
    if (EVP_CIPHER_CTX_ctrl(c.get(), EVP_CTRL_GCM_SET_TAG, int(ICV_SIZE), const_cast<uint8_t*>(tag)) != 1)
        return false;
    return EVP_DecryptFinal_ex(c.get(), out + n, &n) == 1;
}

bool hash_key(const uint8_t* key, size_t key_size, uint8_t* h)
{
    const EVP_CIPHER* cipher = key_size == 32 ? EVP_aes_256_ecb() : key_size == 16 ? EVP_aes_128_ecb() : nullptr;
    ctx_ptr c(EVP_CIPHER_CTX_new());
    const uint8_t zero[16] = {};
    int n = 0;
    if (!cipher || !c || EVP_EncryptInit_ex(c.get(), cipher, nullptr, key, nullptr) != 1) return false;
    EVP_CIPHER_CTX_set_padding(c.get(), 0);
    return EVP_EncryptUpdate(c.get(), h, &n, zero, 16) == 1 && n == 16;
}

} // namespace kavo_sim::fw::gcm
