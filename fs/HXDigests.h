#pragma once

// The last step of MD5 and SHA-1 digests computed piecewise with OpenSSL.

#include <QString>

#include <openssl/evp.h>

namespace HXFileManager {

// Finishes CONTEXT (initialised for MD5 / SHA-1 and fed by the caller, who still
// frees it) and returns the digest as lower-case hex: 32 / 40 characters. ""
// when the context cannot be finished.
QString md5HashWithContext(EVP_MD_CTX *context);
QString sha1HashWithContext(EVP_MD_CTX *context);

}  // namespace HXFileManager
