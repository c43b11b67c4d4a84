// One upload in parts, from its beginning to its end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "backends/s3/plan.h"
#include "backends/s3/service.h"
#include "backends/s3/unfinished.h"
#include "quarn2_backend/storage_backend.h"

namespace quarn2::s3 {

// Each part is read once, forward, into memory; its SHA-256 goes into the signature, so that the
// server takes nothing but these bytes. While one part is read the others are on their way.
class PartsUpload {
  public:
    enum class Outcome {
        kStored,
        kNoRoom,
        kGone,  // somebody aborted it
    };

    // `doing` begins the texts of errors.
    PartsUpload(Service& service, Unfinished& unfinished, std::string doing);

    // Whatever does not end with the stored file leaves nothing on the server.
    Outcome Run(const std::string& key, ByteSource& source, const Plan& plan);

  private:
    struct Slot {
        std::unique_ptr<std::byte[]> bytes;
        bool free = true;
    };
    // What is said of an upload that is no more.
    static constexpr const char* kGoneCode = "NoSuchUpload";

    // The new upload's id.
    std::string BeginUpload();
    Outcome SendAndComplete();
    void SendFromMemory();
    void SendInPlace();
    Slot& FreeSlot();
    std::string Fill(std::span<std::byte> bytes, std::int64_t offset);
    Call PartCall(std::size_t index, std::string hash) const;
    void StartPart(std::size_t index, Slot& slot, std::span<const std::byte> bytes,
                   std::string hash);
    void TakePart(std::size_t index, const net::HttpResult& result);
    // Throws what went wrong with a part.
    void Check();
    [[noreturn]] void Stop(const Refusal& refusal) const;
    std::int64_t LengthOf(std::size_t index) const;
    std::int64_t OffsetOf(std::size_t index) const;

    Outcome Complete();
    Outcome OutcomeOf(const net::HttpReply& reply);
    std::string ExpectedEtag() const;
    // Asks for the file itself, after an answer that leaves it open.
    bool IsStored();
    void CheckSize();
    net::HttpReply Head();

    Service& service_;
    Unfinished& unfinished_;
    std::string doing_;
    std::string key_;
    ByteSource* source_ = nullptr;
    Plan plan_;
    std::string id_;
    std::vector<Slot> slots_;
    std::vector<std::string> etags_;
    std::exception_ptr error_;
    std::optional<Refusal> refusal_;
};

// The call that creates an object, with the headers that every new one gets.
Call CreationCall(const Service& service, const std::string& method, const std::string& key);

}  // namespace quarn2::s3
