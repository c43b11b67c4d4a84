// The protocol of the master link between the server and a node client.
//
// The server sends frames. A frame is the length of a text, as a 32-bit integer in the byte order
// of the machine, and the text. The first frame is the name of the storage, the second is the
// token. Each later frame is the answer to a command: "OK", "OK NUMBER" or "ERR REASON".
//
// The node client sends commands, one line each:
//   RESERVE BYTES                 reserves space; the answer's number is the number of evictions
//                                 that uploads may request
//   COMPLETE USER DATE TYPE SIZE  the backup is complete; the answer is the same as to RESERVE
//   DROPONE NUMBER                evicts backups of users that have more than NUMBER backups
//   RELEASE BYTES                 releases reserved space
#pragma once

#include <cstdint>
#include <string>

std::string FormatFrame(const std::string& text);

// Reads one frame and returns its text. Throws std::runtime_error when the frame is incomplete.
std::string ReadFrame(int fd);

// Format the commands, including the line feed. `size` is the text of the size in the info file.
// The server parses and validates it.
std::string FormatReserve(std::int64_t bytes);
std::string FormatComplete(const std::string& user, const std::string& date,
                           const std::string& type, const std::string& size);
std::string FormatDropOne(std::int32_t count);
std::string FormatRelease(std::int64_t bytes);

struct LinkCommand {
    enum class Word { kReserve, kComplete, kDropOne, kRelease, kUnknown };

    Word word = Word::kUnknown;
    std::int64_t bytes = 0;  // never negative; for COMPLETE the size of the backup
    std::int32_t count = 0;  // set only for DROPONE
    std::string user;        // this and the following members are set only for COMPLETE
    std::string date;
    std::string type;

    bool operator==(const LinkCommand&) const = default;
};

// Parses one line, without its line feed. Throws std::runtime_error or kro_err::Error when an
// argument is not a number, when a size is negative, or when user and date cannot be part of a
// path.
LinkCommand ParseLinkCommand(std::string line);

std::string FormatOk();
std::string FormatOk(std::int32_t number);
std::string FormatRefusal(const std::string& reason);

struct LinkAnswer {
    bool is_ok = false;
    std::string text;  // the number, or the reason of a refusal
};

LinkAnswer ParseLinkAnswer(std::string answer);
