// Removes many files with few requests.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "kro/kro_err.h"
#include "quarn2_backend/storage_backend.h"
#include "service.h"
#include "unfinished.h"

namespace quarn2::s3 {

// Removes files like RemoveOne, with a result for each name. The steps are: find names that are
// directories, abort the unfinished uploads, remove the objects. If a step fails for a name, its
// object remains, so that the removal can be repeated.
class BulkRemoval {
  public:
    // At most `at_once` requests run at the same time. `is_supported` is set to false when the
    // server does not support requests that remove several objects; each object is then removed by
    // a separate request.
    BulkRemoval(Service& service, Unfinished& unfinished, std::size_t at_once, bool& is_supported)
        : service_(service),
          unfinished_(unfinished),
          at_once_(at_once),
          is_supported_(is_supported) {}

    StorageBackend::Errors Run(std::span<const std::string> names);

  private:
    using Keys = std::vector<std::string>;

    void FindKeys(std::span<const std::string> names);
    void RefuseDirectories();
    void RefuseDirectoriesIn(const std::string& directory, const Keys& keys);
    void RefuseDirectoriesOneByOne(const Keys& keys);
    void AbortUploads();
    void RemoveObjects();
    Keys RemoveTogether(const Keys& keys);
    bool CheckTogether(const Keys& keys, const net::HttpResult& result);
    void RemoveOneByOne(const Keys& keys);

    Keys Pending() const;
    std::string OperationText(const std::string& key) const;
    void Fail(const std::string& key, const kro_err::Error& error);
    // Runs `step`. If it throws kro_err::Error, records this error for all `keys`.
    void Step(const Keys& keys, const std::function<void()>& step);

    Service& service_;
    Unfinished& unfinished_;
    std::size_t at_once_;
    bool& is_supported_;
    std::multimap<std::string, std::size_t> positions_;  // the positions of each key in names_
    std::span<const std::string> names_;
    StorageBackend::Errors errors_;
};

}  // namespace quarn2::s3
