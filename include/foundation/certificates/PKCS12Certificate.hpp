// PKCS12Certificate: a PKCS#12 key store opened with its passphrase.
//
// Holds the certificate that belongs to the key, the other certificates as a chain, and the
// private key's secret as a PrivateKeyInfo. Only what the rest of the library supports opens:
// RSA keys of at least 1024 bits, P-256 and Ed25519 keys (P-384, P-521 and Ed448 too under
// KeyAcceptance::Extended), and certificates that load as X509Certificate. A moved-from object
// throws PKCS12CertificateException "Error: PKCS12Certificate is uninitialized." from every
// operation but destruction, assignment and swap.
//
// Thread safety: every operation, assignment and swap included, may run concurrently with any
// other on the same object; a reader sees the value from before or after an assignment, never a
// mix. The object is locked only to take a reference to its opened container.
//
// Opening a container loads OpenSSL's "legacy" provider into the process-wide default library
// context, where it stays, so that containers made with 40-bit RC2 or 3DES open too.
//
//   foundation::certificates::PKCS12Certificate store(derBytes, passphrase);
//   const auto key = store.getPrivateKeyInfo();
#pragma once

#include <foundation/certificates/Export.hpp>
#include <foundation/certificates/PrivateKeyInfo.hpp>
#include <foundation/certificates/Types.hpp>
#include <foundation/certificates/X509Certificate.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace foundation::certificates {

class PKCS12CertificateImpl;

class FOUNDATION_CERTIFICATES_EXPORT PKCS12Certificate {
  public:
    // An empty container: empty() is true.
    PKCS12Certificate();

    // Opens DER PKCS#12 data (a stream is read to its end). Throws InvalidArgument for empty or
    // unreadable input, IncorrectPassphrase when the integrity check fails (a wrong passphrase,
    // or a container without one), PKCS12CertificateException when the data is no PKCS#12
    // structure, cannot be decrypted or holds a certificate or key that the library refuses,
    // UnsupportedEllipticCurve / UnsupportedKeyType for keys of other kinds.
    PKCS12Certificate(std::istream& input, const std::string& passphrase);
    PKCS12Certificate(const ByteArray& der, const std::string& passphrase);

    // Copies share the opened container, which is never modified.
    PKCS12Certificate(const PKCS12Certificate& other);
    PKCS12Certificate& operator=(const PKCS12Certificate& other);

    // swap is two assignments, each atomic: a concurrent assignment to one of the two objects
    // may be overwritten.
    PKCS12Certificate(PKCS12Certificate&& other) noexcept;
    PKCS12Certificate& operator=(PKCS12Certificate&& other) noexcept;
    void swap(PKCS12Certificate& other) noexcept;

    ~PKCS12Certificate();

    // The key's certificate; an empty certificate when the container holds none.
    X509Certificate getCertificate() const;
    // The other certificates, in container order.
    X509CertificateChain getCAChain() const;
    // No value when the container holds no key.
    std::optional<PrivateKeyInfo> getPrivateKeyInfo() const;
    // The RSA private exponent; empty without a key, NotRSAKey for an elliptic-curve key.
    ByteArray getPrivateExponent() const;

    bool empty() const;

    // The container's DER encoding, still protected by its passphrase; empty for an empty object.
    ByteArray getAsBytes() const;

    void print(std::ostream& os) const;

    // Same certificate, chain and key info.
    bool operator==(const PKCS12Certificate& other) const;
    bool operator!=(const PKCS12Certificate& other) const;

    // Throws "Error: PKCS12Certificate is uninitialized." after a move.
    void throwIfImplEmpty() const;

  private:
    friend struct detail::FacadeAccess;

    std::shared_ptr<const PKCS12CertificateImpl> impl;
    mutable std::mutex mutex;
};

FOUNDATION_CERTIFICATES_EXPORT std::ostream& operator<<(std::ostream& os,
                                                        const PKCS12Certificate& container);

// Bounds the iteration count of every key derivation a container asks for (its MAC, its
// encrypted parts, its shrouded keys) for all containers this process opens from now on; 0, the
// default, sets no bound. A container over it fails before any derivation runs, with
// PKCS12CertificateException "Error: PKCS12 certificate iteration count <count> exceeds the
// limit of <limit>.". Safe to call from any thread; a load already running keeps the bound it
// started with. A bound also makes loading decrypt each encrypted part once more, to see the
// keys it holds before they are derived.
FOUNDATION_CERTIFICATES_EXPORT void setMaximumPKCS12Iterations(std::uint64_t maximum) noexcept;
FOUNDATION_CERTIFICATES_EXPORT std::uint64_t getMaximumPKCS12Iterations() noexcept;

}  // namespace foundation::certificates
