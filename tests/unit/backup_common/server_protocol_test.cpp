// How the server handles the lines of a node client: reservations, completions, evictions on
// request and releases change the account. The tests use no files, so an evicted backup counts as
// already removed.
#include <gtest/gtest.h>

#include "program_site.h"
#include "quarn2/token.h"
#include "session_link.h"

namespace {

using BackupInfo = GlobalSizeControl::StorageDesc::UserDesc::BackupInfo;

constexpr int kFull = 0;
constexpr int kDaily = 1;
constexpr std::int64_t kMaxSize = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMinSize = std::numeric_limits<std::int64_t>::min();

class Protocol : public ProgramSite {
  protected:
    Protocol() {
        control_.size_limit = 200;
        storage_.owner = &control_;
        storage_.limit = storage_.free_size = 200;
        storage_.storage = quarn2::GetStorage(quarn2::BackupToken("memory:site"));
    }

    void Add(const std::string& user, const std::string& date, std::int64_t size, int type) {
        storage_.users[user].backups[date] = BackupInfo{size, type, false};
        // Creates the newest info file, because the server checks that it exists before it evicts
        // an older backup.
        store_->SetFile(date + "." + user + ".info", "");
    }

    std::string Ask(const std::string& line) { return link_.Answer(line); }

    // Returns the account as "limit/free_size/reserved".
    std::string Account() const {
        return std::to_string(storage_.limit) + "/" + std::to_string(storage_.free_size) + "/" +
               std::to_string(storage_.reserved);
    }

    std::string Address() const {
        char text[32];
        std::snprintf(text, sizeof text, "%p", static_cast<const void*>(&storage_));
        return text;
    }

    GlobalSizeControl control_;
    GlobalSizeControl::StorageDesc& storage_ = control_.storages[""];
    SessionLink link_{storage_};
};

// --- RESERVE ---

TEST_F(Protocol, ReserveOfNothingChangesNothing) {
    control_.max_count = 3;
    EXPECT_EQ(Ask("RESERVE 0"), "OK 3");
    EXPECT_EQ(Ask("RESERVE"), "OK 3");
    EXPECT_EQ(Account(), "200/200/0");
}

TEST_F(Protocol, ReserveWritesItsAccountAndItsAnswer) {
    storage_.limit = 190;
    storage_.free_size = 80;
    storage_.reserved = 7;
    EXPECT_EQ(Ask("RESERVE 30"), "OK 0");
    EXPECT_EQ(Log(),
              (Lines{"8: ProcessCommand line = 'RESERVE 30'",
                     "8: Reserve this = " + Address() +
                         ", available_size = 190, free_size = 80, incomplete_size = 7, size = 30",
                     "8: SaveResult result = 'OK 0'",
                     "8: quarn2::Expect::Result* MasterSide::Write(ResHandle)"}));
    EXPECT_EQ(Account(), "190/80/37");
}

TEST_F(Protocol, ReserveUpToWhatCouldEverBeFree) {
    storage_.limit = 100;
    storage_.reserved = 30;
    EXPECT_EQ(Ask("RESERVE 71"), "ERR No disk space left on storage. Size limit: 200");
    EXPECT_EQ(Account(), "100/200/30");
    EXPECT_EQ(Ask("RESERVE 70"), "OK 0");
    EXPECT_EQ(Account(), "100/200/100");
    EXPECT_EQ(Ask("RESERVE 1"), "ERR No disk space left on storage. Size limit: 200");
    EXPECT_EQ(Ask("RESERVE 0"), "OK 0");
}

TEST_F(Protocol, ReserveEvictsUntilThereIsRoom) {
    for (const char* day : {"01", "02", "03", "04"}) {
        Add("web1", std::string("2026-11-") + day, 20, kFull);
    }
    control_.max_count = 4;
    storage_.free_size = 50;
    EXPECT_EQ(Ask("RESERVE 80"), "OK 2");
    EXPECT_EQ(Account(), "200/90/80");
    EXPECT_EQ(storage_.users.at("web1").backups.begin()->first, "2026-11-03");
    EXPECT_EQ(control_.max_count, 2);
}

TEST_F(Protocol, ReserveCountsWhatIsAlreadyReserved) {
    Add("web1", "2026-11-01", 20, kFull);
    Add("web1", "2026-11-02", 20, kFull);
    control_.max_count = 2;
    storage_.free_size = 50;
    storage_.reserved = 40;
    EXPECT_EQ(Ask("RESERVE 10"), "OK 2");
    EXPECT_EQ(Ask("RESERVE 1"), "OK 1");
    EXPECT_EQ(Account(), "200/70/51");
}

TEST_F(Protocol, ReserveThatFindsNothingToDropSaysSo) {
    Add("web1", "2026-11-01", 20, kFull);
    Add("web1", "2026-11-02", 20, kDaily);
    control_.max_count = 2;
    storage_.free_size = 50;
    EXPECT_EQ(Ask("RESERVE 60"), "ERR No space left. But all backups are locked");
    EXPECT_EQ(Account(), "200/50/0");
    EXPECT_EQ(control_.max_count, 0);
    EXPECT_EQ(storage_.users.at("web1").backups.size(), 2U);
}

TEST_F(Protocol, ReserveThatEvictionsCannotMeetDeletesNothing) {
    for (const char* day : {"01", "02", "03", "04"}) {
        Add("web1", std::string("2026-11-") + day, 20, kFull);
    }
    control_.max_count = 4;
    storage_.free_size = 50;
    // A custom backup does not lower the limit. The limit is therefore higher than the space that
    // evictions can free.
    EXPECT_EQ(Ask("COMPLETE web1 custom custom 50"), "OK 4");
    EXPECT_EQ(Ask("RESERVE 61"), "ERR No space left. But all backups are locked");
    EXPECT_EQ(Account(), "200/0/0");
    EXPECT_EQ(control_.max_count, 4);
    EXPECT_EQ(storage_.users.at("web1").backups.size(), 4U);
    EXPECT_EQ(
        Log(4),
        (Lines{"4: Evictions cannot free enough space: 61 bytes are requested, but all evictions "
               "together would free only 60 bytes. Nothing was deleted. Check --size-limit and "
               "the sizes in the info files"}));
    EXPECT_EQ(Ask("RESERVE 60"), "OK 1");
    EXPECT_EQ(storage_.users.at("web1").backups.size(), 1U);
}

TEST_F(Protocol, ReserveCountsOnNoLockedBackup) {
    for (const char* day : {"01", "02", "03"}) {
        Add("web1", std::string("2026-11-") + day, 20, kFull);
    }
    storage_.users.at("web1").backups.at("2026-11-02").locked = true;
    control_.max_count = 3;
    storage_.free_size = 0;
    EXPECT_EQ(Ask("RESERVE 21"), "ERR No space left. But all backups are locked");
    EXPECT_EQ(storage_.users.at("web1").backups.size(), 3U);
    EXPECT_EQ(Ask("RESERVE 20"), "OK 2");
    EXPECT_EQ(storage_.users.at("web1").backups.begin()->first, "2026-11-02");
}

TEST_F(Protocol, ReserveWhoseEvictionFailsAnswersWithTheReason) {
    Add("web1", "2026-11-01", 20, kFull);
    Add("web1", "2026-11-02", 20, kFull);
    control_.path = root_.path();
    control_.max_count = 2;
    storage_.free_size = 0;
    Place("2026-11-01.web1.info", std::string("size\0=1", 7));
    EXPECT_EQ(Ask("RESERVE 10"),
              "ERR '" + root_.path() +
                  "/2026-11-01.web1.info' is not an info file: it contains a NUL byte");
    EXPECT_EQ(Account(), "200/0/0");
    EXPECT_EQ(control_.max_count, 2);
    EXPECT_EQ(storage_.users.at("web1").backups.size(), 2U);
}

TEST_F(Protocol, SizesAtTheEndsOfTheRange) {
    control_.size_limit = storage_.limit = storage_.free_size = kMaxSize;
    EXPECT_EQ(Ask("RESERVE 9223372036854775807"), "OK 0");
    EXPECT_EQ(storage_.reserved, kMaxSize);
    EXPECT_EQ(Ask("RESERVE 1"),
              "ERR No disk space left on storage. Size limit: 9223372036854775807");
    EXPECT_EQ(Ask("RESERVE 9223372036854775808"), "ERR '9223372036854775808' is out of range");
    EXPECT_EQ(Ask("RELEASE 9223372036854775807"), "OK");
    EXPECT_EQ(storage_.reserved, 0);
    storage_.reserved = -10;
    EXPECT_EQ(Ask("RESERVE 5"), "OK 0") << "limit less a negative number does not wrap round";
    EXPECT_EQ(storage_.reserved, -5);
}

TEST_F(Protocol, SizesThatAreNoneAreRefused) {
    for (const char* word : {"RESERVE ", "RELEASE ", "COMPLETE web1 2026-11-01 full "}) {
        const std::string head = word;
        EXPECT_EQ(Ask(head + "-1"), "ERR '-1' is not a size");
        EXPECT_EQ(Ask(head + "-9223372036854775808"), "ERR '-9223372036854775808' is not a size");
        EXPECT_EQ(Ask(head + "9223372036854775808"), "ERR '9223372036854775808' is out of range");
        EXPECT_EQ(Ask(head + "10G"), "ERR '10G' is not a whole decimal number");
        EXPECT_EQ(Ask(head + "1 2"), "ERR '1 2' is not a whole decimal number");
    }
    EXPECT_EQ(Account(), "200/200/0");
    EXPECT_TRUE(storage_.users.empty());
}

// --- COMPLETE ---

TEST_F(Protocol, CompleteRecordsTheBackup) {
    control_.max_count = 5;
    EXPECT_EQ(Ask("COMPLETE web1 2026-11-15 full 30"), "OK 5");
    EXPECT_EQ(Ask("COMPLETE web1 2026-11-16 incremental 10"), "OK 5");
    const auto& backups = storage_.users.at("web1").backups;
    ASSERT_EQ(backups.size(), 2U);
    EXPECT_EQ(backups.at("2026-11-15").size, 30);
    EXPECT_EQ(backups.at("2026-11-15").type, kFull);
    EXPECT_EQ(backups.at("2026-11-16").size, 10);
    EXPECT_EQ(backups.at("2026-11-16").type, kDaily);
    EXPECT_FALSE(backups.at("2026-11-16").locked);
    EXPECT_EQ(Account(), "160/160/0");
    EXPECT_EQ(control_.max_count, 5) << "a completion does not raise it";
}

TEST_F(Protocol, CompleteWritesItsAccount) {
    Add("web1", "2026-11-15", 30, kFull);
    EXPECT_EQ(Ask("COMPLETE web1 2026-11-16 incremental 10"), "OK 0");
    EXPECT_EQ(Log(),
              (Lines{"8: ProcessCommand line = 'COMPLETE web1 2026-11-16 incremental 10'",
                     "9: quarn2_cp2_server.cpp:184 available_size = 200, locked_before = 30, "
                     "locked_after = 40",
                     "8: SaveResult result = 'OK 0'",
                     "8: quarn2::Expect::Result* MasterSide::Write(ResHandle)"}));
}

TEST_F(Protocol, CompleteMovesTheLimitByTheLockedSizes) {
    Add("web1", "2026-11-15", 30, kFull);
    Add("web1", "2026-11-16", 10, kDaily);
    storage_.limit = 160;
    storage_.free_size = 160;
    EXPECT_EQ(Ask("COMPLETE web1 2026-11-17 incremental 5"), "OK 0");
    EXPECT_EQ(Account(), "165/155/0");
    EXPECT_EQ(Ask("COMPLETE web1 2026-11-18 full 50"), "OK 0");
    EXPECT_EQ(Account(), "150/105/0");
}

TEST_F(Protocol, CompleteOverwritesARecordOfTheDate) {
    Add("web1", "2026-11-15", 30, kDaily);
    storage_.users.at("web1").backups.at("2026-11-15").locked = true;
    storage_.limit = storage_.free_size = 170;
    EXPECT_EQ(Ask("COMPLETE web1 2026-11-15 full 50"), "OK 0");
    const BackupInfo& backup = storage_.users.at("web1").backups.at("2026-11-15");
    EXPECT_EQ(backup.size, 50);
    EXPECT_EQ(backup.type, kFull);
    EXPECT_TRUE(backup.locked);
    EXPECT_EQ(Account(), "150/120/0");
}

TEST_F(Protocol, CompleteEndsEveryReservation) {
    EXPECT_EQ(Ask("RESERVE 10"), "OK 0");
    EXPECT_EQ(Ask("RESERVE 10"), "OK 0");
    EXPECT_EQ(Account(), "200/200/20");
    EXPECT_EQ(Ask("COMPLETE web1 2026-11-15 full 10"), "OK 0");
    EXPECT_EQ(Account(), "190/190/0");
}

TEST_F(Protocol, CompleteOfAnotherTypeOnlyUsesSpace) {
    storage_.reserved = 5;
    for (const char* type : {"custom", "differential", "", "Full"}) {
        EXPECT_EQ(Ask(std::string("COMPLETE web1 custom ") + type + " 30"), "OK 0") << type;
    }
    EXPECT_EQ(Account(), "200/80/0");
    ASSERT_EQ(storage_.users.size(), 1U);
    EXPECT_TRUE(storage_.users.at("web1").backups.empty());
}

TEST_F(Protocol, CompleteOfACustomBackupIsNoRecordOfTheUser) {
    EXPECT_EQ(Ask("COMPLETE web1 2026-11-15 full 10"), "OK 0");
    for (const char* type : {"full", "incremental"}) {
        EXPECT_EQ(Ask(std::string("COMPLETE web1 custom ") + type + " 30"), "OK 0") << type;
    }
    EXPECT_EQ(Account(), "190/130/0");
    EXPECT_EQ(storage_.users.at("web1").backups.size(), 1U);
}

TEST_F(Protocol, CompleteWithoutASizeIsABackupOfNoBytes) {
    EXPECT_EQ(Ask("COMPLETE web1 2026-11-15 full"), "OK 0");
    EXPECT_EQ(storage_.users.at("web1").backups.at("2026-11-15").size, 0);
}

TEST_F(Protocol, HostileNamesAreRefused) {
    const std::string dots(300, 'x');
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"COMPLETE ../../etc/passwd 2026-11-15 full 1",
         "ERR '2026-11-15.../../etc/passwd' is not a valid backup name"},
        {"COMPLETE web1 ../x full 1", "ERR '../x.web1' is not a valid backup name"},
        {"COMPLETE /a 2026-11-15 full 1", "ERR '2026-11-15./a' is not a valid backup name"},
        {"COMPLETE we\tb 2026-11-15 full 1", "ERR '2026-11-15.we\tb' is not a valid backup name"},
        {"COMPLETE", "ERR '.' is not a valid backup name"},
        {"COMPLETE  . full 1", "ERR '..' is not a valid backup name"},
        {"COMPLETE " + dots + " 2026-11-15 full 1",
         "ERR '2026-11-15." + dots + "' is not a valid backup name"}};
    for (const auto& [line, answer] : cases) EXPECT_EQ(Ask(line), answer);
    EXPECT_TRUE(storage_.users.empty());
    EXPECT_EQ(Account(), "200/200/0");
}

// --- DROPONE ---

TEST_F(Protocol, DropOneWithASizeLimitDropsNothing) {
    Add("web1", "2026-11-01", 20, kFull);
    Add("web1", "2026-11-02", 20, kFull);
    control_.max_count = 2;
    EXPECT_EQ(Ask("DROPONE 1"), "ERR Upload failed and limit is set");
    EXPECT_EQ(storage_.users.at("web1").backups.size(), 2U);
    EXPECT_EQ(control_.max_count, 2);
}

TEST_F(Protocol, DropOneWithoutALimitIsOnePass) {
    control_.size_limit = storage_.limit = storage_.free_size = kMaxSize;
    Add("web1", "2026-11-01", 20, kFull);
    Add("web1", "2026-11-02", 20, kFull);
    control_.max_count = 2;
    EXPECT_EQ(Ask("DROPONE 2"), "OK") << "keeps as many as there are";
    EXPECT_EQ(storage_.users.at("web1").backups.size(), 2U);
    EXPECT_EQ(Ask("DROPONE 1"), "OK");
    EXPECT_EQ(storage_.users.at("web1").backups.size(), 1U);
    EXPECT_EQ(control_.max_count, 1);
    EXPECT_EQ(Ask("DROPONE -1"), "ERR No space left. But all backups are locked");
    EXPECT_EQ(Ask("DROPONE 2147483648"), "ERR '2147483648' is out of range");
    EXPECT_EQ(Ask("DROPONE x"), "ERR 'x' is not a whole decimal number");
    EXPECT_EQ(storage_.users.at("web1").backups.size(), 1U);
}

// --- RELEASE ---

TEST_F(Protocol, ReleaseHasNoFloor) {
    storage_.reserved = 30;
    EXPECT_EQ(Ask("RELEASE 10"), "OK");
    EXPECT_EQ(storage_.reserved, 20);
    EXPECT_EQ(Ask("RELEASE 50"), "OK");
    EXPECT_EQ(storage_.reserved, -30);
    EXPECT_EQ(Ask("RELEASE"), "OK");
    EXPECT_EQ(storage_.reserved, -30);
    storage_.reserved = kMinSize;
    EXPECT_EQ(Ask("RELEASE 1"), "OK");
    EXPECT_EQ(storage_.reserved, kMinSize);
}

// --- The end of a session ---

TEST_F(Protocol, ASessionThatEndsTakesItsReservationsWithIt) {
    auto other = std::make_unique<SessionLink>(storage_);
    EXPECT_EQ(Ask("RESERVE 50"), "OK 0");
    EXPECT_EQ(other->Answer("RESERVE 100"), "OK 0");
    EXPECT_EQ(other->Answer("RESERVE 20"), "OK 0");
    EXPECT_EQ(other->Answer("RELEASE 10"), "OK");
    EXPECT_EQ(storage_.reserved, 160);
    ClearLog();
    other->session()->Close();
    EXPECT_EQ(storage_.reserved, 50);
    EXPECT_EQ(Log(), (Lines{"5: The session has ended: 110 reserved bytes are free again"}));
    other.reset();
    EXPECT_EQ(storage_.reserved, 50) << "only once";
    EXPECT_EQ(Ask("RESERVE 150"), "OK 0");
}

TEST_F(Protocol, ASessionsReservationsFromBeforeACompletionAreGoneAlready) {
    SessionLink other(storage_);
    EXPECT_EQ(other.Answer("RESERVE 30"), "OK 0");
    EXPECT_EQ(Ask("COMPLETE web1 2026-11-15 full 10"), "OK 0");
    EXPECT_EQ(Ask("RESERVE 40"), "OK 0");
    other.session()->Close();
    EXPECT_EQ(storage_.reserved, 40);

    SessionLink third(storage_);
    EXPECT_EQ(third.Answer("RESERVE 30"), "OK 0");
    EXPECT_EQ(Ask("COMPLETE web1 2026-11-16 full 10"), "OK 0");
    EXPECT_EQ(third.Answer("RESERVE 5"), "OK 0");
    third.session()->Close();
    EXPECT_EQ(storage_.reserved, 0);
}

TEST_F(Protocol, ASessionThatReleasedTooMuchTakesThatWithItToo) {
    SessionLink other(storage_);
    EXPECT_EQ(other.Answer("RESERVE 10"), "OK 0");
    EXPECT_EQ(other.Answer("RELEASE 50"), "OK");
    EXPECT_EQ(storage_.reserved, -40);
    other.session()->Close();
    EXPECT_EQ(storage_.reserved, 0);
}

TEST_F(Protocol, ALinkThatBreaksIsTheSessionsEnd) {
    SessionLink other(storage_);
    EXPECT_EQ(other.Answer("RESERVE 10"), "OK 0");
    other.client_output().Close();
    EXPECT_EQ(other.session()->Read(other.read_end()), quarn2::Expect::erClose);
    EXPECT_EQ(storage_.reserved, 0);
}

// --- Other lines ---

TEST_F(Protocol, OtherWordsGetNoFrameAtAll) {
    for (const char* line : {"PING", "", " RESERVE 1", "reserve 1", "RESERVED 1", "OK"}) {
        EXPECT_EQ(link_.Answers(line), Lines()) << line;
    }
    EXPECT_EQ(Account(), "200/200/0");
}

}  // namespace
