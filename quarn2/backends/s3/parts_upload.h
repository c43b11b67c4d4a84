// The multipart upload of one file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "plan.h"
#include "quarn2_backend/storage_backend.h"
#include "service.h"
#include "unfinished.h"

namespace quarn2::s3 {

// Uploads a file in parts. Reads each part once and sequentially into memory, while other parts are
// sent. The SHA-256 of each part is signed, so the server accepts only the bytes that were read.
// SendInPlace() sends parts that are too large for memory.
class PartsUpload {
  public:
    enum class Outcome {
        kStored,
        kNoRoom,
        kGone,  // another process aborted the upload
    };

    // `operation` names the operation in error texts: "cannot store 'x'".
    PartsUpload(Service& service, Unfinished& unfinished, std::string operation);

    // Uploads the source as an object with this key. If the file is not stored, aborts the
    // multipart upload on the server. If the abort fails, adds the upload to `unfinished`, so that
    // a later operation aborts it.
    Outcome Run(const std::string& key, ByteSource& source, const Plan& plan);

  private:
    struct Slot {
        std::unique_ptr<std::byte[]> bytes;
        bool free = true;
    };
    // The error code of S3 for a multipart upload that does not exist.
    static constexpr const char* kGoneCode = "NoSuchUpload";

    // Starts the multipart upload on the server and returns its id.
    std::string BeginUpload();
    Outcome SendAndComplete();
    void SendFromMemory();
    void SendInPlace();
    Slot& FreeSlot();
    std::string Fill(std::span<std::byte> bytes, std::int64_t offset);
    Call PartCall(std::size_t index, std::string hash) const;
    void StartPart(std::size_t index, Slot& slot, std::span<const std::byte> bytes,
                   std::string hash);
    void FinishPart(std::size_t index, const net::HttpResult& result);
    // Throws the first error if the upload of a part has failed.
    void Check();
    [[noreturn]] void ThrowStopped(const Refusal& refusal) const;
    std::int64_t LengthOf(std::size_t index) const;
    std::int64_t OffsetOf(std::size_t index) const;

    Outcome Complete();
    Outcome OutcomeOf(const net::HttpReply& reply);
    std::string ExpectedEtag() const;
    // Checks with a HEAD request whether the file is stored, after a response to the completion
    // that does not show this. Returns false if the HEAD request fails.
    bool IsStored();
    void CheckSize();
    net::HttpReply Head();

    Service& service_;
    Unfinished& unfinished_;
    std::string operation_;
    std::string key_;
    ByteSource* source_ = nullptr;
    Plan plan_;
    std::string id_;
    std::vector<Slot> slots_;
    std::vector<std::string> etags_;
    std::exception_ptr error_;
    std::optional<Refusal> refusal_;
};

// Returns a request that creates an object, with the headers that all new objects need.
Call CreationCall(const Service& service, const std::string& method, const std::string& key);

}  // namespace quarn2::s3
