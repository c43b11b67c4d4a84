// The stored files of a backup.
#include <gtest/gtest.h>

#include <stdexcept>

#include "report_files.h"

namespace {

std::string Text(const std::vector<StoredFile>& files) {
    std::string text;
    for (const StoredFile& file : files) {
        text += file.kind + " " + file.name + " " + (file.size ? std::to_string(*file.size) : "?") +
                "\n";
    }
    return text;
}

std::string Fault(const quarn2::InfoMap& info) {
    try {
        FilesOf(info, "web1", "2026-11-15", {"2026-11-15.web1.info", "", 0});
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "(none)";
}

const LocalFiles kLocal = {"2026-11-15.web1.info", "2026-11-15.web1.1.dar", 20};

TEST(ReportFiles, SlicesComeFirstThenTheIndexAndTheInfoFile) {
    const quarn2::InfoMap info = {
        {"last-slice", "F2026-11-15.web1.2.dar x"}, {"size", "100"}, {"node", "node1"}};
    EXPECT_EQ(Text(FilesOf(info, "web1", "2026-11-15", kLocal)),
              "slice F2026-11-15.web1.1.dar ?\nslice F2026-11-15.web1.2.dar ?\n"
              "index 2026-11-15.web1.1.dar 20\ninfo 2026-11-15.web1.info 44\n");
}

TEST(ReportFiles, TheSizeOfASingleSliceIsTheRest) {
    quarn2::InfoMap info = {{"last-slice", "web1/2026-11-15/F2026-11-15.web1.tgz"},
                            {"size", "200"}};
    EXPECT_EQ(Text(FilesOf(info, "web1", "2026-11-15", kLocal)),
              "slice web1/2026-11-15/F2026-11-15.web1.tgz 124\nindex 2026-11-15.web1.1.dar 20\n"
              "info 2026-11-15.web1.info 56\n");
    info["size"] = "9";
    EXPECT_EQ(FilesOf(info, "web1", "2026-11-15", kLocal)[0].size, std::nullopt);
    info["size"] = "many";
    EXPECT_EQ(FilesOf(info, "web1", "2026-11-15", kLocal)[0].size, std::nullopt);
}

TEST(ReportFiles, SizesOfEncryptedFilesAreUnknown) {
    const quarn2::InfoMap info = {
        {"last-slice", "F2026-11-15.web1.tgz"}, {"size", "200"}, {"key_hash", "h"}};
    EXPECT_EQ(Text(FilesOf(info, "web1", "2026-11-15", kLocal)),
              "slice F2026-11-15.web1.tgz ?\nindex 2026-11-15.web1.1.dar ?\n"
              "info 2026-11-15.web1.info 51\n");
}

TEST(ReportFiles, ASliceOfAnotherBackupIsRefused) {
    const std::string begin = "the info file of the backup for 2026-11-15 ";
    EXPECT_EQ(Fault({}),
              begin + "does not name the last slice, so the backup cannot be restored from it");
    for (const std::string slice :
         {"F2026-11-15.web2.1.dar", "F2026-11-14.web1.1.dar", "../F2026-11-15.web1.1.dar",
          "/etc/F2026-11-15.web1.1.dar", "web2/2026-11-15/F2026-11-15.web1.1.dar", "..",
          "F2026-11-15.web1.1.dar\x1b"}) {
        EXPECT_EQ(Fault({{"last-slice", slice}}),
                  begin + "names the slice '" + slice +
                      "', which does not belong to this backup; correct the info file");
    }
    EXPECT_EQ(Fault({{"last-slice", "F2026-11-15.web1.1.dar"}, {"role-x", "web2/2026-11-15/f"}}),
              begin +
                  "names the slice 'web2/2026-11-15/f', which does not belong to this backup; "
                  "correct the info file");
    EXPECT_EQ(Fault({{"last-slice", "F2026-11-15.web1.1.dar"}, {"role-x", "databases.tgz"}}),
              "(none)");
}

}  // namespace
