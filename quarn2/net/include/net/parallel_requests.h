// Sends several HTTP requests in parallel and reports the first error.
#pragma once

#include <cstddef>
#include <exception>
#include <functional>

#include "net/http_client.h"

namespace quarn2::net {

// Sends requests in parallel. After a request has failed, starts no further requests, but waits for
// the running requests, because the server may execute them anyway. The destructor cancels the
// requests that are still running. While the object exists, other code may use the client only with
// HttpClient::Do.
class ParallelRequests {
  public:
    // Checks the result of a request. Throws if the request has failed.
    using Check = std::function<void(const HttpResult&)>;

    // At most `at_once` requests run at the same time.
    ParallelRequests(HttpClient& client, std::size_t at_once)
        : client_(client), at_once_(at_once) {}
    ~ParallelRequests() { client_.Cancel(); }
    ParallelRequests(const ParallelRequests&) = delete;
    ParallelRequests& operator=(const ParallelRequests&) = delete;

    // Sends a request as soon as fewer than `at_once` requests are running. If a request has failed
    // before, waits for the running requests and throws the first error.
    void Start(HttpRequest request, Check check);
    // Waits until all requests have ended. Throws the first error.
    void Finish();

  private:
    HttpClient& client_;
    std::size_t at_once_;
    std::exception_ptr error_;
};

}  // namespace quarn2::net
