// libcurl on first use: only the phone relay and its alerts speak HTTP.

// The library's type-checking macros would rename the definitions below.
#define CURL_DISABLE_TYPECHECK 1
#include <cstdarg>

#include <curl/curl.h>

#include "platform/lazy/lazy_library.h"

namespace {
const char* const kCurl = "libcurl.so.4";
}

extern "C" {

VIGILO_LAZY(kCurl, CURLcode, curl_global_init, (long flags), (flags), CURLE_FAILED_INIT)
VIGILO_LAZY(kCurl, CURL*, curl_easy_init, (void), (), nullptr)
VIGILO_LAZY_VOID(kCurl, curl_easy_cleanup, (CURL * curl), (curl))
VIGILO_LAZY(kCurl, CURLcode, curl_easy_perform, (CURL * curl), (curl), CURLE_FAILED_INIT)
VIGILO_LAZY(kCurl, const char*, curl_easy_strerror, (CURLcode code), (code), "libcurl isn't installed")
VIGILO_LAZY(kCurl, struct curl_slist*, curl_slist_append, (struct curl_slist * list, const char* data),
            (list, data), nullptr)
VIGILO_LAZY_VOID(kCurl, curl_slist_free_all, (struct curl_slist * list), (list))

// The variadic calls take one argument whose type follows from the
// option's number (libcurl's own rule), so it is read as that type and
// passed on.
CURLcode curl_easy_setopt(CURL* curl, CURLoption option, ...) {
  using Fn = CURLcode (*)(CURL*, CURLoption, ...);
  static const Fn fn = vigilo::lazy::symbol<&kCurl, Fn>("curl_easy_setopt");
  if (fn == nullptr) return CURLE_FAILED_INIT;
  va_list ap;
  va_start(ap, option);
  CURLcode result;
  if (option < CURLOPTTYPE_OBJECTPOINT) {
    result = fn(curl, option, va_arg(ap, long));
  } else if (option < CURLOPTTYPE_FUNCTIONPOINT) {
    result = fn(curl, option, va_arg(ap, void*));
  } else if (option < CURLOPTTYPE_OFF_T) {
    result = fn(curl, option, va_arg(ap, void (*)()));
  } else if (option < CURLOPTTYPE_BLOB) {
    result = fn(curl, option, va_arg(ap, curl_off_t));
  } else {
    result = fn(curl, option, va_arg(ap, void*));
  }
  va_end(ap);
  return result;
}

// Every piece of information is given back through a pointer.
CURLcode curl_easy_getinfo(CURL* curl, CURLINFO info, ...) {
  using Fn = CURLcode (*)(CURL*, CURLINFO, ...);
  static const Fn fn = vigilo::lazy::symbol<&kCurl, Fn>("curl_easy_getinfo");
  if (fn == nullptr) return CURLE_FAILED_INIT;
  va_list ap;
  va_start(ap, info);
  void* out = va_arg(ap, void*);
  va_end(ap);
  return fn(curl, info, out);
}

}  // extern "C"
