// The protocol of the control socket. The commands of a backup job send requests over this socket
// to the node client of their machine.
//
// A connection carries one command and its answer. After its text, each side shuts down its
// direction of the connection. A command is a word and a path:
//   PUT PATH [DELETE]      uploads a file in the background; DELETE: removes the file afterwards
//   PUTLAST PATH [DELETE]  uploads the last file of a backup
//   DELETE PATH            deletes the backup of an info file
//   DELETEALL PATH         deletes that backup and the backups that depend on it
// The answer is "OK", and for PUT and PUTLAST "OK INFO" (see Storage::GetFileInfo). The
// answer to an unknown word is "OK". After a failed command, the node client closes the connection
// without an answer.
#pragma once

#include <sys/un.h>

#include <string>

// The control socket of a storage's node client, relative to the install root.
std::string ControlSocketPath(const std::string& storage);

// True when a socket's address has room for the path and a terminating NUL byte.
bool FitsControlAddress(const std::string& path) noexcept;

// The address at which the node client listens. Throws std::runtime_error when the path does not
// fit.
sockaddr_un AddressToListen(const std::string& path);

// The address to which a command connects. It contains at most the first 108 bytes of the path. No
// node client listens at a longer path.
sockaddr_un AddressToConnect(const std::string& path) noexcept;

struct ControlCommand {
    enum class Word { kPut, kPutLast, kDelete, kDeleteAll, kUnknown };

    Word word = Word::kUnknown;
    std::string path;
    bool removes_file = false;  // set only for PUT and PUTLAST

    bool operator==(const ControlCommand&) const = default;
};

// `command.word` must not be kUnknown.
std::string FormatControlCommand(const ControlCommand& command);

// Throws std::runtime_error for a text with a NUL byte: the system would end the path there, but
// the stored name would continue after it.
ControlCommand ParseControlCommand(std::string text);

std::string FormatControlAnswer(const std::string& info = "");

struct ControlAnswer {
    std::string status;  // "OK"; empty when the command failed
    std::string info;
};

ControlAnswer ParseControlAnswer(std::string answer);
