#include "storage/outage.h"

#include <string>

namespace quarn2 {

void Outage::Count(const FileError& result, std::size_t at_once) {
    constexpr std::size_t kMoreThanAtOnce = 2;
    if (!result || result->kind() != kro_err::Kind::kUnavailable) {
        in_row_ = 0;
        return;
    }
    if (++in_row_ < at_once + kMoreThanAtOnce || rest_) return;
    rest_ =
        kro_err::Error(kro_err::Kind::kUnavailable,
                       std::string("not attempted after several failures in a row; last error: ") +
                           result->what());
}

}  // namespace quarn2
