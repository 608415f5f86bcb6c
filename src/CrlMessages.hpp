// The texts of revocation list download failures, shared by both ways of fetching.
#pragma once

#include <string>

namespace foundation::certificates::detail::crlmessage {

inline constexpr char kNoDistributionPoints[] =
    "CRL Download Error: Certificate Revocation List Distribution Points not available\n";
inline constexpr char kNoUsableDistributionPoint[] =
    "CRL Download Error: Unable to resolve Certificate Revocation List Distribution Points\n";
inline constexpr char kUnableToConnect[] = "CRL Download Error: Unable to connect: ";
inline constexpr char kInvalidResponse[] = "CRL Download Error: Invalid response\n";
inline constexpr char kStatusCode[] = "CRL Download Error: Response returned with status code: ";
inline constexpr char kEmptyBody[] = "CRL Download Error: CRL HTTP data is empty\n";
inline constexpr char kInvalidList[] = "CRL Download Error: Invalid Certificate Revocation List\n";
inline constexpr char kBadSignature[] =
    "CRL Verification Error: Failed to verify the Certificate Revocation List signature\n";
inline constexpr char kNoNextUpdate[] =
    "CRL Verification Error: Failed to retrieve the next update date from the Certificate "
    "Revocation List\n";
inline constexpr char kExpired[] =
    "CRL Verification Error: Certificate Revocation List has expired\n";

// Failures that only fetching under settings can meet.
inline constexpr char kConnectTimedOut[] = "CRL Download Error: Connection timed out\n";
inline constexpr char kResponseTimedOut[] = "CRL Download Error: Response timed out\n";
inline constexpr char kTooLarge[] = "CRL Download Error: Response exceeds the size limit\n";
inline constexpr char kEndedEarly[] = "CRL Download Error: Response ended early\n";
inline constexpr char kBadChunk[] = "CRL Download Error: Invalid chunked encoding\n";
inline constexpr char kTooManyRedirects[] = "CRL Download Error: Too many redirects\n";
inline constexpr char kRedirectToHttps[] = "CRL Download Error: Redirect to https refused\n";
inline constexpr char kInvalidRedirect[] = "CRL Download Error: Invalid redirect\n";

// How a failure while getting the HTTP data reaches the caller.
inline std::string wrapped(const std::string& message) {
    return "CRL Download Error: Unable to get Certificate Revocation List HTTP data. " + message +
           "\n";
}

}  // namespace foundation::certificates::detail::crlmessage
