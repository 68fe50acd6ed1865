#include "fs/HXDigests.h"

#include <QByteArray>

namespace HXFileManager {

namespace {

QString finishedDigest(EVP_MD_CTX *context)
{
    if (context == nullptr)
        return QString();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(context, digest, &length) != 1)
        return QString();
    return QString::fromLatin1(
        QByteArray(reinterpret_cast<const char *>(digest), static_cast<qsizetype>(length)).toHex());
}

}  // namespace

QString md5HashWithContext(EVP_MD_CTX *context)
{
    return finishedDigest(context);
}

QString sha1HashWithContext(EVP_MD_CTX *context)
{
    return finishedDigest(context);
}

}  // namespace HXFileManager
