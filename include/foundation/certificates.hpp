// Umbrella header: the whole public interface of foundation::certificates.
#pragma once

#include <foundation/certificates/CertificateRevocationList.hpp>
#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/CrlCache.hpp>
#include <foundation/certificates/Encodings.hpp>
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/ISystemCertificateAdder.hpp>
#include <foundation/certificates/KeyConversions.hpp>
#include <foundation/certificates/Logging.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>
#include <foundation/certificates/PKCS12Certificate.hpp>
#include <foundation/certificates/PKCS7Certificate.hpp>
#include <foundation/certificates/PrivateKeyInfo.hpp>
#include <foundation/certificates/PublicKeyInfo.hpp>
#include <foundation/certificates/SelfSignedCertBuilder.hpp>
#include <foundation/certificates/SystemCertificateAdder.hpp>
#include <foundation/certificates/TrustImportReport.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/TrustStoreImpl.hpp>
#include <foundation/certificates/Types.hpp>
#include <foundation/certificates/ValidationReport.hpp>
#include <foundation/certificates/X509Certificate.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>
