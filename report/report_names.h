// The names of users in the output: as they are, or replaced by hashes (--anonymous).
#pragma once

#include <string>

class Names {
  public:
    // `key`: the key of the hashes. Without `is_anonymous`, names stay as they are.
    Names(bool is_anonymous, std::string key) : is_anonymous_(is_anonymous), key_(std::move(key)) {}

    // The name for the output, not escaped. The same name has the same hash in each run.
    std::string User(const std::string& user) const;

    // Replaces the user's name everywhere in a text, such as the name of a file.
    std::string In(const std::string& text, const std::string& user) const;

    // The date of a backup. The date of an info file that is not named DATE.USER.info can be any
    // text, also a name, so it is replaced by a hash.
    std::string Date(const std::string& date) const;

    // Replaces the complete text with "(left out)", because it may contain the name of any user.
    std::string Free(const std::string& text) const;

    // Returns only the file name of a path, because the name of a directory can contain the user's
    // name.
    std::string Path(const std::string& path) const;

  private:
    bool is_anonymous_;
    std::string key_;
};

// The key of the hashes of this machine: /etc/machine-id, or "" where this file is missing.
std::string HashKey();
