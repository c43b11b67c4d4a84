// The possible paths of a backup's info file.
#pragma once

#include <string>
#include <vector>

namespace quarn2 {

// Returns the paths that GetInfoFile tries, in this order.
std::vector<std::string> InfoPlaces(const std::string& directory, const std::string& user,
                                    const std::string& date);

}  // namespace quarn2
