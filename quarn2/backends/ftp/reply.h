// Parses the replies of FTP servers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quarn2::ftp {

// A reply that the server sent on the control connection.
struct Reply {
    std::string verb;  // the verb of the command, such as "STOR"; "" for the greeting
    int code = 0;      // 0: the server has not replied
    std::string text;  // all lines of the reply, joined by line feeds, without the code
    // The text of a refusal without the user's name and the paths of the last two commands.
    // Searches for phrases must use this text, because a file name can contain any phrase.
    std::string words;

    bool IsDone() const noexcept { return code >= 200 && code < 300; }
    bool IsRefusal() const noexcept { return code >= 400; }
};

// Returns the number in a reply to SIZE or AVBL, or -1 if the reply contains no number.
std::int64_t NumberIn(const Reply& reply);

// Replaces each of the `names`, and each path component of a name, by a blank unless the name is
// part of a longer word. Also removes absolute paths.
std::string WithoutNames(std::string text, const std::vector<std::string>& names);

// Records the replies of one transfer in order, each with the verb of its command. Does not keep
// passwords. Ignores QUIT and its reply, because libcurl sends QUIT on the previous connection.
class Transcript {
  public:
    void Clear();
    // Sent records a command line that libcurl has sent, Received a reply line of the server.
    void Sent(std::string_view line);
    void Received(std::string_view line);

    const std::vector<Reply>& replies() const noexcept { return replies_; }
    // Returns the last reply to the command with this verb, or null if there is no such reply.
    const Reply* Find(std::string_view verb) const noexcept;
    // Returns the last reply if it is a refusal, else null.
    const Reply* Refusal() const noexcept;
    // Returns true if the last reply contains the port of a data connection.
    bool HasPort() const noexcept;
    // Returns true if the last reply announces the start of a transfer.
    bool IsTransferStart() const noexcept;

  private:
    std::vector<Reply> replies_;
    std::string open_;  // the lines received so far of an incomplete reply
    bool is_leaving_ = false;
    std::string login_;  // Clear keeps the user's name, because the login is not repeated
    std::string argument_;
    std::string previous_argument_;
};

}  // namespace quarn2::ftp
