// A second, simple implementation of the server's accounting. It uses lists instead of maps, and
// every search starts at the oldest record. It is slow. Tests compare the server's results with it.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace simple_rules {

// A backup with its files on the local disk and on the storage.
struct Item {
    std::string user;
    std::string date;  // "custom" for a custom backup
    std::string type;
    std::int64_t size = 0;
    bool finished = true;
    bool deleted = false;
    std::vector<std::string> stored;  // its files on the storage
    std::vector<std::string> local;   // its files and directories below the info root
};

struct Record {
    std::string date;
    std::int64_t size = 0;
    bool full = false;
    bool locked = false;
};

struct User {
    std::string name;
    std::vector<Record> records;  // oldest first
};

struct Eviction {
    std::string user;
    std::string date;
    std::int64_t size = 0;
    friend bool operator==(const Eviction&, const Eviction&) = default;
};

inline std::string NextDay(const std::string& date, bool* sunday = nullptr) {
    using namespace std::chrono;
    const year_month_day day(year(std::stoi(date.substr(0, 4))),
                             month(static_cast<unsigned>(std::stoi(date.substr(5, 2)))),
                             std::chrono::day(static_cast<unsigned>(std::stoi(date.substr(8, 2)))));
    if (sunday != nullptr) *sunday = weekday(sys_days(day)) == Sunday;
    const year_month_day next(sys_days(day) + days(1));
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02u-%02u", static_cast<int>(next.year()),
                  static_cast<unsigned>(next.month()), static_cast<unsigned>(next.day()));
    return text;
}

class Rules {
  public:
    std::int64_t size_limit = 0;
    int full_limit = 0;
    int daily_limit = 0;
    std::string today;

    std::int64_t limit = 0;
    std::int64_t free = 0;
    std::int64_t reserved = 0;
    int max_count = 0;
    std::vector<User> users;  // sorted by name
    std::vector<Item> items;
    std::vector<Eviction> evictions;  // in the order of execution

    void Scan() {
        limit = free = size_limit;
        reserved = 0;
        for (User& user : users) user.records.clear();
        for (const Item& item : items) {
            if (item.finished) Count(item);
        }
        for (const Item& item : items) {
            if (item.finished && item.deleted && item.date != "custom") Fill(item);
        }
        for (User& user : users) {
            max_count = std::max(max_count, static_cast<int>(user.records.size()));
            limit -= Locked(user);
            for (const Record& record : user.records) free -= record.size;
        }
    }

    // Deletes the oldest deletable backup of each user with more than `keep` backups. Returns false
    // if `keep` is negative, because then nothing is left to delete.
    bool DropOldest(int keep) {
        if (keep < 0) return false;
        if (keep >= max_count) return true;
        for (User& user : users) {
            if (static_cast<int>(user.records.size()) <= keep) continue;
            for (std::size_t i = 0; i + 1 < user.records.size(); ++i) {
                if (user.records[i].locked) continue;
                if (user.records[i].full && !user.records[i + 1].full) continue;
                Delete(user, i);
                break;
            }
        }
        --max_count;
        return true;
    }

    // Calls DropOldest repeatedly until `wanted` bytes are free. Deletes nothing and returns false
    // if the deletions cannot free so much. Even then max_count becomes smaller, by the number of
    // calls that precede the first deletion.
    bool MakeRoom(std::int64_t wanted) {
        Rules trial = *this;
        bool possible = true;
        while (possible && trial.free < wanted) possible = trial.DropOldest(trial.max_count - 1);
        if (possible) {
            *this = trial;
            return true;
        }
        for (trial = *this; trial.DropOldest(trial.max_count - 1);) {
            if (trial.evictions.size() != evictions.size()) break;
            max_count = trial.max_count;
        }
        return false;
    }

    // Applies the limits as a server does when it starts. Changes nothing and returns false if the
    // backups cannot fit into the limits.
    bool FitIntoLimits() {
        Rules trial = *this;
        trial.DropByCount();
        if (!trial.MakeRoom(0)) return false;
        *this = trial;
        return true;
    }

    void DropByCount() {
        for (User& user : users) {
            while (DropOneDaily(user)) {
            }
            while (DropOneFull(user)) {
            }
        }
    }

    std::string Reserve(std::int64_t size) {
        if (size + reserved > limit) {
            return "ERR No disk space left on storage. Size limit: " + std::to_string(size_limit);
        }
        if (!MakeRoom(size + reserved)) return "ERR No space left. But all backups are locked";
        reserved += size;
        return "OK " + std::to_string(max_count);
    }

    std::string Complete(const std::string& name, const std::string& date, const std::string& type,
                         std::int64_t size) {
        User& user = UserOf(name);
        const std::int64_t before = Locked(user);
        if (type == "full" || type == "incremental") {
            Record& record = RecordOf(user, date);
            record.size = size;
            record.full = type == "full";
        }
        limit += before - Locked(user);
        free -= size;
        reserved = 0;
        return "OK " + std::to_string(max_count);
    }

    std::string DropOne(int count, bool has_limit) {
        if (has_limit) return "ERR Upload failed and limit is set";
        return DropOldest(count) ? "OK" : "ERR No space left. But all backups are locked";
    }

    std::string Release(std::int64_t size) {
        reserved -= size;
        return "OK";
    }

    User& UserOf(const std::string& name) {
        for (User& user : users) {
            if (user.name == name) return user;
        }
        users.push_back({name, {}});
        std::sort(users.begin(), users.end(),
                  [](const User& a, const User& b) { return a.name < b.name; });
        return UserOf(name);
    }

  private:
    static bool Has(const User& user, const std::string& date) {
        return std::any_of(user.records.begin(), user.records.end(),
                           [&](const Record& record) { return record.date == date; });
    }

    static Record& RecordOf(User& user, const std::string& date) {
        for (Record& record : user.records) {
            if (record.date == date) return record;
        }
        user.records.push_back({date});
        std::sort(user.records.begin(), user.records.end(),
                  [](const Record& a, const Record& b) { return a.date < b.date; });
        return RecordOf(user, date);
    }

    void Count(const Item& item) {
        if (item.date == "custom" || item.date > today) {
            limit -= item.size;
            free -= item.size;
        }
        if (item.date == "custom") return;
        User& user = UserOf(item.user);
        if (item.date > today) return;
        Record& record = RecordOf(user, item.date);
        record.size = item.size;
        record.full = item.type == "full";
    }

    void Fill(const Item& item) {
        User& user = UserOf(item.user);
        for (std::string day = item.date; day < today;) {
            bool sunday = false;
            const std::string next = NextDay(day, &sunday);
            if (!Has(user, day)) RecordOf(user, day).full = sunday;
            day = next;
        }
    }

    static std::int64_t Locked(const User& user) {
        if (user.records.empty()) return 0;
        const Record& newest = user.records.back();
        if (newest.full) return newest.size;
        for (std::size_t i = user.records.size(); i-- > 0;) {
            if (user.records[i].full) return newest.size + user.records[i].size;
        }
        return newest.size;
    }

    static int NumberOf(const User& user, bool full) {
        int number = 0;
        for (const Record& record : user.records) number += record.full == full ? 1 : 0;
        return number;
    }

    bool DropOneDaily(User& user) {
        if (NumberOf(user, false) <= daily_limit) return false;
        for (std::size_t i = 0; i < user.records.size(); ++i) {
            if (user.records[i].full || user.records[i].locked) continue;
            if (i + 1 == user.records.size()) return false;
            Delete(user, i);
            return true;
        }
        return false;
    }

    bool DropOneFull(User& user) {
        if (NumberOf(user, true) <= full_limit) return false;
        for (std::size_t i = 0; i + 1 < user.records.size(); ++i) {
            if (!user.records[i].full || user.records[i].locked) continue;
            if (!user.records[i + 1].full) continue;
            Delete(user, i);
            return true;
        }
        return false;
    }

    void Delete(User& user, std::size_t index) {
        const Record record = user.records[index];
        evictions.push_back({user.name, record.date, record.size});
        free += record.size;
        user.records.erase(user.records.begin() + static_cast<std::ptrdiff_t>(index));
        std::erase_if(items, [&](const Item& item) {
            return item.user == user.name && item.date == record.date;
        });
    }
};

}  // namespace simple_rules
