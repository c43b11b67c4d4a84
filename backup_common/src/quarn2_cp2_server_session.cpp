#include "quarn2_cp2_server_session.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "kro/kro_env.h"
#include "kro/kro_log.h"
#include "kro/str.h"
#include "quarn2/token.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr std::size_t kReadPiece = 32;
// Limits the memory that a client can use. Commands are much shorter, so a client that sends a
// longer line is faulty.
constexpr std::size_t kMaxLineBytes = 65536;
// Limits the answers that a client has not read. A correct client waits for each answer before its
// next command.
constexpr std::size_t kMaxUnreadBytes = 1U << 20;

}  // namespace

std::shared_ptr<MasterSide> MasterSide::Create(const std::string& first,
                                               GlobalSizeControl::StorageDesc& storage,
                                               std::string node, quarn2::Expect& loop,
                                               std::shared_ptr<kro_args::Result> args) {
    KRO_LOG(kLog, 8, "%s ", "Create");
    std::string description = node;
    auto session = std::make_shared<MasterSide>(
        storage, loop, NodeClientCommand(std::move(node), args->Param("ssh-key", -1)));
    session->node_ = str::GetWord(description, ":");
    session->Start();
    session->SaveResult(first);
    const std::string token = kro_env::GetEnv("BACKUP_TOKEN");
    KRO_LOG(kLog, 8, "%s result = '%s'", "SaveResult", quarn2::BackupToken(token).Str().c_str());
    session->Queue(token);
    loop.Add(session->read_, POLLIN, session, &MasterSide::Read);
    loop.Add(session->write_, POLLOUT, session, &MasterSide::Write);
    return session;
}

MasterSide::MasterSide(GlobalSizeControl::StorageDesc& storage, quarn2::Expect& loop,
                       const std::vector<std::string>& command)
    : storage_(storage),
      loop_(loop),
      client_(std::make_unique<ClientProcess>(command)),
      is_remote_(client_->is_remote()),
      own_reserved_(storage, is_remote_) {}

MasterSide::~MasterSide() { Close(); }

void MasterSide::Start() {
    ClientProcess::Pipes pipes = client_->Start();
    Attach(std::move(pipes.from_client), std::move(pipes.to_client));
}

std::unique_ptr<ClientProcess> MasterSide::Close() {
    is_open_ = false;
    own_reserved_.ReleaseAll();
    write_.Close();
    // Keeps the client's output pipe open but does not read it. A client that requests space now
    // must find the end of its input instead of a broken output pipe. After a failed write, the
    // client would treat the upload as refused and remove its local file.
    loop_.SetEvents(read_, 0);
    if (client_) client_->KeepOutput(std::exchange(read_, ResHandle()));
    return std::move(client_);
}

void MasterSide::Attach(ResHandle read, ResHandle write) {
    read_ = std::move(read);
    write_ = std::move(write);
}

void MasterSide::SaveResult(const std::string& message) {
    KRO_LOG(kLog, 8, "%s result = '%s'", "SaveResult", message.c_str());
    Queue(message);
}

void MasterSide::Queue(const std::string& message) {
    if (write_buffer_.empty()) loop_.SetEvents(write_, POLLOUT);
    write_buffer_ += FormatFrame(message);
}

quarn2::Expect::Result* MasterSide::Read(ResHandle handle) {
    KRO_LOG(kLog, 8, "quarn2::Expect::Result* MasterSide::Read(ResHandle)");
    pollfd state{handle, POLLIN, 0};
    poll(&state, 1, 0);
    if ((state.revents & POLLHUP) != 0) return Disconnected();
    switch (ReadAvailable(handle)) {
        case Reading::kMore:
            break;
        // The client has ended since the poll above.
        case Reading::kEnd:
            return Disconnected();
        case Reading::kFailed:
            return Closed();
    }
    KRO_LOG(kLog, 9, "%s:%d m_read = '%s'", kServerSource, __LINE__, m_read.c_str());
    ProcessLines();
    KRO_LOG(kLog, 9, "%s:%d m_read = '%s'", kServerSource, __LINE__, m_read.c_str());
    if (m_read.size() > kMaxLineBytes) {
        KRO_LOG(kLog, 4, "Client sent a line of more than %zu bytes. Close", kMaxLineBytes);
        return Closed();
    }
    if (write_buffer_.size() > kMaxUnreadBytes) {
        KRO_LOG(kLog, 4, "Client has not read more than %zu bytes of answers. Close",
                kMaxUnreadBytes);
        return Closed();
    }
    return quarn2::Expect::erOk;
}

quarn2::Expect::Result* MasterSide::Disconnected() {
    KRO_LOG(kLog, 4, "Client disconnected. Close");
    return Closed();
}

quarn2::Expect::Result* MasterSide::Closed() {
    is_open_ = false;
    own_reserved_.ReleaseAll();
    return quarn2::Expect::erClose;
}

MasterSide::Reading MasterSide::ReadAvailable(int fd) {
    char piece[kReadPiece];
    for (;;) {
        const ssize_t count = read(fd, piece, sizeof piece);
        if (count == 0) return Reading::kEnd;
        if (count < 0) return errno == EAGAIN ? Reading::kMore : Reading::kFailed;
        m_read.append(piece, static_cast<std::size_t>(count));
        // A client that writes without a pause must not block the other clients or grow the buffer.
        if (m_read.size() > kMaxLineBytes) return Reading::kMore;
    }
}

void MasterSide::ProcessLines() {
    std::size_t begin = 0;
    for (std::size_t end = m_read.find('\n'); end != std::string::npos;
         end = m_read.find('\n', begin)) {
        ProcessCommand(m_read.substr(begin, end - begin));
        begin = end + 1;
    }
    m_read.erase(0, begin);
}

quarn2::Expect::Result* MasterSide::Write(ResHandle handle) {
    KRO_LOG(kLog, 8, "quarn2::Expect::Result* MasterSide::Write(ResHandle)");
    while (!write_buffer_.empty()) {
        const ssize_t count = write(handle, write_buffer_.data(), write_buffer_.size());
        if (count < 0) return errno == EAGAIN ? quarn2::Expect::erOk : Closed();
        write_buffer_.erase(0, static_cast<std::size_t>(count));
    }
    return quarn2::Expect::erSuspend;
}
