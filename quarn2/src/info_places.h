// Where a backup's info file may lie.
#pragma once

#include <string>
#include <vector>

namespace quarn2 {

// The paths that GetInfoFile tries, in this order.
std::vector<std::string> InfoPlaces(const std::string& directory, const std::string& user,
                                    const std::string& date);

}  // namespace quarn2
