// The privileged runner's messages: a request it accepts is well-formed and
// encodes to itself; so does a reply the client accepts.

#include "fuzz/FuzzSupport.h"
#include "system/HXPrivilegedRequest.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
    if (const std::optional<HXPrivilegedRequest> request = HXPrivilegedRequest::decoded(bytes)) {
        FUZZ_CHECK(request->isWellFormed());
        const std::optional<HXPrivilegedRequest> again = HXPrivilegedRequest::decoded(request->encoded());
        FUZZ_CHECK(again && again->operation == request->operation &&
                   again->arguments == request->arguments && again->wait == request->wait &&
                   again->captureOutput == request->captureOutput);
    }
    if (const std::optional<HXPrivilegedReply> reply = HXPrivilegedReply::decoded(bytes)) {
        const std::optional<HXPrivilegedReply> again = HXPrivilegedReply::decoded(reply->encoded());
        FUZZ_CHECK(again && again->status == reply->status && again->trashedPath == reply->trashedPath &&
                   again->infoPath == reply->infoPath && again->output == reply->output);
    }
    return 0;
}
