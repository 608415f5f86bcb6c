#include "PKCS12CertificateImpl.hpp"

#include "OpenSSLErrors.hpp"
#include "PKCS12IterationLimit.hpp"
#include "X509CertificateImpl.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/KeyConversions.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>
#include <foundation/certificates/PKCS12Certificate.hpp>

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/provider.h>

#include <atomic>
#include <climits>
#include <istream>
#include <iterator>
#include <ostream>
#include <utility>

namespace foundation::certificates {

namespace {

ByteArray readStream(std::istream& input) {
    if (input.rdstate() != std::ios_base::goodbit) {
        throw InvalidArgument("The input PKCS12 certificate data stream is invalid.");
    }
    try {
        return ByteArray(std::istreambuf_iterator<char>(input.rdbuf()),
                         std::istreambuf_iterator<char>());
    } catch (const std::exception& e) {
        throw InvalidArgument(
            std::string("The input PKCS12 certificate data stream is invalid. Reason:") + e.what());
    }
}

std::shared_ptr<PKCS12> makePKCS12SPtr(PKCS12* raw) {
    if (raw == nullptr) return {};
    // std::shared_ptr frees the structure itself should allocating its owner fail.
    return std::shared_ptr<PKCS12>(raw, PKCS12_free);
}

// Key material copied out of OpenSSL, overwritten when it goes out of scope.
class WipedBytes {
  public:
    explicit WipedBytes(std::size_t size) : bytes(size, 0) {}
    WipedBytes(const WipedBytes&) = delete;
    WipedBytes& operator=(const WipedBytes&) = delete;
    ~WipedBytes() { OPENSSL_cleanse(bytes.data(), bytes.size()); }

    ByteArray bytes;
};

std::string reason() { return detail::getOpenSSLErrorReason(); }

// The legacy provider stays loaded in the default library context for the rest of the process.
// The first load's reference is kept and released at exit: the holder is made after OpenSSL has
// initialised itself, so it goes before OpenSSL's clean-up, which can then tear the provider
// down instead of leaving it behind. Later loads hand their extra reference straight back.
class KeptProvider {
  public:
    KeptProvider() = default;
    KeptProvider(const KeptProvider&) = delete;
    KeptProvider& operator=(const KeptProvider&) = delete;
    ~KeptProvider() {
        if (OSSL_PROVIDER* provider = kept.exchange(nullptr)) OSSL_PROVIDER_unload(provider);
    }

    void keepOrRelease(OSSL_PROVIDER* provider) {
        OSSL_PROVIDER* none = nullptr;
        if (!kept.compare_exchange_strong(none, provider)) OSSL_PROVIDER_unload(provider);
    }

  private:
    std::atomic<OSSL_PROVIDER*> kept{nullptr};
};

bool loadLegacyProvider() {
    OSSL_PROVIDER* provider = OSSL_PROVIDER_load(nullptr, "legacy");
    if (provider == nullptr) return false;
    static KeptProvider keeper;
    keeper.keepOrRelease(provider);
    return true;
}

// OSSL_PARAM_free clears only the secure-heap part of an exported array; a key's octet strings
// (an Ed25519 private key) live in the ordinary part.
void clearAndFreeParams(OSSL_PARAM* params) {
    for (OSSL_PARAM* p = params; p != nullptr && p->key != nullptr; ++p) {
        if (p->data != nullptr) OPENSSL_cleanse(p->data, p->data_size);
    }
    OSSL_PARAM_free(params);
}

}  // namespace

PKCS12CertificateImpl::PKCS12CertificateImpl() = default;

PKCS12CertificateImpl::PKCS12CertificateImpl(std::istream& input, const std::string& passphrase) {
    // Covers the stream checks too: no load leaves errors behind, whatever stops it.
    const detail::LoaderErrorQueueGuard errorQueue;
    init(readStream(input), passphrase);
}

PKCS12CertificateImpl::PKCS12CertificateImpl(const ByteArray& der, const std::string& passphrase) {
    init(der, passphrase);
}

PKCS12CertificateImpl::PKCS12CertificateImpl(PKCS12CertificateImpl&& other)
    : PKCS12CertificateImpl() {
    swapMembers(other);
}

PKCS12CertificateImpl& PKCS12CertificateImpl::operator=(const PKCS12CertificateImpl& other) =
    default;

PKCS12CertificateImpl& PKCS12CertificateImpl::operator=(PKCS12CertificateImpl&& other) {
    if (this != &other) {
        PKCS12CertificateImpl taken(std::move(other));
        swapMembers(taken);
    }
    return *this;
}

PKCS12CertificateImpl::~PKCS12CertificateImpl() = default;

void PKCS12CertificateImpl::swapMembers(PKCS12CertificateImpl& other) noexcept {
    privateKeyInfo.swap(other.privateKeyInfo);
    pkcs12.swap(other.pkcs12);
    certificate.swap(other.certificate);
    caChain.swap(other.caChain);
}

void PKCS12CertificateImpl::init(const ByteArray& der, const std::string& passphrase) {
    const detail::LoaderErrorQueueGuard errorQueue;
    const std::uint64_t iterationLimit = getMaximumPKCS12Iterations();
    if (der.empty()) {
        throw InvalidArgument("The provided PKCS12 certificate bytearray has no content.");
    }

    // A read-only view of the caller's bytes that ends like a written memory BIO, so OpenSSL
    // reads them exactly as it would a copy.
    const BIOUPtr bio = makeBIOUPtr(der.size() <= INT_MAX
                                        ? BIO_new_mem_buf(der.data(), static_cast<int>(der.size()))
                                        : nullptr);
    if (!bio) {
        throw PKCS12CertificateException(
            "Internal error: The given certificate data could not be written to a buffer.");
    }
    BIO_set_mem_eof_return(bio.get(), -1);

    pkcs12 = makePKCS12SPtr(d2i_PKCS12_bio(bio.get(), nullptr));
    if (!pkcs12 || ERR_peek_error() != 0) {
        throw PKCS12CertificateException("Error: Loading PKSC12 certificate failed. Reason=" +
                                         reason());
    }
    detail::checkVisiblePKCS12Iterations(*pkcs12, iterationLimit);

    // The passphrase is checked before anything is decrypted, so a wrong one is always reported
    // as such. An empty passphrase is the empty string, which differs from none in PKCS#12.
    if (passphrase.size() > INT_MAX ||
        PKCS12_verify_mac(pkcs12.get(), passphrase.data(), static_cast<int>(passphrase.size())) ==
            0) {
        throw IncorrectPassphrase("Input passphrase is incorrect. OpenSSL error message=" +
                                  reason());
    }

    // Older containers use ciphers that only the legacy provider has. The MAC check above has
    // already activated the default provider, so adding this one does not displace it.
    if (!loadLegacyProvider()) {
        throw PKCS12CertificateException("Error: Loading legacy provider failed." + reason());
    }
    detail::checkEncryptedPKCS12Iterations(*pkcs12, passphrase, iterationLimit);

    EVP_PKEY* rawKey = nullptr;
    X509* rawCertificate = nullptr;
    STACK_OF(X509)* rawCAs = nullptr;
    const int parsed =
        PKCS12_parse(pkcs12.get(), passphrase.c_str(), &rawKey, &rawCertificate, &rawCAs);
    const EVP_PKEYUPtr key = makeEVP_PKEYUPtr(rawKey);
    X509UPtr parsedCertificate = makeX509UPtr(rawCertificate);
    const X509StackUPtr cas = makeX509StackUPtr(rawCAs);
    if (parsed == 0) {
        throw PKCS12CertificateException("Error: Parsing PKSC12 certificate failed." + reason());
    }

    // The certificates are the parser's own, so they are taken by reference, not duplicated.
    try {
        if (parsedCertificate) {
            certificate = X509Certificate(
                X509CertificateImpl::fromParsed(makeX509SPtr(parsedCertificate.release())));
        }
        if (cas) {
            for (int i = 0; i < sk_X509_num(cas.get()); ++i) {
                X509* ca = sk_X509_value(cas.get(), i);
                X509_up_ref(ca);
                caChain.addCertificate(
                    X509Certificate(X509CertificateImpl::fromParsed(makeX509SPtr(ca))));
            }
        }
    } catch (const UnsupportedEllipticCurve& e) {
        throw UnsupportedEllipticCurve(
            "Unsupported elliptic curve in X509 Certificate in PKCS12: " + std::string(e.what()));
    } catch (const CertificateException& e) {
        throw PKCS12CertificateException(
            std::string("Error: Unable to parse X509 certificate(s) inside PKCS12 certificate.") +
            e.what());
    }

    if (!key) return;
    if (getKeyType(key.get()) == KeyType::ECC) {
        const EllipticCurve curve = getEllipticCurve(key.get());
        privateKeyInfo.emplace(extractECCPrivateInteger(key.get()), curve);
        return;
    }

    BNUPtr exponent = makeBNUPtr(BN_new());
    BIGNUM* rawExponent = exponent.get();
    const int read = EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_RSA_D, &rawExponent);
    if (rawExponent != exponent.get()) exponent.reset(rawExponent);  // OpenSSL made its own
    if (read == 0 || !exponent) {
        throw PKCS12CertificateException("Failed to get the private exponent for the private key");
    }
    const int length = (BN_num_bits(exponent.get()) + 7) / 8;
    WipedBytes magnitude(static_cast<std::size_t>(length));
    if (BN_bn2bin(exponent.get(), magnitude.bytes.data()) != length) {
        throw PKCS12CertificateException(
            "Error: Unable to read private key from PKCS12 certificate." + reason());
    }
    privateKeyInfo.emplace(magnitude.bytes);
    if (EVP_PKEY_get_bits(key.get()) <= 1023) {
        throw PKCS12CertificateException(
            "RSA key size does not meet minimum cryptographic requirements");
    }
}

ByteArray PKCS12CertificateImpl::extractECCPrivateInteger(const EVP_PKEY* key) const {
    OSSL_PARAM* rawParams = nullptr;
    if (EVP_PKEY_todata(key, EVP_PKEY_KEYPAIR, &rawParams) != 1) {
        throw CertificateException("Failed to extract information from private EVP_PKEY.");
    }
    // The array holds the private key: overwrite it before it goes back to the allocator.
    const OSSL_PARAMUPtr params(rawParams, clearAndFreeParams);
    const OSSL_PARAM* priv = OSSL_PARAM_locate_const(params.get(), OSSL_PKEY_PARAM_PRIV_KEY);
    if (priv == nullptr) {
        throw CertificateException("Could not find 'priv' in parameter list from EVP_PKEY_todata.");
    }
    // NIST curves carry a private integer; Edwards keys are raw octets (32 or 57 bytes).
    if (EVP_PKEY_get_base_id(key) == EVP_PKEY_EC) {
        BIGNUM* rawInteger = nullptr;
        const int read = OSSL_PARAM_get_BN(priv, &rawInteger);
        const BNUPtr integer = makeBNUPtr(rawInteger);
        if (read != 1) {
            throw CertificateException("Failed to initialize BIGNUM with private integer data.");
        }
        return bnToByteArray(integer.get());
    }
    const auto* data = static_cast<const unsigned char*>(priv->data);
    return ByteArray(data, data + priv->data_size);
}

ByteArray PKCS12CertificateImpl::getPrivateExponent() const {
    if (!privateKeyInfo) return {};
    return privateKeyInfo->getRSAPrivateExponent();
}

void PKCS12CertificateImpl::throwIfEmpty() const {
    if (!pkcs12) throw PKCS12CertificateException("PKCS12Certificate has no content.");
}

ByteArray PKCS12CertificateImpl::getAsBytes() const {
    if (!pkcs12) return {};
    // Serialised straight into the result: the encoding is the one a memory BIO would receive.
    const int length = i2d_PKCS12(pkcs12.get(), nullptr);
    if (length <= 0) throw PKCS12CertificateException("Unable to write out PKCS12 bytes.");
    ByteArray bytes(static_cast<std::size_t>(length));
    unsigned char* out = bytes.data();
    if (i2d_PKCS12(pkcs12.get(), &out) != length) {
        throw PKCS12CertificateException("Unable to write out PKCS12 bytes.");
    }
    return bytes;
}

void PKCS12CertificateImpl::print(std::ostream& os) const {
    os << "Printing PKCS12 certificate.\n"
       << "Certificate: \n"
       << certificate << std::endl
       << "CA Chain: \n"
       << caChain << std::endl;
}

bool PKCS12CertificateImpl::operator==(const PKCS12CertificateImpl& other) const {
    return certificate == other.certificate && caChain == other.caChain &&
           privateKeyInfo == other.privateKeyInfo;
}

}  // namespace foundation::certificates
