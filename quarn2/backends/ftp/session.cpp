#include "session.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

#include "base/percent.h"
#include "kro/kro_err.h"
#include "kro/str.h"
#include "meaning.h"

namespace quarn2::ftp {

namespace {

using kro_err::Error;
using kro_err::Kind;
using net::ServerSettings;

constexpr char kTelnetEscape = '\xff';
constexpr int kClosing = 421;
constexpr int kNoFile = 550;
// The maximum size of a directory listing, which is enough for half a million entries. An endless
// listing must not exhaust the memory.
constexpr std::size_t kMaxListingBytes = 64UL * 1024 * 1024;

ServerSettings Settings(const BackupToken& token) {
    return net::SettingsOf(token, "FTP", ServerSettings::Auth::kPlain);
}

// Returns true if the server may still send replies to the commands of a transfer that ended with
// `code`. libcurl keeps the control connection after some of these errors, and the next operation
// would mistake such a reply for the reply to its own command. The listed errors are refusals,
// which libcurl has read completely.
bool MayLeaveReplies(CURLcode code) noexcept {
    switch (code) {
        case CURLE_OK:
        case CURLE_QUOTE_ERROR:
        case CURLE_FTP_COULDNT_RETR_FILE:
        case CURLE_REMOTE_FILE_NOT_FOUND:
        case CURLE_REMOTE_ACCESS_DENIED:
        case CURLE_UPLOAD_FAILED:
            return false;
        default:
            return true;
    }
}

std::int64_t SizeIn(const Reply* reply) { return reply == nullptr ? -1 : NumberIn(*reply); }

}  // namespace

Session::Session(const BackupToken& token, bool tls)
    : tls_(tls),
      what_(Settings(token).what),
      timeout_(Settings(token).timeout),
      server_("ftp://" + net::HostAndPort(token) + "/"),
      multi_(net::Curl().multi_init()),
      handle_(Settings(token)) {
    if (multi_ == nullptr) throw Error(Kind::kFailed, "libcurl cannot create a transfer handle");
    net::Curl().multi_setopt(multi_, CURLMOPT_MAXCONNECTS, 1L);
    SetProtocol(tls);
    handle_.Set(CURLOPT_SERVER_RESPONSE_TIMEOUT, timeout_);
    // OnProgress() aborts stalled transfers. libcurl's own timeout is not used, because it takes
    // effect seconds later and also counts the time that reading the source takes.
    handle_.Set(CURLOPT_NOPROGRESS, 0);
    handle_.SetFunction(CURLOPT_XFERINFOFUNCTION, OnProgress);
    handle_.SetPointer(CURLOPT_XFERINFODATA, this);
    // With CURLOPT_VERBOSE libcurl passes all commands and replies to OnDebug, which records them
    // in the transcript.
    handle_.Set(CURLOPT_VERBOSE, 1);
    handle_.SetFunction(CURLOPT_DEBUGFUNCTION, OnDebug);
    handle_.SetPointer(CURLOPT_DEBUGDATA, this);
    handle_.SetFunction(CURLOPT_OPENSOCKETFUNCTION, OnOpenSocket);
    handle_.SetPointer(CURLOPT_OPENSOCKETDATA, this);
    handle_.SetFunction(CURLOPT_CLOSESOCKETFUNCTION, OnCloseSocket);
    handle_.SetPointer(CURLOPT_CLOSESOCKETDATA, this);
    handle_.SetFunction(CURLOPT_READFUNCTION, OnRead);
    handle_.SetPointer(CURLOPT_READDATA, this);
    handle_.SetFunction(CURLOPT_WRITEFUNCTION, OnWrite);
    handle_.SetPointer(CURLOPT_WRITEDATA, this);
}

Session::~Session() {
    EndControl();
    net::Curl().multi_cleanup(multi_);
}

// Shuts down the control connection without libcurl. When libcurl closes a connection, it sends a
// QUIT and would wait two minutes for the reply of an unreachable server.
void Session::EndControl() noexcept {
    const curl_socket_t control = std::exchange(control_, CURL_SOCKET_BAD);
    if (control != CURL_SOCKET_BAD) shutdown(control, SHUT_RDWR);
}

void Session::SetProtocol(bool tls) {
    handle_.Set(CURLOPT_PROTOCOLS_STR, "ftp");
    handle_.Set(CURLOPT_USE_SSL, tls ? CURLUSESSL_ALL : CURLUSESSL_NONE);
    handle_.Set(CURLOPT_FTPSSLAUTH, CURLFTPAUTH_TLS);
    LimitTls(tls);
    // Open the data connection to the host of the control connection, not to the address in the
    // server's reply.
    handle_.Set(CURLOPT_FTP_SKIP_PASV_IP, 1);
    // Send full paths in all commands, so that no change of the directory is necessary before a
    // transfer.
    handle_.Set(CURLOPT_FTP_FILEMETHOD, CURLFTPMETHOD_NOCWD);
    // Ignore the proxies in the environment variables, because the program does not use FTP over an
    // HTTP proxy.
    handle_.Set(CURLOPT_PROXY, "");
}

// Limits TLS to version 1.2. Some servers accept a data connection only if it reuses the TLS
// session of the control connection. With TLS 1.3 libcurl runs out of session tickets after a few
// transfers, because it receives no new tickets during uploads. A TLS 1.2 session can be reused any
// number of times.
void Session::LimitTls(bool limited) {
    is_tls_limited_ = limited;
    const long highest = limited ? CURL_SSLVERSION_MAX_TLSv1_2 : CURL_SSLVERSION_MAX_DEFAULT;
    handle_.Set(CURLOPT_SSLVERSION, CURL_SSLVERSION_TLSv1_2 | highest);
}

// --- Encoding of names ---

// Returns true if the server parses the control connection as telnet, where each byte 255 must be
// doubled. To find out, sends a SIZE command with a name of four bytes 255: such a server returns
// only two of these bytes. The test is sent once per session, and only if a name contains the byte
// 255.
bool Session::IsTelnet() {
    if (!telnet_) {
        telnet_ = false;
        const std::string four(4, kTelnetEscape);
        const Reply reply = Command("SIZE /" + four);
        const std::string& text = reply.text;
        telnet_ =
            text.find(four.substr(2)) != std::string::npos && text.find(four) == std::string::npos;
    }
    return *telnet_;
}

std::string Session::EscapedForTelnet(const std::string& text) {
    if (text.find(kTelnetEscape) == std::string::npos) return text;
    if (telnet_ == false || !IsTelnet()) return text;
    std::string doubled;
    for (const char c : text) {
        doubled += c;
        if (c == kTelnetEscape) doubled += c;
    }
    return doubled;
}

// Returns the URL of a path. The first slash of the path is encoded as %2F, because libcurl would
// remove it otherwise.
std::string Session::Url(const std::string& path) {
    return server_ + "%2F" + PercentEncoded(EscapedForTelnet(path).substr(1), "/");
}

// --- Running transfers ---

void Session::SetUp(const std::string& url, bool upload, bool body, const ExtraCommands& extra) {
    handle_.Set(CURLOPT_URL, url);
    // Set CURLOPT_UPLOAD before CURLOPT_NOBODY, because CURLOPT_UPLOAD also changes the value of
    // the other option.
    handle_.Set(CURLOPT_UPLOAD, upload ? 1 : 0);
    handle_.Set(CURLOPT_NOBODY, body ? 0 : 1);
    handle_.SetList(CURLOPT_QUOTE, extra.before);
    handle_.SetList(CURLOPT_POSTQUOTE, extra.behind);
    source_ = nullptr;
    take_ = nullptr;
    offset_ = 0;
}

// Returns true if the server closed the kept control connection, with or without a 421, before it
// replied to any command of this operation.
bool Session::IsStale(CURLcode code) const {
    const std::vector<Reply>& replies = transcript_.replies();
    const auto first = std::find_if(replies.begin(), replies.end(),
                                    [](const Reply& reply) { return reply.code != 0; });
    const bool answered = first != replies.end() && first->code != kClosing;
    const bool failed = code != CURLE_OK || first == replies.end() || first->code == kClosing;
    return failed && !answered && !is_new_ && code != CURLE_OPERATION_TIMEDOUT;
}

// Runs a transfer like curl_easy_perform(), but without its delay of one second: when the reply
// with the port of the data connection arrives very early, curl_easy_perform() waits for a socket
// that it has not opened yet.
CURLcode Session::Perform() {
    constexpr int kPollMs = 1000;
    const net::CurlLibrary& curl = net::Curl();
    handle_.ForgetReason();
    port_is_known_ = false;
    is_stalled_ = false;
    is_new_ = false;
    moved_ = 0;
    RecordProgress();
    CURLMcode trouble = curl.multi_add_handle(multi_, handle_.get());
    CURLcode result = CURLE_FAILED_INIT;
    int running = 1;
    while (trouble == CURLM_OK && running > 0) {
        trouble = curl.multi_perform(multi_, &running);
        if (trouble != CURLM_OK || running == 0 || port_is_known_) continue;
        trouble = curl.multi_poll(multi_, nullptr, 0, kPollMs, nullptr);
    }
    int left = 0;
    while (const CURLMsg* const message = curl.multi_info_read(multi_, &left)) {
        if (message->msg == CURLMSG_DONE) result = message->data.result;
    }
    control_ = CURL_SOCKET_BAD;
    curl.easy_getinfo(handle_.get(), CURLINFO_ACTIVESOCKET, &control_);
    curl.multi_remove_handle(multi_, handle_.get());
    if (trouble != CURLM_OK)
        throw Error(Kind::kFailed, what_ + ": " + curl.multi_strerror(trouble));
    return is_stalled_ ? CURLE_OPERATION_TIMEDOUT : result;
}

CURLcode Session::Run(const std::function<bool()>& has_begun) {
    thrown_ = nullptr;
    transcript_.Clear();
    CURLcode code = std::exchange(is_fresh_wanted_, false) ? RunFresh() : Perform();
    if (IsStale(code) && !has_begun()) code = RunFresh();
    if (NeedsNewerTls(code)) {
        LimitTls(false);
        code = RunFresh();
    }
    is_fresh_wanted_ = MayLeaveReplies(code);
    return code;
}

CURLcode Session::RunFresh() {
    transcript_.Clear();
    EndControl();
    handle_.Set(CURLOPT_FRESH_CONNECT, 1);
    const CURLcode code = Perform();
    handle_.Set(CURLOPT_FRESH_CONNECT, 0);
    return code;
}

// Returns true if the TLS handshake of the control connection failed while TLS was limited to
// version 1.2. The server may require TLS 1.3.
bool Session::NeedsNewerTls(CURLcode code) const {
    const std::vector<Reply>& replies = transcript_.replies();
    return is_tls_limited_ && code == CURLE_SSL_CONNECT_ERROR && !replies.empty() &&
           replies.back().verb == "AUTH";
}

// Runs `transfer` and repeats it on a new control connection while the server refuses the data
// connection. A refusal occurs when the TLS session has expired; a new control connection has a new
// TLS session. A transfer is not repeated after its sink has received data.
Outcome Session::WithDataConnection(const std::function<Outcome()>& transfer) {
    constexpr int kMaxRepetitions = 6;
    Outcome outcome = transfer();
    for (int count = 0; count < kMaxRepetitions && NeedsNewDataConnection(outcome); ++count) {
        is_handshake_late_ = is_handshake_late_ || IsHandshakeTooEarly(outcome.code);
        is_fresh_wanted_ = true;
        outcome = transfer();
    }
    return outcome;
}

bool Session::NeedsNewDataConnection(const Outcome& outcome) const {
    if (outcome.thrown || outcome.has_delivered) return false;
    const Reply* const reply = transcript_.Refusal();
    const bool is_refused = reply != nullptr && RefusesDataConnection(*reply) && !is_new_;
    return is_refused || IsHandshakeTooEarly(outcome.code);
}

// Returns true if the server closed the data connection before the transfer began. libcurl starts
// the TLS handshake of the data connection before it sends the transfer command, and some servers
// then close the data connection. In this case libcurl requests another data connection and
// mistakes a reply to an earlier command for the response.
bool Session::IsHandshakeTooEarly(CURLcode code) const {
    const bool is_control =
        !transcript_.replies().empty() && transcript_.replies().back().verb == "AUTH";
    return tls_ && !is_control &&
           (code == CURLE_FTP_WEIRD_PASV_REPLY || code == CURLE_SSL_CONNECT_ERROR);
}

// --- Commands ---

std::vector<Reply> Session::Commands(const std::vector<std::string>& commands) {
    ExtraCommands extra;
    // The prefix "*" makes libcurl continue after the server has refused a command.
    for (const std::string& command : commands) extra.before.Add("*" + EscapedForTelnet(command));
    SetUp(server_ + "%2F", false, false, extra);
    const CURLcode code = Run([] { return false; });
    return RepliesTo(commands, code);
}

// Returns the replies to `commands`, which are the last replies in the transcript. Skips the
// earlier replies, which belong to the connection setup.
std::vector<Reply> Session::RepliesTo(const std::vector<std::string>& commands,
                                      CURLcode code) const {
    const std::vector<Reply>& all = transcript_.replies();
    const bool whole = code == CURLE_OK && all.size() >= commands.size() && all.back().code != 0;
    if (!whole || all.back().code == kClosing) {
        Outcome outcome;
        outcome.code = code == CURLE_OK ? CURLE_RECV_ERROR : code;
        Throw(outcome);
    }
    return {all.end() - static_cast<std::ptrdiff_t>(commands.size()), all.end()};
}

// --- Transfers ---

Outcome Session::Store(const std::string& path, ByteSource& source) {
    return WithDataConnection([&] { return StoreOnce(path, source); });
}

Outcome Session::StoreOnce(const std::string& path, ByteSource& source) {
    ExtraCommands extra;
    // Remove an existing file first. The server may still run an interrupted session that has the
    // file open, and that session must not write into the new file.
    extra.before.Add("*" + EscapedForTelnet("DELE " + path));
    extra.behind.Add("*" + EscapedForTelnet("SIZE " + path));
    SetUp(Url(path), true, true, extra);
    source_ = &source;
    handle_.SetSize(CURLOPT_INFILESIZE_LARGE, source.size());
    Outcome outcome;
    outcome.code = Run([this] { return offset_ > 0; });
    outcome.size = SizeIn(transcript_.Find("SIZE"));
    outcome.thrown = thrown_;
    source_ = nullptr;
    return outcome;
}

// With TLS, queries the size before the data connection is opened. Otherwise libcurl sends SIZE
// when the data connection is open, and then does nothing for 200 ms while the server waits for
// RETR. A refused SIZE must end the transfer: if libcurl continued and the server closed the data
// connection, libcurl would conclude that the data connection could not be opened, and would assign
// later replies to the wrong commands.
Outcome Session::Retrieve(const std::string& path, ByteSink& sink) {
    const bool size_first = tls_ && knows_size_;
    Outcome outcome = WithDataConnection([&] { return RetrieveOnce(path, sink, size_first); });
    if (outcome.code != CURLE_QUOTE_ERROR) return outcome;
    const Reply* const size = transcript_.Find("SIZE");
    if (size != nullptr && size->code == kNoFile) {
        outcome.code = CURLE_REMOTE_FILE_NOT_FOUND;
        return outcome;
    }
    knows_size_ = false;
    return RetrieveOnce(path, sink, false);
}

Outcome Session::RetrieveOnce(const std::string& path, ByteSink& sink, bool size_first) {
    ExtraCommands extra;
    if (size_first) {
        extra.before.Add("*TYPE I");
        extra.before.Add(EscapedForTelnet("SIZE " + path));
    }
    SetUp(Url(path), false, true, extra);
    handle_.Set(CURLOPT_IGNORE_CONTENT_LENGTH, size_first ? 1 : 0);
    bool begun = false;
    std::int64_t received = 0;
    std::int64_t size = -1;
    const auto begin = [this, &begun, &size, &sink] {
        if (std::exchange(begun, true)) return;
        size = SizeIn(transcript_.Find("SIZE"));
        if (size >= 0) sink.Expect(size);
    };
    take_ = [this, &begin, &sink, &received, &size](std::span<const std::byte> bytes) {
        begin();
        received += static_cast<std::int64_t>(bytes.size());
        if (size >= 0 && received > size) {
            throw Error(Kind::kUnavailable, what_ + " sent more bytes than the file contains");
        }
        sink.Write(bytes);
    };
    Outcome outcome;
    outcome.code = Run([&begun] { return begun; });
    outcome.size = SizeIn(transcript_.Find("SIZE"));
    outcome.thrown = thrown_;
    outcome.has_delivered = begun;
    take_ = nullptr;
    if (outcome.code == CURLE_OK && outcome.size >= 0 && received != outcome.size) {
        outcome.code = CURLE_PARTIAL_FILE;
    }
    if (outcome.code == CURLE_OK) begin();
    return outcome;
}

// Returns the URL for a listing of `directory`. libcurl sends no CWD if the URL is the same as for
// the previous listing, although other commands may have changed the current directory in the
// meantime. An additional slash in every second URL makes libcurl send the CWD.
std::string Session::ListingUrl(const std::string& directory, Where where) {
    std::string url = Url(directory.ends_with('/') ? directory : directory + "/");
    if (where == Where::kNamed) return url;
    lists_with_slash_ = !lists_with_slash_;
    return lists_with_slash_ ? url + "/" : url;
}

Outcome Session::List(const std::string& command, const std::string& directory, Where where,
                      std::string& text) {
    return WithDataConnection([&] { return ListOnce(command, directory, where, text); });
}

Outcome Session::ListOnce(const std::string& command, const std::string& directory, Where where,
                          std::string& text) {
    text.clear();
    const bool within = where == Where::kWithin;
    SetUp(ListingUrl(directory, where), false, true, {});
    handle_.Set(CURLOPT_FTP_FILEMETHOD, within ? CURLFTPMETHOD_SINGLECWD : CURLFTPMETHOD_NOCWD);
    handle_.Set(CURLOPT_CUSTOMREQUEST, command);
    take_ = [this, &text](std::span<const std::byte> bytes) {
        if (text.size() + bytes.size() > kMaxListingBytes) {
            throw Error(Kind::kFailed, what_ + ": the listing is too long: more than " +
                                           str::Str(kMaxListingBytes >> 20U) + " MiB");
        }
        text.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    };
    Outcome outcome;
    outcome.code = Run([&text] { return !text.empty(); });
    outcome.thrown = thrown_;
    take_ = nullptr;
    handle_.Clear(CURLOPT_CUSTOMREQUEST);
    handle_.Set(CURLOPT_FTP_FILEMETHOD, CURLFTPMETHOD_NOCWD);
    // libcurl reports success with an empty listing for some refused listings.
    if (outcome.code == CURLE_OK && transcript_.Refusal() != nullptr) {
        outcome.code = CURLE_FTP_COULDNT_RETR_FILE;
    }
    const Reply* const change = transcript_.Find("CWD");
    if (outcome.code == CURLE_OK && within && (change == nullptr || !change->IsDone())) {
        throw Error(Kind::kUnavailable, what_ +
                                            ": the listing was discarded, because the server did "
                                            "not confirm the change of the directory");
    }
    return outcome;
}

// --- Errors ---

void Session::ThrowLogin(const Reply& reply) const {
    const std::string said = net::OneLine(reply.text);
    if (!tls_ && ReportsTlsNeeded(reply.words)) {
        throw Error(Kind::kFailed, what_ +
                                       " requires encryption for the login; use ftps:// instead of "
                                       "ftp:// in the storage token (" +
                                       said + ")");
    }
    throw Error(KindOf(reply), what_ + " refused the login: " + str::Str(reply.code) + " " + said);
}

void Session::Throw(const Outcome& outcome) const {
    if (outcome.thrown) std::rethrow_exception(outcome.thrown);
    const Reply* const reply = transcript_.Refusal();
    if (outcome.code == CURLE_USE_SSL_FAILED) {
        throw Error(Kind::kFailed, what_ + " does not offer TLS, which ftps:// requires" +
                                       (reply == nullptr ? "" : ": " + net::OneLine(reply->text)));
    }
    if (is_stalled_) {
        throw Error(Kind::kUnavailable,
                    what_ + ": no data transferred for " + str::Str(timeout_) + " seconds");
    }
    if (reply == nullptr) handle_.Throw(outcome.code);
    if (reply->verb.empty() || reply->verb == "USER" || reply->verb == "PASS") ThrowLogin(*reply);
    throw Error(KindOf(*reply),
                what_ + ": " + str::Str(reply->code) + " " + net::OneLine(reply->text));
}

void Session::ThrowRefused(const Reply& reply, const std::string& operation) const {
    throw Error(KindOf(reply), what_ + ": cannot " + operation + ": " + str::Str(reply.code) + " " +
                                   net::OneLine(reply.text));
}

}  // namespace quarn2::ftp
