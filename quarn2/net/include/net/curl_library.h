// The functions of libcurl, which the program loads when it is first needed. Only quarn2/net and
// the FTP storage call libcurl.
#pragma once

#include <curl/curl.h>

namespace quarn2::net {

struct CurlLibrary {
    decltype(&::curl_easy_init) easy_init;
    decltype(&::curl_easy_cleanup) easy_cleanup;
    decltype(&::curl_easy_setopt) easy_setopt;
    decltype(&::curl_easy_getinfo) easy_getinfo;
    decltype(&::curl_easy_strerror) easy_strerror;
    decltype(&::curl_multi_init) multi_init;
    decltype(&::curl_multi_cleanup) multi_cleanup;
    decltype(&::curl_multi_setopt) multi_setopt;
    decltype(&::curl_multi_add_handle) multi_add_handle;
    decltype(&::curl_multi_remove_handle) multi_remove_handle;
    decltype(&::curl_multi_perform) multi_perform;
    decltype(&::curl_multi_poll) multi_poll;
    decltype(&::curl_multi_info_read) multi_info_read;
    decltype(&::curl_multi_strerror) multi_strerror;
    decltype(&::curl_slist_append) slist_append;
    decltype(&::curl_slist_free_all) slist_free_all;
};

// Loads and initialises libcurl at the first call and returns it. If libcurl cannot be loaded,
// throws kFailed with the name of the package to install.
const CurlLibrary& Curl();

}  // namespace quarn2::net
