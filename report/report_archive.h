// The archives of a backup, and the programs that test them. The functions only process data,
// except FindProgram.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "report_files.h"

// A program that tests archives of one format.
struct Tester {
    // How the program reads an archive.
    enum class Input {
        kStream,    // all slices, one after another, on its standard input
        kFile,      // a single file, whose path is its last argument
        kRequests,  // dar: requests each slice by its number
    };

    std::string_view ending;  // of the archive's files, without the number of the slice
    std::vector<std::string> command;
    std::string_view package;  // the Debian package of the program
    Input input = Input::kStream;
};

// The slices of one archive of a backup, in order.
struct Archive {
    std::string name;  // without the number of the slice
    std::vector<std::string> slices;
    const Tester* tester = nullptr;  // null when no program can test the archive slice by slice
};

// The archives to which the files belong. `files` is the result of FilesOf.
std::vector<Archive> ArchivesOf(const std::vector<StoredFile>& files);

// The absolute path of a program in the directories of PATH, or "" when there is none. Ignores
// relative directories.
std::string FindProgram(const std::string& name);
