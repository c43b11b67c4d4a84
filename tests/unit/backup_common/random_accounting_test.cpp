// Runs scans, count limits, reservations, completions and evictions on random storages, with real
// info files and files on a storage. After every step it compares the server's account with
// simple_rules.h, and the local and stored files with the account.
//
// QUARN2_CP_SEED=N repeats one seed.
#include <cstdio>
#include <random>

#include "arguments.h"
#include "dice.h"
#include "kro/str.h"
#include "program_site.h"
#include "quarn2_cp2_server_model.h"
#include "session_link.h"
#include "simple_rules.h"

namespace {

using simple_rules::Eviction;
using simple_rules::Item;
using simple_rules::Record;
using simple_rules::Rules;
using simple_rules::User;

constexpr const char* kToday = "2026-11-20";
constexpr const char* kRoot = "info";
constexpr int kWorldsPerSeed = 6;
constexpr int kStepsPerWorld = 40;

using Snapshot = std::vector<User>;

class World {
  public:
    World(Dice& dice, quarn2::MemoryStore& store, int number)
        : dice_(dice), store_(store), root_(std::string(kRoot) + str::Str(number)) {
        store_.Reset();
        std::filesystem::create_directories(root_);
        rules_.today = kToday;
        MakeUsers();
        ChooseLimits();
        control_ = std::make_unique<GlobalSizeControl>(
            *Arguments({"--path", root_, "--size-limit", str::Str(limited_ ? rules_.size_limit : 0),
                        "--count-limit",
                        str::Str(full_limited_ ? rules_.full_limit : 0) + ":" +
                            str::Str(rules_.daily_limit)}));
        storage_ = &control_->AddStorage(quarn2::GetStorage(quarn2::BackupToken("memory:site")));
        link_ = std::make_unique<SessionLink>(*storage_);
    }

    void Run() {
        Step("scan", [this] {
            control_->Init(kToday);
            rules_.Scan();
        });
        Step("limits at the start", [this] { FitIntoLimits(); });
        for (int i = 0; i < kStepsPerWorld && !testing::Test::HasFailure(); ++i) RandomStep();
    }

  private:
    // --- Making backups ---

    void MakeUsers() {
        const int users = dice_.Number(0, 7);
        for (int i = 0; i < users; ++i)
            MakeUser("u" + str::Str(i) + (dice_.OneIn(2) ? ".site" : ""));
    }

    void MakeUser(const std::string& user) {
        std::string day = "2026-10-" + str::Str(dice_.Number(10, 31));
        const int gap = dice_.Number(1, 5);
        const int fulls = dice_.Number(1, 8);
        const int days = dice_.Number(0, 35);
        for (int i = 0; i < days; ++i, day = simple_rules::NextDay(day)) {
            if (dice_.OneIn(gap) && gap > 1) continue;
            const bool deleted = dice_.OneIn(40);
            Make(user, day, dice_.OneIn(fulls) ? "full" : OtherType(), !dice_.OneIn(12), deleted);
        }
        if (dice_.OneIn(4)) Make(user, "2026-11-21", "full", true, dice_.OneIn(2));
        if (dice_.OneIn(3)) Make(user, "custom", "full", !dice_.OneIn(4), dice_.OneIn(2));
    }

    std::string OtherType() { return dice_.OneIn(6) ? "differential" : "incremental"; }

    // Writes the files of one backup in one of its forms, unless the user already has a backup of
    // that date.
    void Make(const std::string& user, const std::string& date, const std::string& type,
              bool finished, bool deleted) {
        if (Exists(user, date)) return;
        Item item{user, date, type, 0, finished, deleted, {}, {}};
        const bool directory = dice_.OneIn(4);
        const std::string name = date + "." + user;
        const std::string place = directory ? user + "/" + date + "/" : "";
        const char letter = type == "full" ? 'F' : 'I';
        const std::string stem = date == "custom" ? "C2026-11-01." + user : letter + name;
        const std::string last = MakeSlices(item, place, stem);
        Save(item, place + name + ".tgz", "index");
        std::string info =
            "last-slice=" + last + "\nsize=" + str::Str(item.size) + "\ntype=" + type;
        if (finished) info += "\nfinished=2026-11-01 00:00:00";
        if (deleted) info += "\ndeleted=";
        Save(item, place + name + ".info", info);
        store_.SetFile(place + name + ".info", info);
        item.stored.push_back(place + name + ".info");
        if (directory) {
            item.local.push_back(user);
            item.local.push_back(user + "/" + date);
        }
        rules_.items.push_back(item);
    }

    bool Exists(const std::string& user, const std::string& date) const {
        return std::any_of(rules_.items.begin(), rules_.items.end(), [&](const Item& item) {
            return item.user == user && item.date == date;
        });
    }

    // Creates the slices of an archive. Returns the name of the last slice.
    std::string MakeSlices(Item& item, const std::string& place, const std::string& stem) {
        const int form = dice_.Number(0, 2);
        const int count = form == 0 ? 1 : dice_.Number(1, 3);
        std::string name;
        for (int i = 1; i <= count; ++i) {
            name = place + stem + (form == 1 ? "." + str::Str(i) + ".dar" : ".tgz");
            if (form == 2) name += ".part" + str::Str(i);
            const int size = dice_.OneIn(8) ? 0 : dice_.Number(1, 60);
            store_.SetFile(name, std::string(static_cast<std::size_t>(size), 'x'));
            item.stored.push_back(name);
            item.size += size;
        }
        return name;
    }

    void Save(Item& item, const std::string& name, const std::string& content) const {
        const std::string path = root_ + "/" + name;
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        local_files::Save(path, content);
        item.local.push_back(name);
    }

    void ChooseLimits() {
        std::int64_t used = 0;
        for (const Item& item : rules_.items) used += item.size;
        limited_ = !dice_.OneIn(4);
        full_limited_ = dice_.OneIn(2);
        rules_.size_limit = limited_ ? std::max<std::int64_t>(1, used * dice_.Number(2, 15) / 10)
                                     : ServerLimits::kNoSize;
        rules_.full_limit = full_limited_ ? dice_.Number(1, 4) : ServerLimits::kNoCount;
        rules_.daily_limit = dice_.OneIn(4) ? 0 : dice_.Number(1, 30);
    }

    // --- Steps ---

    void DropByCount() {
        control_->DropByCount(control_->full_limit, control_->daily_limit);
        rules_.DropByCount();
    }

    // The server would exit with an error if the storage does not fit into its limit.
    void FitIntoLimits() {
        bool possible = true;
        try {
            control_->FitIntoLimits();
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "No space left. But all backups are locked");
            possible = false;
        }
        EXPECT_EQ(possible, rules_.FitIntoLimits());
    }

    void RandomStep() {
        switch (dice_.Number(0, 9)) {
            case 0:
            case 1:
            case 2:
            case 3:
                return Reserve();
            case 4:
            case 5:
                return Complete();
            case 6:
                return Ask("RELEASE", dice_.Number(0, 80),
                           [this](int size) { return rules_.Release(size); });
            case 7:
                return Ask("DROPONE", dice_.Number(-1, std::max(0, rules_.max_count)),
                           [this](int count) { return rules_.DropOne(count, limited_); });
            case 8:
                return LockOne();
            default:
                return dice_.OneIn(2) ? Rescan() : Step("count limits", [this] { DropByCount(); });
        }
    }

    template <class Expected>
    void Ask(const std::string& word, int number, const Expected& expected) {
        const std::string line = word + " " + str::Str(number);
        Step(line, [&] { EXPECT_EQ(link_->Answer(line), expected(number)); });
    }

    void Reserve() {
        const int size = dice_.OneIn(5) ? 0 : dice_.Number(1, 150);
        const std::string line = "RESERVE " + str::Str(size);
        Step(line, [&] {
            const std::string answer = link_->Answer(line);
            EXPECT_EQ(answer, rules_.Reserve(size));
            if (!answer.starts_with("OK")) return;
            EXPECT_LE(control_->MaxUsedSize() + storage_->reserved, control_->size_limit);
        });
    }

    void Complete() {
        const std::string user = dice_.OneIn(6) ? "new" : "u" + str::Str(dice_.Number(0, 7));
        std::string date = dice_.OneIn(8) ? "custom" : kToday;
        if (dice_.OneIn(3)) date = "2026-11-" + str::Str(dice_.Number(10, 22));
        std::string type = dice_.OneIn(3) ? "full" : "incremental";
        if (dice_.OneIn(6)) type = "differential";
        // If the backup exists already, this completes it a second time.
        Make(user, date, type, true, false);
        const Item item =
            *std::find_if(rules_.items.begin(), rules_.items.end(),
                          [&](const Item& made) { return made.user == user && made.date == date; });
        // The completion of a custom backup or of an unknown type creates no record.
        const std::string word = date == "custom" ? "custom" : type;
        const std::string line =
            "COMPLETE " + user + " " + date + " " + word + " " + str::Str(item.size);
        Step(line,
             [&] { EXPECT_EQ(link_->Answer(line), rules_.Complete(user, date, word, item.size)); });
    }

    void Rescan() {
        Step("rescan", [this] {
            control_->Init(kToday);
            rules_.Scan();
        });
    }

    void LockOne() {
        if (storage_->users.empty()) return;
        const int number = dice_.Number(0, static_cast<int>(storage_->users.size()) - 1);
        auto& [name, user] = *std::next(storage_->users.begin(), number);
        if (user.backups.empty()) return;
        const int index = dice_.Number(0, static_cast<int>(user.backups.size()) - 1);
        std::next(user.backups.begin(), index)->second.locked = true;
        rules_.UserOf(name).records[static_cast<std::size_t>(index)].locked = true;
    }

    // --- Comparing ---

    template <class Action>
    void Step(const std::string& what, const Action& action) {
        if (testing::Test::HasFailure()) return;
        SCOPED_TRACE(root_ + ", step " + str::Str(++step_) + ": " + what);
        Snapshot before = rules_.users;
        const bool scan = what.ends_with("scan");
        rules_.evictions.clear();
        const std::size_t logged = log_size_;
        action();
        const std::vector<Eviction> evicted = LoggedEvictions(logged);
        EXPECT_TRUE(evicted == rules_.evictions) << "other backups, or in another order";
        if (!scan) CheckEvery(evicted, before);
        Compare();
    }

    // Returns the evictions that the log contains from this offset on.
    std::vector<Eviction> LoggedEvictions(std::size_t from) {
        std::vector<Eviction> evictions;
        const std::string log = local_files::Load("var/quarn2_cp.log");
        log_size_ = log.size();
        std::istringstream lines(log.substr(std::min(from, log.size())));
        const std::string head = ": Evict backup '";
        for (std::string line; std::getline(lines, line);) {
            const std::size_t begin = line.find(head);
            if (begin == std::string::npos) continue;
            const std::size_t end = line.find(".info', size: ", begin);
            const std::string path = line.substr(begin + head.size(), end - begin - head.size());
            const std::string name = path.substr(path.rfind('/') + 1);
            evictions.push_back(
                {name.substr(11), name.substr(0, 10),
                 std::stoll(line.substr(end + std::string(".info', size: ").size()))});
        }
        return evictions;
    }

    // Checks each deletion against the records that existed just before it.
    static void CheckEvery(const std::vector<Eviction>& evictions, Snapshot& users) {
        for (const Eviction& eviction : evictions) {
            const auto user = std::find_if(users.begin(), users.end(), [&](const User& candidate) {
                return candidate.name == eviction.user;
            });
            ASSERT_NE(user, users.end());
            std::vector<Record>& records = user->records;
            const auto record = std::find_if(
                records.begin(), records.end(),
                [&](const Record& candidate) { return candidate.date == eviction.date; });
            ASSERT_NE(record, records.end());
            ASSERT_NE(record + 1, records.end()) << "the newest record of " << eviction.user;
            ASSERT_FALSE(record->full && !(record + 1)->full)
                << "a daily rests on " << eviction.date << " of " << eviction.user;
            records.erase(record);
        }
    }

    void Compare() const {
        EXPECT_EQ(storage_->limit, rules_.limit);
        EXPECT_EQ(storage_->free_size, rules_.free);
        EXPECT_EQ(storage_->reserved, rules_.reserved);
        EXPECT_EQ(control_->max_count, rules_.max_count);
        EXPECT_EQ(ModelText(), RulesText());
        CompareFiles();
    }

    static std::string Text(const std::string& date, std::int64_t size, bool full, bool locked) {
        return " " + date + (full ? "F" : "D") + str::Str(size) + (locked ? "!" : "");
    }

    std::string ModelText() const {
        std::string text;
        for (const auto& [name, user] : storage_->users) {
            text += name + ":";
            for (const auto& [date, backup] : user.backups) {
                text += Text(date, backup.size, backup.type == 0, backup.locked);
            }
            text += "\n";
        }
        return text;
    }

    std::string RulesText() const {
        std::string text;
        for (const User& user : rules_.users) {
            text += user.name + ":";
            for (const Record& record : user.records) {
                text += Text(record.date, record.size, record.full, record.locked);
            }
            text += "\n";
        }
        return text;
    }

    void CompareFiles() const {
        std::set<std::string> stored;
        std::set<std::string> local;
        for (const Item& item : rules_.items) {
            stored.insert(item.stored.begin(), item.stored.end());
            local.insert(item.local.begin(), item.local.end());
        }
        std::set<std::string> on_storage;
        for (const auto& [name, content] : store_.files()) on_storage.insert(name);
        EXPECT_EQ(on_storage, stored);
        std::set<std::string> on_disk;
        namespace fs = std::filesystem;
        for (const auto& entry : fs::recursive_directory_iterator(root_)) {
            on_disk.insert(entry.path().string().substr(root_.size() + 1));
        }
        EXPECT_EQ(on_disk, local);
    }

    Dice& dice_;
    quarn2::MemoryStore& store_;
    std::string root_;
    Rules rules_;
    bool limited_ = false;
    bool full_limited_ = false;
    std::unique_ptr<GlobalSizeControl> control_;
    GlobalSizeControl::StorageDesc* storage_ = nullptr;
    std::unique_ptr<SessionLink> link_;
    std::size_t log_size_ = 0;
    int step_ = 0;
};

class RandomAccounting : public ProgramSite {};

std::vector<unsigned> Seeds() {
    if (const char* given = std::getenv("QUARN2_CP_SEED")) {
        return {static_cast<unsigned>(std::stoul(given))};
    }
    return {1, 2, 3, 4, 5, std::random_device()()};
}

TEST_F(RandomAccounting, SurvivorsAreThoseOfTheSimpleRules) {
    for (const unsigned seed : Seeds()) {
        std::printf("seed %u\n", seed);
        Dice dice(seed);
        for (int i = 0; i < kWorldsPerSeed && !HasFailure(); ++i) {
            ClearLog();
            kro_log::Init("quarn2_cp", 6);
            World(dice, *store_, i).Run();
            std::filesystem::remove_all(std::string(kRoot) + str::Str(i));
        }
        ASSERT_FALSE(HasFailure()) << "once more: QUARN2_CP_SEED=" << seed;
    }
}

}  // namespace
