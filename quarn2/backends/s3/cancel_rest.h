// For requests whose results lie on the caller's stack.
#pragma once

#include "net/http_client.h"

namespace quarn2::s3 {

// Breaks off what still runs when the scope is left. To be declared behind everything that the
// requests refer to.
class CancelRest {
  public:
    explicit CancelRest(net::HttpClient& client) : client_(client) {}
    ~CancelRest() { client_.Cancel(); }
    CancelRest(const CancelRest&) = delete;
    CancelRest& operator=(const CancelRest&) = delete;

  private:
    net::HttpClient& client_;
};

}  // namespace quarn2::s3
