#include "dir_sync.h"

#include <exception>
#include <utility>

namespace quarn2::sftp {

namespace {

const char* const kSync = "fsync@openssh.com";

}  // namespace

DirSync::~DirSync() {
    for (const std::uint32_t id : asked_) session_.Forget(id);
    if (session_.broken()) return;
    try {
        Close();
    } catch (const std::exception&) {
        session_.SetBroken();
    }
}

void DirSync::Open(const std::vector<std::string>& paths) {
    if (!session_.Supports(kSync)) return;
    for (const std::string& path : paths) {
        asked_.push_back(
            session_.Send(std::move(Request(Type::kOpen).Text(path).U32(kOpenRead).U32(0))));
    }
}

void DirSync::WaitForHandles() {
    for (const std::uint32_t id : std::exchange(asked_, {})) {
        Reply reply = session_.Wait(id);
        if (reply.type == Type::kHandle) handles_.push_back(reply.fields.Text());
    }
}

void DirSync::Sync() {
    for (const std::string& handle : handles_) {
        asked_.push_back(
            session_.Send(std::move(Request(Type::kExtended).Text(kSync).Text(handle))));
    }
    Close();
}

void DirSync::Finish() {
    for (const std::uint32_t id : std::exchange(asked_, {})) session_.Wait(id);
}

void DirSync::Abandon() {
    WaitForHandles();
    Close();
}

void DirSync::Close() {
    for (const std::string& handle : std::exchange(handles_, {})) {
        session_.Forget(session_.Send(std::move(Request(Type::kClose).Text(handle))));
    }
}

}  // namespace quarn2::sftp
