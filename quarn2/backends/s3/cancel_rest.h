// Cancels requests whose results are on the caller's stack.
#pragma once

#include "net/http_client.h"

namespace quarn2::s3 {

// Cancels all running requests of the client at the end of the scope. Declare it after every object
// that the requests refer to.
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
