#include "aes.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <memory>
#include <stdexcept>

namespace mbus {

namespace {

constexpr int block = 16;

void require(bool ok, const char* what) {
    if (!ok) {
        throw std::runtime_error(std::string("AES: ") + what);
    }
}

const unsigned char* bytes(const QByteArray& b) {
    return reinterpret_cast<const unsigned char*>(b.constData());
}

QByteArray cbc(const QByteArray& key, const QByteArray& iv, const QByteArray& data, bool encrypt) {
    require(key.size() == block, "the key must be 16 bytes");
    require(iv.size() == block, "the initialization vector must be 16 bytes");
    require(data.size() % block == 0, "CBC data must be whole 16-byte blocks");
    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(),
                                                                        EVP_CIPHER_CTX_free);
    require(ctx != nullptr, "cannot allocate a cipher context");
    require(
        EVP_CipherInit_ex(ctx.get(), EVP_aes_128_cbc(), nullptr, bytes(key), bytes(iv), encrypt ? 1 : 0) == 1,
        "cipher set-up failed");
    EVP_CIPHER_CTX_set_padding(ctx.get(), 0);
    QByteArray out(data.size() + block, '\0');
    int written = 0;
    int last = 0;
    auto* target = reinterpret_cast<unsigned char*>(out.data());
    require(EVP_CipherUpdate(ctx.get(), target, &written, bytes(data), data.size()) == 1, "cipher failed");
    require(EVP_CipherFinal_ex(ctx.get(), target + written, &last) == 1, "cipher final block failed");
    out.resize(written + last);
    return out;
}

}  // namespace

QByteArray aes128_cbc_decrypt(const QByteArray& key, const QByteArray& iv, const QByteArray& data) {
    return cbc(key, iv, data, false);
}

QByteArray aes128_cbc_encrypt(const QByteArray& key, const QByteArray& iv, const QByteArray& data) {
    return cbc(key, iv, data, true);
}

QByteArray aes128_cmac(const QByteArray& key, const QByteArray& message) {
    require(key.size() == block, "the key must be 16 bytes");
    std::unique_ptr<EVP_MAC, decltype(&EVP_MAC_free)> mac(EVP_MAC_fetch(nullptr, "CMAC", nullptr),
                                                          EVP_MAC_free);
    require(mac != nullptr, "CMAC is not available");
    std::unique_ptr<EVP_MAC_CTX, decltype(&EVP_MAC_CTX_free)> ctx(EVP_MAC_CTX_new(mac.get()),
                                                                  EVP_MAC_CTX_free);
    require(ctx != nullptr, "cannot allocate a CMAC context");
    char cipher[] = "AES-128-CBC";
    const OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_CIPHER, cipher, 0),
                                 OSSL_PARAM_construct_end()};
    require(EVP_MAC_init(ctx.get(), bytes(key), key.size(), params) == 1, "CMAC set-up failed");
    require(EVP_MAC_update(ctx.get(), bytes(message), message.size()) == 1, "CMAC failed");
    QByteArray out(block, '\0');
    size_t written = 0;
    require(EVP_MAC_final(ctx.get(), reinterpret_cast<unsigned char*>(out.data()), &written, out.size()) == 1,
            "CMAC final failed");
    out.resize(static_cast<int>(written));
    return out;
}

}  // namespace mbus
