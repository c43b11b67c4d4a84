#include "report_names.h"

#include "kro/kro_date.h"
#include "kro/kro_file.h"
#include "kro/str.h"
#include "quarn2/name_hash.h"
#include "quarn2/names.h"

std::string Names::User(const std::string& user) const {
    if (!is_anonymous_ || user.empty()) return user;
    return "user-" + quarn2::HashName(key_, user);
}

std::string Names::In(const std::string& text, const std::string& user) const {
    if (!is_anonymous_ || user.empty()) return text;
    const std::string hash = User(user);
    std::string replaced;
    std::size_t begin = 0;
    for (std::size_t found = text.find(user); found != text.npos; found = text.find(user, begin)) {
        replaced += text.substr(begin, found - begin) + hash;
        begin = found + user.size();
    }
    return replaced + text.substr(begin);
}

std::string Names::Date(const std::string& date) const {
    if (!is_anonymous_ || date.empty() || date == "custom" || kro_date::IsDate(date)) return date;
    return "name-" + quarn2::HashName(key_, date);
}

std::string Names::Free(const std::string& text) const {
    return is_anonymous_ && !text.empty() ? "(left out)" : text;
}

std::string Names::Path(const std::string& path) const {
    if (!is_anonymous_ || path.empty()) return path;
    const std::string name = kro_file::Name(path);
    const std::string user = quarn2::GetUserName(name);
    const std::string date = quarn2::GetDate(name);
    if (user.empty() || Date(date) != date) return "name-" + quarn2::HashName(key_, name);
    return In(name, user);
}

std::string HashKey() { return std::string(str::Trimmed(kro_file::ReadE("/etc/machine-id"))); }
