// SFTP servers with endless directories.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "backends/sftp/download.h"
#include "backends/sftp/packet.h"
#include "backends/sftp/place.h"
#include "backends/sftp/session.h"
#include "backends/sftp/tree.h"
#include "bounds.h"
#include "kro/kro_err.h"
#include "quarn2_backend/storage_backend.h"
#include "sftp_fake_server.h"

namespace {

using quarn2::sftp::Code;
using quarn2::sftp::Fields;
using quarn2::sftp::Place;
using quarn2::sftp::Request;
using quarn2::sftp::Session;
using quarn2::sftp::Type;
using testing::HasSubstr;

constexpr std::uint32_t kDirectory = 040750;
constexpr std::uint32_t kFile = 0100640;

// A server that answers every read of a directory with the same names, so that directories are
// endless.
class EndlessServer final : public quarn2::sftp::Stream {
  public:
    // `once`: each directory ends after one answer.
    EndlessServer(std::vector<std::string> names, std::uint32_t mode, bool once)
        : names_(std::move(names)), mode_(mode), once_(once) {}

    void Write(std::span<const std::byte> bytes) override {
        Fields packet(bytes.subspan(4));
        const auto type = static_cast<Type>(packet.U8());
        id_ = packet.U32();
        Answer(type);
    }
    std::size_t Read(std::span<std::byte> buffer, int /*extra_seconds*/) override {
        const std::size_t count = std::min(buffer.size(), out_.size() - read_);
        std::copy_n(out_.begin() + static_cast<std::ptrdiff_t>(read_), count, buffer.begin());
        read_ += count;
        if (read_ == out_.size()) {
            out_.clear();
            read_ = 0;
        }
        return count;
    }
    void CheckAlive() override {}

  private:
    void Answer(Type type) {
        if (type == Type::kInit) {
            id_ = 3;
            return Send(Request(Type::kVersion));
        }
        if (type == Type::kStat || type == Type::kLstat) {
            return Send(std::move(Request(Type::kAttrs).U32(0x4).U32(kDirectory)));
        }
        if (type == Type::kOpenDir) {
            ended_ = false;
            return Send(std::move(Request(Type::kHandle).Text("handle")));
        }
        if (type == Type::kReadDir && !ended_) {
            ended_ = once_;
            return SendNames();
        }
        const Code code = type == Type::kReadDir ? Code::kEof : Code::kOk;
        Send(std::move(Request(Type::kStatus).U32(static_cast<std::uint32_t>(code)).Text("x")));
    }
    void SendNames() {
        Request answer(Type::kName);
        answer.U32(static_cast<std::uint32_t>(names_.size()));
        for (const std::string& name : names_) answer.Text(name).Text(name).U32(0x4).U32(mode_);
        Send(std::move(answer));
    }
    void Send(Request request) {
        const auto bytes = request.Finish(id_);
        out_.insert(out_.end(), bytes.begin(), bytes.end());
    }

    std::vector<std::string> names_;
    std::uint32_t mode_;
    bool once_;
    bool ended_ = false;
    std::uint32_t id_ = 0;
    std::vector<std::byte> out_;
    std::size_t read_ = 0;
};

class HostileSftp : public testing::Test {
  protected:
    static std::unique_ptr<Session> Connect(const std::vector<std::string>& names,
                                            std::uint32_t mode, bool once = false) {
        return std::make_unique<Session>(std::make_unique<EndlessServer>(names, mode, once));
    }
    static std::string ErrorOf(const std::function<void()>& operation) {
        const Bounds bounds;
        return ::ErrorOf(operation);
    }

    Place place_{"/root"};
};

TEST_F(HostileSftp, NamesWithoutEnd) {
    for (const std::string& name : {std::string("n"), std::string(200, 'n')}) {
        const auto session = Connect(std::vector<std::string>(100, name), kFile);
        EXPECT_THAT(ErrorOf([&] { quarn2::sftp::ListSizes(*session, place_, ""); }),
                    HasSubstr("the listing is too long: more than 1000000 names or 128 MiB"));
    }
}

TEST_F(HostileSftp, AnswersWithoutNamesAndWithoutEnd) {
    const auto session = Connect({}, kFile);
    EXPECT_THAT(ErrorOf([&] { quarn2::sftp::ListSizes(*session, place_, ""); }),
                HasSubstr("the listing is too long: more than 1000000 names or 128 MiB"));
}

// The server answers with one byte at a time and in reverse order. So each byte needs a request and
// a place in the queue until the first byte arrives.
TEST_F(HostileSftp, FileInEverSmallerPieces) {
    struct Nowhere final : quarn2::ByteSink {
        void Write(std::span<const std::byte> /*bytes*/) override {}
    } sink;
    fake_sftp::Disk disk;
    disk.files = {{"/root/file", std::string(8UL * 1024 * 1024, 'x')}};
    disk.longest_read = 1;
    disk.backwards = true;
    Session session(std::make_unique<fake_sftp::Server>(disk));
    bool started = false;
    EXPECT_THAT(ErrorOf([&] { quarn2::sftp::Download(session, place_, "file", sink, started); }),
                HasSubstr("too many short replies to read requests"));
}

TEST_F(HostileSftp, DirectoriesWithoutEndDownwards) {
    const auto session = Connect({"deeper"}, kDirectory, true);
    EXPECT_THAT(ErrorOf([&] { quarn2::sftp::Clear(*session, place_); }),
                HasSubstr("more than 200 levels of directories"));
}

TEST_F(HostileSftp, DirectoriesWithoutEndAndManyOnEachLevel) {
    const auto session = Connect({"a", "b", "c", "d", "e", "f", "g", "h"}, kDirectory, true);
    EXPECT_THAT(ErrorOf([&] { quarn2::sftp::Clear(*session, place_); }),
                HasSubstr("more than 200 levels of directories"));
}

}  // namespace
