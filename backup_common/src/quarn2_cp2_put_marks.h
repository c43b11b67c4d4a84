// Marks of the uploads that are under way on a node, for the next node client when one dies: a
// backup must not be completed whose slice went down with it.
#pragma once

#include <memory>
#include <string>

#include "kro/kro_file.h"

// The mark of one upload, locked for as long as the object lives. It stays behind when the process
// dies, or when nobody has been told that the upload failed.
class UploadMark {
  public:
    UploadMark(const std::string& path, const std::string& text);

    // The upload is done, or its failure told.
    void Remove();

  private:
    std::string path_;
    kro_file::Lock lock_;
};

class UploadMarks {
  public:
    // `storage` is the name of a user's own storage, empty for the common one.
    explicit UploadMarks(const std::string& storage);

    // Marks the upload of `remote`, a file of the backup `key`. Waits for an upload of the same
    // file that another client has not finished yet.
    std::unique_ptr<UploadMark> Begin(const std::string& key, const std::string& remote) const;

    // Waits for what other clients still upload of this backup. std::runtime_error "Failed upload"
    // when one of its files was not uploaded to its end, nor again since.
    void CheckWhole(const std::string& key) const;

  private:
    std::string directory_;
};
