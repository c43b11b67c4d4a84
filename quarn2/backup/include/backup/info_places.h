// The possible paths of a backup's info file.
#pragma once

#include <string>
#include <vector>

namespace quarn2 {

// Returns the paths at which GetInfoFile searches for the info file, in the order of the search.
std::vector<std::string> InfoPlaces(const std::string& directory, const std::string& user,
                                    const std::string& date);

}  // namespace quarn2
