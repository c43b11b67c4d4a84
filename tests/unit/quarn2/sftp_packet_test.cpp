// The packets of SFTP, and the handling of invalid packets.
#include <gmock/gmock.h>

#include "backends/sftp/packet.h"
#include "backends/sftp/session.h"
#include "sftp_fake_server.h"
#include "storage_site.h"

namespace {

using fake_sftp::Disk;
using fake_sftp::Server;
using fake_sftp::Text;
using kro_err::Kind;
using quarn2::sftp::Code;
using quarn2::sftp::Fields;
using quarn2::sftp::Reply;
using quarn2::sftp::Request;
using quarn2::sftp::Session;
using quarn2::sftp::Type;
using testing::HasSubstr;
using testing::Optional;

std::string Bytes(std::initializer_list<int> values) {
    std::string bytes;
    for (const int value : values) bytes += static_cast<char>(value);
    return bytes;
}

std::span<const std::byte> View(const std::string& text) { return std::as_bytes(std::span(text)); }

template <class Action>
std::string TextOf(const Action& action) {
    try {
        action();
    } catch (const kro_err::Error& error) {
        return error.what();
    }
    return "nothing was thrown";
}

TEST(SftpRequest, HasLengthTypeIdAndFields) {
    Request request(Type::kRead);
    request.Text("h1").U64(0x0102030405060708).U32(9);
    EXPECT_EQ(Text(request.Finish(7)), Bytes({0,   0, 0, 23, 5, 0, 0, 0, 7, 0, 0, 0, 2, 'h',
                                              '1', 1, 2, 3,  4, 5, 6, 7, 8, 0, 0, 0, 9}));
}

TEST(SftpRequest, CountsTheDataThatFollows) {
    EXPECT_EQ(Text(Request(Type::kWrite).Finish(1, 256)), Bytes({0, 0, 1, 5, 6, 0, 0, 0, 1}));
}

TEST(SftpFields, ReadWhatWasWritten) {
    Request request(Type::kData);
    request.U32(5).U64(1ULL << 40U).Text(std::string("a\0\xff", 3));
    Fields fields(request.Finish(0).subspan(9));
    EXPECT_EQ(fields.U32(), 5U);
    EXPECT_EQ(fields.U64(), 1ULL << 40U);
    EXPECT_EQ(fields.Text(), std::string("a\0\xff", 3));
    EXPECT_TRUE(fields.empty());
}

TEST(SftpFields, RefuseWhatEndsEarly) {
    for (const std::string& bytes : {Bytes({}), Bytes({0, 0, 0}), Bytes({0, 0, 0, 2, 'a'}),
                                     Bytes({255, 255, 255, 255, 'a'})}) {
        EXPECT_THAT(KindOf([&] { Fields(View(bytes)).Text(); }), Optional(Kind::kFailed));
    }
    EXPECT_THAT(KindOf([] { Fields({}).U8(); }), Optional(Kind::kFailed));
    EXPECT_THAT(KindOf([] { Fields({}).U64(); }), Optional(Kind::kFailed));
}

TEST(SftpFields, ReadAttributesOfEveryKind) {
    Request all(Type::kAttrs);
    all.U32(0x8000000f).U64(5).U32(1).U32(2).U32(0120777).U32(3).U32(4);
    all.U32(1).Text("name").Text("value").U32(99);
    Fields fields(all.Finish(0).subspan(9));
    const auto attributes = fields.Attrs();
    EXPECT_THAT(attributes.size, Optional(5U));
    EXPECT_THAT(attributes.mtime, Optional(4U));
    EXPECT_TRUE(attributes.IsLink());
    EXPECT_FALSE(attributes.IsFile());
    EXPECT_FALSE(attributes.IsDirectory());
    EXPECT_EQ(fields.U32(), 99U) << "nothing more was taken";
}

TEST(SftpFields, RefuseEndlessExtendedAttributes) {
    const std::string bytes = Bytes({128, 0, 0, 0, 255, 255, 255, 255});
    EXPECT_THAT(KindOf([&] { Fields(View(bytes)).Attrs(); }), Optional(Kind::kFailed));
}

// --- The session ---

struct Talk {
    explicit Talk(std::size_t piece = 1 << 20) {
        auto stream = std::make_unique<Server>(disk, piece);
        server = stream.get();
        session = std::make_unique<Session>(std::move(stream));
    }
    std::uint32_t Look(const std::string& path) const {
        return session->Send(std::move(Request(Type::kLstat).Text(path)));
    }

    Disk disk;
    Server* server;
    std::unique_ptr<Session> session;
};

TEST(SftpSession, TakesAnswersInPiecesOfAnySize) {
    for (const std::size_t piece : {1U, 2U, 3U, 7U, 1000U}) {
        const Talk talk(piece);
        EXPECT_EQ(talk.session->Wait(talk.Look("/root")).type, Type::kAttrs);
        EXPECT_EQ(talk.session->WaitStatus(talk.Look("/no")).code, Code::kNoSuchFile);
    }
}

TEST(SftpSession, GivesEachRequestItsOwnAnswer) {
    const Talk talk;
    const std::uint32_t first = talk.Look("/root");
    const std::uint32_t second = talk.Look("/no");
    const std::uint32_t third = talk.Look("/root");
    talk.session->Forget(first);
    EXPECT_EQ(talk.session->Wait(third).type, Type::kAttrs);
    EXPECT_EQ(talk.session->WaitStatus(second).code, Code::kNoSuchFile);
}

TEST(SftpSession, UsesNothingThatTheServerDoesNotOffer) {
    const Talk talk;
    EXPECT_FALSE(talk.session->Supports("fsync@openssh.com"));
    EXPECT_EQ(talk.session->read_size(), 32U * 1024);
    EXPECT_EQ(talk.disk.requests, std::vector<Type>{Type::kInit});
}

TEST(SftpSession, RefusesAnAnswerThatNobodyAskedFor) {
    const Talk talk;
    talk.server->Say(Text(Request(Type::kStatus).U32(0).Finish(77)));
    EXPECT_THAT(TextOf([&] { talk.session->Wait(talk.Look("/root")); }),
                HasSubstr("a reply without a request"));
    EXPECT_TRUE(talk.session->broken());
}

TEST(SftpSession, RefusesTheSameAnswerTwice) {
    const Talk talk;
    const std::uint32_t id = talk.Look("/root");
    talk.session->Wait(id);
    talk.server->Say(Text(Request(Type::kStatus).U32(0).Finish(id)));
    EXPECT_THAT(KindOf([&] { talk.session->Next(); }), Optional(Kind::kFailed));
}

TEST(SftpSession, RefusesAPacketThatIsTooLongOrEmpty) {
    for (const std::string& bytes :
         {Bytes({127, 255, 255, 255}), Bytes({0, 8, 0, 1}), Bytes({0, 0, 0, 0}),
          std::string("Welcome to the server!\n")}) {
        const Talk talk;
        talk.server->Say(bytes);
        EXPECT_THAT(TextOf([&] { talk.session->Wait(talk.Look("/root")); }),
                    HasSubstr("violated the protocol"));
        EXPECT_TRUE(talk.session->broken());
    }
}

TEST(SftpSession, RefusesAnAnswerWithoutAnId) {
    const Talk talk;
    talk.server->Say(Bytes({0, 0, 0, 3, 101, 0, 0}));
    EXPECT_THAT(KindOf([&] { talk.session->Wait(talk.Look("/root")); }), Optional(Kind::kFailed));
    EXPECT_TRUE(talk.session->broken());
}

TEST(SftpSession, RefusesAnAnswerOfAnotherKind) {
    const Talk talk;
    EXPECT_THAT(TextOf([&] { talk.session->WaitStatus(talk.Look("/root")); }),
                HasSubstr("an unexpected reply of type 105"));
}

TEST(SftpSession, IsBrokenWhenTheConnectionIs) {
    Talk talk;
    talk.disk.requests_left = 0;
    const quarn2::sftp::Session& session = *talk.session;
    EXPECT_FALSE(session.broken());
    EXPECT_THAT(KindOf([&] { talk.Look("/root"); }), Optional(Kind::kUnavailable));
    EXPECT_TRUE(session.broken());
}

TEST(SftpSession, EscapesWhatTheServerSays) {
    EXPECT_EQ(quarn2::sftp::Describe({Code::kFailure, "x\x1b[2Jy"}),
              "the server reported 'x\\x1b[2Jy'");
}

// A stream that contains the greeting that the test supplies.
class Greeter final : public quarn2::sftp::Stream {
  public:
    explicit Greeter(std::string text) : text_(std::move(text)) {}
    void Write(std::span<const std::byte> /*bytes*/) override {}
    std::size_t Read(std::span<std::byte> buffer, int /*extra_seconds*/) override {
        if (text_.empty()) throw kro_err::Error(Kind::kUnavailable, "closed");
        buffer[0] = static_cast<std::byte>(text_.front());
        text_.erase(0, 1);
        return 1;
    }
    void CheckAlive() override {}

  private:
    std::string text_;
};

TEST(SftpSession, RefusesAStrangeGreeting) {
    const auto greet = [](const std::string& text) {
        return KindOf([&text] { Session session(std::make_unique<Greeter>(text)); });
    };
    EXPECT_EQ(greet(Bytes({0, 0, 0, 5, 2, 0, 0, 0, 3})), std::nullopt);
    EXPECT_THAT(greet(Bytes({0, 0, 0, 5, 2, 0, 0, 0, 6})), Optional(Kind::kFailed));
    EXPECT_THAT(greet(Bytes({0, 0, 0, 5, 1, 0, 0, 0, 3})), Optional(Kind::kFailed));
    EXPECT_THAT(greet(Bytes({0, 0, 0, 9, 2, 0, 0, 0, 3, 0, 0, 0, 9})), Optional(Kind::kFailed));
    EXPECT_THAT(greet("This account is locked.\n"), Optional(Kind::kFailed));
    EXPECT_THAT(greet(""), Optional(Kind::kUnavailable));
}

}  // namespace
