// The deletions that a server started now would make. The functions use the server's own plans,
// change only the account that they get, and do not access the storage.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "quarn2_cp2_server_plan.h"

// The upload for which the server makes room after its start. Sizes are in bytes.
struct PlannedUpload {
    std::int64_t bytes = 0;
    // The backup that the upload completes. With an empty user, the upload completes no backup, so
    // the deletions at the server's end do not count it.
    std::string user;
    bool is_full = false;
};

// One step of the plan: the server's start, an upload or the server's end.
struct PlanStep {
    enum class Kind { kStart, kUpload, kEnd };

    Kind kind = Kind::kStart;
    Victims victims;  // in the order of their deletion
    // The bytes that are missing after all possible evictions. If it is not 0, the server does not
    // start or refuses the upload. `victims` then contains only deletions that happen before.
    std::int64_t missing = 0;

    bool IsPossible() const noexcept { return missing == 0; }
};

struct ServerPlan {
    std::vector<PlanStep> steps;  // ends with the first step that is not possible
    std::vector<Kept> kept;       // the backups that stay after the last step
};

// Plans the server's start, then an upload if there is one, then the server's end. Leaves the
// account as it is after these steps. Reads the ledger through `account.unfinished`.
ServerPlan PlanServer(GlobalSizeControl& account, const std::optional<PlannedUpload>& upload);

// The size of a usual backup: the median of the user's backups of this type. std::nullopt when
// there are none. Ignores the records of size 0, which stand for days without a backup.
std::optional<std::int64_t> TypicalSize(const Backups& backups, bool is_full);
