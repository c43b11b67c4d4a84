// What an FTP server answers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quarn2::ftp {

// One reply on the control connection.
struct Reply {
    std::string verb;  // of the command that it answers; "" for the greeting
    int code = 0;      // 0: none came
    std::string text;  // all its lines, joined by line feeds, without the code
    // The text of a refusal without the login and the paths of the last two commands. Only this one
    // may be searched for words, because names can contain any word.
    std::string words;

    bool IsDone() const noexcept { return code >= 200 && code < 300; }
    bool IsRefusal() const noexcept { return code >= 400; }
};

// The number in a reply to SIZE or AVBL; -1 when there is none.
std::int64_t NumberIn(const Reply& reply);

// The text with each of the names replaced by a blank, and each of their components, where it is no
// part of a longer word. Absolute paths are left out too.
std::string WithoutNames(std::string text, const std::vector<std::string>& names);

// The replies of one transfer, in order, each with its command. No reply contains an argument, and
// no password is kept. A QUIT is left out: libcurl sends it on the previous connection.
class Transcript {
  public:
    void Clear();
    // A line that was sent, and one that came.
    void Sent(std::string_view line);
    void Received(std::string_view line);

    const std::vector<Reply>& replies() const noexcept { return replies_; }
    // The last reply to that command, null when there was none.
    const Reply* Find(std::string_view verb) const noexcept;
    // The reply to what was sent last when it is a refusal, else null.
    const Reply* Refusal() const noexcept;
    // What came last names the port of a data connection.
    bool TellsPort() const noexcept;
    // What came last announces a transfer.
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
