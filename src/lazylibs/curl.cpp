// libcurl's entry points that software downloads use, forwarded to the
// library loaded on the first call; without the library a download fails
// the way one fails without a network.
#define CURL_DISABLE_TYPECHECK  // the forwarders below must not be macros
#include <curl/curl.h>

#include "lazylibrary.h"

#include <cstdarg>

namespace {

lumbra::LazyLibrary &curl()
{
    static lumbra::LazyLibrary lib("libcurl.so.4");
    return lib;
}

}  // namespace

extern "C" {

LUMBRA_LAZY_FORWARD(curl, CURLcode, curl_global_init, (long flags), (flags), CURLE_FAILED_INIT)
LUMBRA_LAZY_FORWARD_VOID(curl, curl_global_cleanup, (void), ())
LUMBRA_LAZY_FORWARD(curl, CURL *, curl_easy_init, (void), (), nullptr)
LUMBRA_LAZY_FORWARD(curl, CURLcode, curl_easy_perform, (CURL * handle), (handle), CURLE_FAILED_INIT)
LUMBRA_LAZY_FORWARD_VOID(curl, curl_easy_cleanup, (CURL * handle), (handle))
LUMBRA_LAZY_FORWARD(curl, const char *, curl_easy_strerror, (CURLcode code), (code), "libcurl not available")

// The one argument after the option is read by its type, as libcurl itself
// reads it: the option's number says which type that is. The option is an
// enum because curl.h says so; clang warns about va_start after one.
#ifdef __clang__
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wvarargs"
#endif
CURLcode curl_easy_setopt(CURL *handle, CURLoption option, ...)
{
    static const auto real = lumbra::lazySymbol<decltype(&curl_easy_setopt)>(curl(), "curl_easy_setopt");
    if (!real)
        return CURLE_FAILED_INIT;
    va_list ap;
    va_start(ap, option);
    CURLcode rc;
    if (option < CURLOPTTYPE_OBJECTPOINT)
        rc = real(handle, option, va_arg(ap, long));
    else if (option < CURLOPTTYPE_FUNCTIONPOINT)
        rc = real(handle, option, va_arg(ap, void *));
    else if (option < CURLOPTTYPE_OFF_T)
        rc = real(handle, option, va_arg(ap, void (*)(void)));
    else if (option < CURLOPTTYPE_BLOB)
        rc = real(handle, option, va_arg(ap, curl_off_t));
    else
        rc = real(handle, option, va_arg(ap, void *));
    va_end(ap);
    return rc;
}
#ifdef __clang__
#pragma clang diagnostic pop
#endif

}  // extern "C"
