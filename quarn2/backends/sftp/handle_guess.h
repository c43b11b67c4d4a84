// Predicts the handle that a server will assign to the next file.
#pragma once

#include <optional>
#include <set>
#include <string>

namespace quarn2::sftp {

// Many servers assign the lowest free handle, so that each upload of a session gets the same
// handle. If the last two uploads got the same handle, the next upload sends its data with this
// handle before the server has replied to the request that opens the file. This saves a round trip.
// A wrong guess does no harm: no other file is open for writing in the session, so the server
// refuses the data.
class HandleGuess {
  public:
    // Records the handle of a file that an upload has opened in `directory`.
    void Opened(const std::string& directory, const std::string& handle) {
        constexpr std::size_t kMaxDirectories = 256;
        repeats_ = handle == last_;
        last_ = handle;
        if (directories_.size() >= kMaxDirectories) directories_.clear();
        directories_.insert(directory);
    }
    // Records that a server has assigned another handle than predicted, or has refused requests
    // with the predicted handle. No more handles are predicted then.
    void SetWrong() { is_wrong_ = true; }
    // Records that `directory` may no longer exist.
    void Forget(const std::string& directory) { directories_.erase(directory); }

    // Returns the predicted handle of a new file in `directory`. Returns nullopt if no handle can
    // be predicted, or if no upload has used the directory before: the server may then refuse to
    // open the file, and the data would be sent in vain.
    std::optional<std::string> For(const std::string& directory) const {
        const bool is_known = repeats_ && !is_wrong_ && directories_.contains(directory);
        return is_known ? std::optional(last_) : std::nullopt;
    }

  private:
    std::string last_;
    std::set<std::string> directories_;
    bool repeats_ = false;
    bool is_wrong_ = false;
};

}  // namespace quarn2::sftp
