// The functions of libcurl, which the program loads when it is first needed. Only quarn2/net and
// the FTP storage call libcurl.
#pragma once

#include <curl/curl.h>

namespace quarn2::net {

// The functions that the program uses, without the prefix "curl_" of their names.
#define QUARN2_CURL_FUNCTIONS(F) \
    F(easy_init)                 \
    F(easy_cleanup)              \
    F(easy_setopt)               \
    F(easy_getinfo)              \
    F(easy_strerror)             \
    F(multi_init)                \
    F(multi_cleanup)             \
    F(multi_setopt)              \
    F(multi_add_handle)          \
    F(multi_remove_handle)       \
    F(multi_perform)             \
    F(multi_poll)                \
    F(multi_info_read)           \
    F(multi_strerror)            \
    F(slist_append)              \
    F(slist_free_all)

struct CurlLibrary {
// NOLINTNEXTLINE(bugprone-macro-parentheses): `name` is the name of a member
#define QUARN2_CURL_MEMBER(name) decltype(&::curl_##name) name;
    QUARN2_CURL_FUNCTIONS(QUARN2_CURL_MEMBER)
#undef QUARN2_CURL_MEMBER
};

// Loads and initialises libcurl at the first call and returns it. If libcurl cannot be loaded,
// throws kFailed with the name of the package to install.
const CurlLibrary& Curl();

}  // namespace quarn2::net
