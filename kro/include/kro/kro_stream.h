// Buffered reading of a file, line by line.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "kro/res_handle.h"

namespace kro_stream {

// A file opened for buffered reading. A missing file counts as empty. When the file cannot be
// opened or read, throws kro_err::Error.
class Input {
  public:
    explicit Input(const std::string& path);

  private:
    friend bool GetLine(Input& input, std::string& line, char separator);
    bool Fill();

    std::string path_;
    ResHandle handle_;
    std::vector<char> buffer_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
};

// Reads the next line into `line`, without its separator. Returns false at the end of the file. The
// last line may lack a separator.
bool GetLine(Input& input, std::string& line, char separator = '\n');

}  // namespace kro_stream
