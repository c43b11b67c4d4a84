#include "quarn2_cp2_misc_attempts.h"

#include "kro/kro_log.h"
#include "kro/kro_proc.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr int kMaxAttempts = 3;
constexpr int kPauseSeconds = 60;
constexpr int kMillisecondsPerSecond = 1000;

}  // namespace

std::optional<FailedTransfer> RunAttempts(
    const std::string& failure, const std::function<void()>& transfer,
    const std::function<bool(const kro_err::Error&)>& may_retry) {
    for (int attempt = 1;; ++attempt) {
        try {
            transfer();
            return std::nullopt;
        } catch (const kro_err::Error& error) {
            FailedTransfer failed{error.kind(), error.what(), std::current_exception()};
            if (error.kind() == kro_err::Kind::kUnauthorized || !may_retry(error)) return failed;
            KRO_LOG(kLog, 4, "%s. What: %s. Attempt: %d of %d", failure.c_str(), error.what(),
                    attempt, kMaxAttempts);
            if (attempt == kMaxAttempts) return failed;
        }
        KRO_LOG(kLog, 6, "Wait %d seconds before next attempt", kPauseSeconds);
        kro_proc::Sleep(kPauseSeconds * kMillisecondsPerSecond);
    }
}
