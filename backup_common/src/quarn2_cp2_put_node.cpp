#include "quarn2_cp2_put_node.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "kro/kro_file.h"
#include "kro/kro_log.h"
#include "kro/kro_proc.h"
#include "kro/str.h"
#include "quarn2/info.h"
#include "quarn2/names.h"
#include "quarn2_cp2_ledger_markers.h"
#include "quarn2_cp2_misc.h"
#include "quarn2_cp2_misc_delete.h"
#include "quarn2_cp2_misc_events.h"
#include "quarn2_cp2_misc_identity.h"
#include "quarn2_cp2_misc_link.h"
#include "quarn2_cp2_misc_slices.h"
#include "quarn2_cp2_misc_storage.h"
#include "quarn2_cp2_put.h"

namespace {

constexpr kro_log::Module kLog("main");
constexpr int kBacklog = 5;
constexpr mode_t kSocketMode = 0600;
constexpr int kLookAtPeersMs = 1000;

ResHandle OpenControlSocket(const std::string& path) {
    ResHandle listening(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!listening) throw std::runtime_error("Failed to open socket");
    const sockaddr_un address = AddressToListen(path);
    kro_file::RemoveFile(path);
    // bind() creates the socket file with this mode minus the umask, so that no other user can
    // connect before the chmod() below.
    fchmod(listening, kSocketMode);
    if (bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("Failed to bind to '" + path + "' error " + str::Str(errno));
    }
    kro_file::Attrs(path, kSocketMode);
    if (listen(listening, kBacklog) != 0) throw std::runtime_error("Failed to listen");
    return listening;
}

bool IsInfo(const std::string& path) { return str::EndsWith(path, ".info"); }

}  // namespace

void CommandClient() {
    const std::string storage = NodeSide::GetResult();
    const std::string socket_path = ControlSocketPath(storage);
    SetOwnLedger(storage);
    MigrateMarkers(storage);
    KRO_LOG(kLog, 5, "Open control socket '%s'", socket_path.c_str());
    const ResHandle listening = OpenControlSocket(socket_path);
    kro_thread::SafeLock lock;
    quarn2::Expect loop;
    const auto node = std::make_shared<NodeSide>(lock, MasterLink{}, storage);
    node->AcceptIn(loop);
    loop.Add(listening, POLLIN, node);
    loop.Add(StandardInput(), POLLIN, std::make_shared<FinishOnClose>(lock));
    // Blocks the termination signals before the first upload thread starts, so that only the event
    // loop receives these signals.
    loop.Add(kro_proc::WatchTermination(), POLLIN, std::make_shared<FinishOnSignal>());
    while (!loop.Run(kLookAtPeersMs)) node->DisconnectSilentPeers();
}

NodeSide::NodeSide(kro_thread::SafeLock& lock, MasterLink link, const std::string& storage)
    : lock_(lock),
      link_(link),
      token_(GetResult(link.in)),
      storage_(OpenStorage(token_)),
      ledger_(storage, StorageIdentity(token_)) {
    KRO_LOG(kLog, 5, "Client. Backup token = '%s'", token_.Str().c_str());
}

NodeSide::~NodeSide() {
    try {
        for (auto& [key, upload] : uploads_) upload.Join();
    } catch (const std::exception&) {
        // Ignores the error of an upload, because no job waits for the upload any more. The
        // destructors of the thread handles wait for the remaining uploads.
    }
}

quarn2::Expect::Result* NodeSide::operator()(ResHandle listening) {
    KRO_LOG(kLog, 8, "quarn2::Expect::Result* NodeSide::operator()(ResHandle)");
    ResHandle connection(accept4(listening, nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection) return errno == EAGAIN ? quarn2::Expect::erOk : quarn2::Expect::erFinish;
    peers_.Add(*loop_, std::move(connection));
    return quarn2::Expect::erOk;
}

std::string NodeSide::Serve(std::string text) {
    const ControlCommand command = ParseControlCommand(std::move(text));
    switch (command.word) {
        case ControlCommand::Word::kPut:
        case ControlCommand::Word::kPutLast:
            return Put(command);
        case ControlCommand::Word::kDelete:
        case ControlCommand::Word::kDeleteAll:
            Delete(command.path, command.word == ControlCommand::Word::kDeleteAll);
            break;
        case ControlCommand::Word::kUnknown:
            break;
    }
    return FormatControlAnswer();
}

void NodeSide::Delete(const std::string& path, bool force) {
    DeleteWithDepends(storage_, path, force);
}

std::string NodeSide::Key(const std::string& path) { return BackupKey(path); }

std::string NodeSide::Put(const ControlCommand& command) {
    delete_after_ = command.removes_file;
    const std::string& path = command.path;
    const bool last = command.word == ControlCommand::Word::kPutLast;
    std::string info = storage_->GetFileInfo(path);
    std::string answer = FormatControlAnswer(info);
    const std::string remote = str::GetWord(info);
    str::GetWord(info);
    CheckSource(token_, remote, path);
    size_ = storage_->Size(path);
    // Checks the backup before the reservation, because a reservation may evict backups.
    if (last && IsInfo(path)) CheckComplete(path);
    Record record = RecordAndReserve(remote, path, info);
    KRO_LOG(kLog, 6, "PUT result: '%s'", answer.c_str());
    if (last) {
        PutLast(remote, path, std::move(record));
    } else {
        PutInBackground(remote, path, std::move(record));
    }
    return answer;
}

NodeSide::Record NodeSide::RecordAndReserve(const std::string& remote, const std::string& path,
                                            const std::string& key_hash) {
    Record record = IsInfo(path) ? nullptr : ledger_.Begin(remote, size_, key_hash);
    try {
        Reserve();
    } catch (const std::exception& error) {
        if (record) record->Refused();
        Event refused = EventOfFile(EventKind::kRefused, remote);
        refused.size = size_;
        refused.detail = remote + ": " + error.what();
        WriteEvent(std::move(refused));
        throw;
    }
    return record;
}

void NodeSide::Reserve() { max_count_ = str::Int(DoCommand(FormatReserve(size()))); }

void NodeSide::PutInBackground(const std::string& remote, const std::string& path, Record record) {
    Upload& upload = uploads_[Key(path)];
    upload.Join();
    upload = Upload(this, remote, path);
    upload.Run(std::move(record));
}

void NodeSide::JoinPrevious(const std::string& path) {
    const auto running = uploads_.find(Key(path));
    if (running == uploads_.end()) return;
    running->second.Join();
    uploads_.erase(running);
}

void NodeSide::CheckComplete(const std::string& info_path) {
    JoinPrevious(info_path);
    ledger_.CheckComplete(info_path, quarn2::GetInfo(info_path), *storage_);
}

void NodeSide::PutLast(const std::string& remote, const std::string& path, Record record) {
    JoinPrevious(path);
    Upload upload(this, remote, path);
    upload.PutLast(std::move(record));
    if (!IsInfo(path)) return;
    if (!upload.stored()) throw std::runtime_error("Failed upload");
    ReportComplete(path);
}

void NodeSide::ReportComplete(const std::string& info_path) {
    const std::string name = kro_file::Name(info_path);
    quarn2::InfoMap info = quarn2::GetInfo(info_path);
    max_count_ = str::Int(DoCommand(FormatComplete(quarn2::GetUserName(name), quarn2::GetDate(name),
                                                   info["type"], info["size"])));
    ledger_.Complete(info_path, info);
}

std::string NodeSide::DoCommand(const std::string& command) {
    const kro_thread::SafeSection section(lock_);
    KRO_LOG(kLog, 8, "%s command = %s", "DoCommand", command.c_str());
    if (write(link_.out, command.data(), command.size()) != static_cast<ssize_t>(command.size())) {
        throw CommandError("Failed to write data to server");
    }
    const LinkAnswer answer = ParseLinkAnswer(GetResult(link_.in));
    if (!answer.is_ok) throw CommandError(answer.text);
    return answer.text;
}

std::string NodeSide::GetResult(int fd) {
    KRO_LOG(kLog, 8, "static std::string NodeSide::GetResult()");
    return ReadFrame(fd);
}

std::int32_t NodeSide::UseOneEviction() noexcept {
    std::int32_t left = max_count_;
    while (left > 0 && !max_count_.compare_exchange_weak(left, left - 1)) {
    }
    return left - 1;
}
