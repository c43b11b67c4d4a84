#include "kro/kro_thread.h"

#include "kro/kro_log.h"

namespace kro_thread {

namespace {

constexpr kro_log::Module kLog("main");

std::exception_ptr RunBody(const std::function<void()>& body) noexcept {
    try {
        body();
    } catch (const std::exception& error) {
        KRO_LOG(kLog, 3, "%s", error.what());
        return std::current_exception();
    } catch (...) {
        KRO_LOG(kLog, 3, "%s", "A thread ended with an unknown error");
        return std::current_exception();
    }
    return nullptr;
}

}  // namespace

Handle::Handle(std::function<void()> body)
    : thread_([this, work = std::move(body)] { failure_ = RunBody(work); }) {}

Handle::~Handle() {
    if (thread_.joinable()) thread_.join();
}

void Handle::Join() {
    if (thread_.joinable()) thread_.join();
    if (failure_) std::rethrow_exception(failure_);
}

}  // namespace kro_thread
