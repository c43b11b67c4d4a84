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
    library.Find("curl_easy_init", curl.easy_init);
    library.Find("curl_easy_cleanup", curl.easy_cleanup);
    library.Find("curl_easy_setopt", curl.easy_setopt);
    library.Find("curl_easy_getinfo", curl.easy_getinfo);
    library.Find("curl_easy_strerror", curl.easy_strerror);
    library.Find("curl_multi_init", curl.multi_init);
    library.Find("curl_multi_cleanup", curl.multi_cleanup);
    library.Find("curl_multi_setopt", curl.multi_setopt);
    library.Find("curl_multi_add_handle", curl.multi_add_handle);
    library.Find("curl_multi_remove_handle", curl.multi_remove_handle);
    library.Find("curl_multi_perform", curl.multi_perform);
    library.Find("curl_multi_poll", curl.multi_poll);
    library.Find("curl_multi_info_read", curl.multi_info_read);
    library.Find("curl_multi_strerror", curl.multi_strerror);
    library.Find("curl_slist_append", curl.slist_append);
    library.Find("curl_slist_free_all", curl.slist_free_all);
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
