// Backups of one user as a text. Each letter is a record, the oldest first (F full, D daily, x
// another type, small letters f and d locked). A blank is a day without a record. The records are
// named A, B, C... by age, and their sizes are 1, 2, 4...
#pragma once

#include <cctype>
#include <cstdint>
#include <string>

#include "quarn2_cp2_server_chain.h"

namespace backup_letters {

inline std::string DateOf(std::size_t index) { return "2026-11-" + std::to_string(10 + index); }

inline char NameOf(const std::string& date) {
    return static_cast<char>('A' + std::stoi(date.substr(8)) - 10);
}

inline Backups Of(const std::string& letters) {
    Backups backups;
    for (std::size_t i = 0; i < letters.size(); ++i) {
        if (letters[i] == ' ') continue;
        const char kind = static_cast<char>(std::toupper(letters[i]));
        const int type = kind == 'F' ? 0 : kind == 'D' ? 1 : 2;
        backups[DateOf(i)] = {std::int64_t{1} << i, type, letters[i] == 'f' || letters[i] == 'd'};
    }
    return backups;
}

inline std::string Names(const Backups& backups) {
    std::string names;
    for (const auto& [date, backup] : backups) names += NameOf(date);
    return names;
}

inline std::string Names(const Chain& chain) {
    std::string names;
    for (const Backups::value_type* record : chain) names += NameOf(record->first);
    return names;
}

}  // namespace backup_letters
