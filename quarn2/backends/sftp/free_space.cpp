#include "free_space.h"

#include <algorithm>
#include <utility>

namespace quarn2::sftp {

namespace {

// In bytes. If a write fails and the storage has less free space than this, the storage counts as
// full.
constexpr std::uint64_t kNoRoomBelow = 1024UL * 1024;

const char* const kSpace = "statvfs@openssh.com";

}  // namespace

bool IsFull(Session& session, const Place& place) {
    if (!session.Supports(kSpace)) return false;
    Request request(Type::kExtended);
    request.Text(kSpace).Text(place.root());
    Reply reply = session.Wait(session.Send(std::move(request)));
    if (reply.type != Type::kExtendedReply) return false;
    Fields& fields = reply.fields;
    fields.U64();  // skips the preferred block size
    const std::uint64_t block = fields.U64();
    fields.U64();  // skips the total number of blocks
    fields.U64();  // skips the free blocks, including the blocks reserved for root
    const std::uint64_t blocks = fields.U64();
    const std::uint64_t all_inodes = fields.U64();
    fields.U64();  // skips the free inodes, including the inodes reserved for root
    const std::uint64_t inodes = fields.U64();
    // Checks the total too, because file systems without a fixed number of inodes report 0 free
    // inodes and 0 inodes in total.
    return blocks < kNoRoomBelow / std::max<std::uint64_t>(block, 1) + 1 ||
           (inodes == 0 && all_inodes > 0);
}

}  // namespace quarn2::sftp
