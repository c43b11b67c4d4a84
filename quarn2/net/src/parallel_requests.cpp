#include "net/parallel_requests.h"

#include <utility>

namespace quarn2::net {

void ParallelRequests::Start(HttpRequest request, Check check) {
    while (!error_ && client_.running() >= at_once_) client_.Wait();
    if (error_) Finish();
    client_.Start(std::move(request), [this, check = std::move(check)](const HttpResult& result) {
        try {
            check(result);
        } catch (...) {
            if (!error_) error_ = std::current_exception();
        }
    });
}

void ParallelRequests::Finish() {
    while (client_.running() > 0) client_.Wait();
    if (error_) std::rethrow_exception(error_);
}

}  // namespace quarn2::net
