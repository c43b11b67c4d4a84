// One multipart upload, from its start to its completion.
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

// Reads each part once, forward, into memory. The SHA-256 of the part is signed, so the server
// accepts only these bytes. While one part is read, others are sent. A part too large for memory is
// sent by SendInPlace() instead.
class PartsUpload {
  public:
    enum class Outcome {
        kStored,
        kNoRoom,
        kGone,  // another process aborted it
    };

    // Error texts contain `doing`: "cannot store 'x'".
    PartsUpload(Service& service, Unfinished& unfinished, std::string doing);

    // Aborts the upload on the server unless the file is stored. If the server cannot be reached
    // for that, `unfinished` remembers the upload.
    Outcome Run(const std::string& key, ByteSource& source, const Plan& plan);

  private:
    struct Slot {
        std::unique_ptr<std::byte[]> bytes;
        bool free = true;
    };
    // S3's error code for an upload that does not exist.
    static constexpr const char* kGoneCode = "NoSuchUpload";

    // Returns the new upload's id.
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
    // Throws the first failure of a part, if there is one.
    void Check();
    [[noreturn]] void ThrowStopped(const Refusal& refusal) const;
    std::int64_t LengthOf(std::size_t index) const;
    std::int64_t OffsetOf(std::size_t index) const;

    Outcome Complete();
    Outcome OutcomeOf(const net::HttpReply& reply);
    std::string ExpectedEtag() const;
    // Checks the stored file with a HEAD request, after a response that does not show whether it is
    // stored. False if the check fails.
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

// Returns a request that creates an object, with the headers common to all new objects.
Call CreationCall(const Service& service, const std::string& method, const std::string& key);

}  // namespace quarn2::s3
