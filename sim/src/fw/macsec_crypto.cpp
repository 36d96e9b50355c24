// AES-GCM over libcrypto's EVP interface: one context per call, nothing kept.
// libcrypto is loaded on the first MACsec request that needs it, not at
// program start: its loading costs more than a whole kavoctl command, and
// most runs of the virtual device never encrypt a frame.
#include "fw/macsec_crypto.h"

#include <dlfcn.h>

#include <memory>
#include <mutex>

#include <openssl/evp.h>

namespace kavo_sim::fw::gcm {
namespace {

#define KAVO_CRYPTO_FUNCTIONS(F)                                                                                   \
    F(EVP_CIPHER_CTX_new)                                                                                          \
    F(EVP_CIPHER_CTX_free)                                                                                         \
    F(EVP_CIPHER_CTX_ctrl)                                                                                         \
    F(EVP_CIPHER_CTX_set_padding)                                                                                  \
    F(EVP_CipherInit_ex)                                                                                           \
    F(EVP_CipherUpdate)                                                                                            \
    F(EVP_EncryptInit_ex)                                                                                          \
    F(EVP_EncryptUpdate)                                                                                           \
    F(EVP_EncryptFinal_ex)                                                                                         \
    F(EVP_DecryptUpdate)                                                                                           \
    F(EVP_DecryptFinal_ex)                                                                                         \
    F(EVP_aes_128_gcm)                                                                                             \
    F(EVP_aes_256_gcm)                                                                                             \
    F(EVP_aes_128_ecb)                                                                                             \
    F(EVP_aes_256_ecb)

/* The functions of libcrypto this file uses; all null when it cannot be loaded. */
struct crypto_api {
#define KAVO_CRYPTO_POINTER(name) decltype(&::name) name = nullptr;
    KAVO_CRYPTO_FUNCTIONS(KAVO_CRYPTO_POINTER)
#undef KAVO_CRYPTO_POINTER
    bool loaded = false;
};

const crypto_api* crypto()
{
    static crypto_api api;
    static std::once_flag once;
    std::call_once(once, [] {
        void* lib = dlopen(KAVO_SIM_CRYPTO_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        if (lib == nullptr) return;
        crypto_api found;
        bool all = true;
#define KAVO_CRYPTO_RESOLVE(name)                                                                                  \
    found.name = reinterpret_cast<decltype(&::name)>(dlsym(lib, #name));                                           \
    all = all && found.name != nullptr;
        KAVO_CRYPTO_FUNCTIONS(KAVO_CRYPTO_RESOLVE)
#undef KAVO_CRYPTO_RESOLVE
        found.loaded = all;
        if (all) api = found; // the library stays loaded for the process's life
    });
    return api.loaded ? &api : nullptr;
}

struct ctx_free {
    void operator()(EVP_CIPHER_CTX* c) const { crypto()->EVP_CIPHER_CTX_free(c); }
};
using ctx_ptr = std::unique_ptr<EVP_CIPHER_CTX, ctx_free>;

const EVP_CIPHER* gcm_cipher(const crypto_api* c, size_t key_size)
{
    return key_size == 32 ? c->EVP_aes_256_gcm() : key_size == 16 ? c->EVP_aes_128_gcm() : nullptr;
}

/* A context keyed for GCM with a 12-byte nonce, the additional data fed. */
ctx_ptr begin(bool encrypt, const uint8_t* key, size_t key_size, const uint8_t* nonce, const uint8_t* aad,
              size_t aad_size)
{
    const crypto_api* lib = crypto();
    if (lib == nullptr) return nullptr;
    const EVP_CIPHER* cipher = gcm_cipher(lib, key_size);
    ctx_ptr c(lib->EVP_CIPHER_CTX_new());
    if (!cipher || !c) return nullptr;
    int n = 0;
    if (crypto()->EVP_CipherInit_ex(c.get(), cipher, nullptr, nullptr, nullptr, encrypt ? 1 : 0) != 1 ||
        crypto()->EVP_CIPHER_CTX_ctrl(c.get(), EVP_CTRL_GCM_SET_IVLEN, int(NONCE_SIZE), nullptr) != 1 ||
        crypto()->EVP_CipherInit_ex(c.get(), nullptr, nullptr, key, nonce, encrypt ? 1 : 0) != 1 ||
        (aad_size != 0 && crypto()->EVP_CipherUpdate(c.get(), nullptr, &n, aad, int(aad_size)) != 1))
        return nullptr;
    return c;
}

} // namespace

bool seal(const uint8_t* key, size_t key_size, const uint8_t* nonce, const uint8_t* aad, size_t aad_size,
          const uint8_t* text, size_t text_size, uint8_t* out, uint8_t* tag)
{
    ctx_ptr c = begin(true, key, key_size, nonce, aad, aad_size);
    int n = 0;
    if (!c || (text_size != 0 && crypto()->EVP_EncryptUpdate(c.get(), out, &n, text, int(text_size)) != 1)) return false;
    return crypto()->EVP_EncryptFinal_ex(c.get(), out + n, &n) == 1 &&
           crypto()->EVP_CIPHER_CTX_ctrl(c.get(), EVP_CTRL_GCM_GET_TAG, int(ICV_SIZE), tag) == 1;
}

bool open(const uint8_t* key, size_t key_size, const uint8_t* nonce, const uint8_t* aad, size_t aad_size,
          const uint8_t* text, size_t text_size, uint8_t* out, const uint8_t* tag)
{
    ctx_ptr c = begin(false, key, key_size, nonce, aad, aad_size);
    int n = 0;
    if (!c || (text_size != 0 && crypto()->EVP_DecryptUpdate(c.get(), out, &n, text, int(text_size)) != 1)) return false;
    if (crypto()->EVP_CIPHER_CTX_ctrl(c.get(), EVP_CTRL_GCM_SET_TAG, int(ICV_SIZE), const_cast<uint8_t*>(tag)) != 1)
        return false;
    return crypto()->EVP_DecryptFinal_ex(c.get(), out + n, &n) == 1;
}

bool hash_key(const uint8_t* key, size_t key_size, uint8_t* h)
{
    const crypto_api* lib = crypto();
    if (lib == nullptr) return false;
    const EVP_CIPHER* cipher = key_size == 32 ? lib->EVP_aes_256_ecb() : key_size == 16 ? lib->EVP_aes_128_ecb() : nullptr;
    ctx_ptr c(lib->EVP_CIPHER_CTX_new());
    const uint8_t zero[16] = {};
    int n = 0;
    if (!cipher || !c || crypto()->EVP_EncryptInit_ex(c.get(), cipher, nullptr, key, nullptr) != 1) return false;
    crypto()->EVP_CIPHER_CTX_set_padding(c.get(), 0);
    return crypto()->EVP_EncryptUpdate(c.get(), h, &n, zero, 16) == 1 && n == 16;
}

} // namespace kavo_sim::fw::gcm
