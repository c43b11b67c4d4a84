// A guard that cancels requests whose results refer to local variables.
#pragma once

#include "net/http_client.h"

namespace quarn2::s3 {

// Cancels all running requests of the client at the end of the scope. Declare the guard after every
// local variable that the requests refer to.
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
