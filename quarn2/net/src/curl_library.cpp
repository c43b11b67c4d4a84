#include "net/curl_library.h"

#include "kro/kro_err.h"
#include "net/loaded_library.h"

namespace quarn2::net {

namespace {

CurlLibrary Load() {
    const LoadedLibrary library("libcurl.so.4", "libcurl4");
    CurlLibrary curl = {};
    decltype(&::curl_global_init) global_init = nullptr;
    library.Find("curl_global_init", global_init);
#define QUARN2_FIND(name) library.Find("curl_" #name, curl.name);
    QUARN2_CURL_FUNCTIONS(QUARN2_FIND)
#undef QUARN2_FIND
    if (global_init(CURL_GLOBAL_ALL) != CURLE_OK) {
        throw kro_err::Error(kro_err::Kind::kFailed, "libcurl cannot be initialised");
    }
    return curl;
}

}  // namespace

const CurlLibrary& Curl() {
    static const CurlLibrary library = Load();
    return library;
}

}  // namespace quarn2::net
