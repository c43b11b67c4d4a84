// Parses the replies of FTP servers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quarn2::ftp {

// One reply on the control connection.
struct Reply {
    std::string verb;  // of the command that it answers; "" for the greeting
    int code = 0;      // 0: no reply came
    std::string text;  // all its lines, joined by line feeds, without the code
    // The text of a refusal without the login and the paths of the last two commands. Only this
    // text may be searched for phrases, because names can contain any word.
    std::string words;

    bool IsDone() const noexcept { return code >= 200 && code < 300; }
    bool IsRefusal() const noexcept { return code >= 400; }
};

// Returns the number in a reply to SIZE or AVBL, -1 if there is none.
std::int64_t NumberIn(const Reply& reply);

// Returns the text with each name, and each component of a name, replaced by a blank unless it is
// part of a longer word. Absolute paths are removed, too.
std::string WithoutNames(std::string text, const std::vector<std::string>& names);

// Records the replies of one transfer, in order, each with the verb of its command. The arguments
// of commands are not recorded, and no password is kept. QUIT and its reply are ignored because
// libcurl sends QUIT on the previous connection.
class Transcript {
  public:
    void Clear();
    // Record a line that was sent, and one that was received.
    void Sent(std::string_view line);
    void Received(std::string_view line);

    const std::vector<Reply>& replies() const noexcept { return replies_; }
    // Returns the last reply to that command, null if there was none.
    const Reply* Find(std::string_view verb) const noexcept;
    // Returns the reply to the last command if it is a refusal, else null.
    const Reply* Refusal() const noexcept;
    // True if the last reply contains the port of a data connection.
    bool TellsPort() const noexcept;
    // True if the last reply announces the start of a transfer.
    bool SaysBegun() const noexcept;

  private:
    std::vector<Reply> replies_;
    std::string open_;  // the lines of a reply that is not yet complete
    bool is_leaving_ = false;
    std::string login_;  // kept by Clear: a later transfer may use the connection
    std::string argument_;
    std::string previous_argument_;
};

}  // namespace quarn2::ftp
