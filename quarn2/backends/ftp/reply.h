// What an FTP server answers, and what its answers mean.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "kro/kro_err.h"

namespace quarn2::ftp {

// One reply on the control connection.
struct Reply {
    std::string verb;  // of the command that it answers; "" for the greeting
    int code = 0;      // 0: none came
    std::string text;  // all its lines, joined by line feeds, without the code

    bool IsDone() const noexcept { return code >= 200 && code < 300; }
    bool IsRefusal() const noexcept { return code >= 400; }
};

// The replies of one transfer, in order, each with its command. Keeps no argument of any command: a
// password is one. A QUIT is left out: libcurl sends it on the previous connection.
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

  private:
    std::vector<Reply> replies_;
    std::string open_;  // the lines of a reply that is not yet complete
    bool is_leaving_ = false;
};

// The texts of FTP servers are free; these find the words that the usual ones use.
bool SaysMissing(std::string_view text);
bool SaysDenied(std::string_view text);
bool SaysTlsNeeded(std::string_view text);
// A listing that has succeeded is not the whole.
bool SaysTruncated(std::string_view text);

// The storage has no room: by the code, or by the text where the code tells nothing.
bool IsFull(const Reply& reply);

// The server does not accept the data connection of a transfer.
bool RefusesDataConnection(const Reply& reply) noexcept;

// The command is not known or not supported.
bool IsUnknownCommand(const Reply& reply) noexcept;

// What a refusal means for a caller, unless the command gives it a narrower meaning.
kro_err::Kind KindOf(const Reply& reply) noexcept;

}  // namespace quarn2::ftp
