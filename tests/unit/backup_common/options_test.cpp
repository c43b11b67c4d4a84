// The option table and the selection of the command. This file replaces the functions of the
// commands with functions that record their calls.
#include <gtest/gtest.h>

#include "backup_common/quarn2_cp2.h"
#include "program_site.h"
#include "quarn2_cp2_get.h"
#include "quarn2_cp2_misc_clear.h"
#include "quarn2_cp2_misc_delete.h"
#include "quarn2_cp2_put.h"
#include "quarn2_cp2_server.h"

namespace {

struct Called {
    std::string command;
    kro_args::ResultPtr result;
    std::string path;
};

std::vector<Called>& Calls() {
    static std::vector<Called> calls;
    return calls;
}

}  // namespace

void CommandServer(int /*argc*/, char** /*argv*/, kro_args::ResultPtr args) {
    Calls().push_back({"server", std::move(args), ""});
}
void CommandClient() { Calls().push_back({"client", nullptr, ""}); }
void CommandClear() { Calls().push_back({"clear", nullptr, ""}); }
void CommandPut(std::shared_ptr<kro_args::Result> args) {
    Calls().push_back({"put", std::move(args), ""});
}
void CommandDelete(kro_args::ResultPtr result) {
    Calls().push_back({"delete", std::move(result), ""});
}
void CommandGet(kro_args::ResultPtr result) { Calls().push_back({"get", std::move(result), ""}); }
void CommandUpdate(const std::string& path) {
    if (path == "throws") throw std::runtime_error("left through");
    Calls().push_back({"update", nullptr, path});
}

namespace {

class Options : public ProgramSite {
  protected:
    Options() { Calls().clear(); }

    // Runs the program and stores its output in printed_.
    int Run(Lines words) {
        words.insert(words.begin(), "quarn2_cp");
        std::vector<char*> argv;
        for (std::string& word : words) argv.push_back(word.data());
        testing::internal::CaptureStdout();
        try {
            const int status = tovmain(static_cast<int>(argv.size()), argv.data());
            printed_ = testing::internal::GetCapturedStdout();
            return status;
        } catch (...) {
            printed_ = testing::internal::GetCapturedStdout();
            throw;
        }
    }

    // Returns the parse result that the only called command received.
    kro_args::ResultPtr Parsed(const Lines& words) {
        Calls().clear();
        EXPECT_EQ(Run(words), 0);
        EXPECT_EQ(Calls().size(), 1U);
        return Calls().empty() ? nullptr : Calls().front().result;
    }

    std::string UsageErrorOf(const Lines& words) {
        return TextOf<kro_args::UsageError>([&] { Run(words); });
    }

    std::string Help() {
        EXPECT_THROW(Run({"--help"}), kro_args::EarlyExit);
        return printed_;
    }

    std::string printed_;
};

std::string OneBlankBetweenWords(const std::string& text) {
    std::string words;
    std::istringstream stream(text);
    for (std::string word; stream >> word;) words += (words.empty() ? "" : " ") + word;
    return words;
}

// --- The table ---

TEST_F(Options, BannerAndEveryHelpTextInTheOrderOfTheTable) {
    EXPECT_EQ(
        OneBlankBetweenWords(Help()),
        "Tovarn backup storage utility For any calls except --put and --client storage type should "
        "be "
        "set in storage access token in BACKUP_TOKEN environment variable "
        "-s, --server Start storage disk space control server "
        "-D, --date VALUE current backup date "
        "-S, --size-limit VALUE maximum storage size to use (default: 0) "
        "-C, --count-limit VALUE backups to store. First - full, second - daily (default: 0) "
        "-P, --path VALUE local storage path (default: var/backup/tovarn) "
        "-N, --node VALUE remote node name or IP. Space control client (--client) will be started "
        "on "
        "each of specified nodes (may be given several times) "
        "-I, --ssh-key VALUE ssh key to access to node (default: etc/.ssh/master_id) "
        "-U, --storage VALUE start server for user individual storage "
        "-R, --rescan reload backup index files from remote storage "
        "-c, --client Start storage disk space control client. Space control server (--server) "
        "will "
        "start clients automatically. You shouldn't start it manually "
        "-p, --put Upload file to storage. You should start space control server (--server) with "
        "proper --storage parameter before any --put call. To use individual user storage you "
        "should "
        "set BACKUP_STORAGE environment variable "
        "-I, --info-file VALUE filename to store backup info "
        "--last_slice last slice file "
        "--operation middle slice "
        "--isolated this is the last file of backup. calculate total size and put info file to "
        "storage "
        "--convert backup convert. do not touch times in info file "
        "--no-delete do not delete file after upload "
        "-d, --delete delete selected backup. Need .info file as param "
        "-f, --force delete depended backups too "
        "-u, --update Update file on storage "
        "-g, --get Download file from storage "
        "--operation middle slice "
        "--init first call. quarn2_cp will list all files on storage and download last one "
        "--tmp-file VALUE file to store filename that was downloaded last. quarn2_cp remove file "
        "with "
        "given name before downloading new one and save new filename into it after download will "
        "be "
        "finished "
        "--clear Delete all files from storage "
        "--help Show this text --version Show the program's version");
}

TEST_F(Options, BannerHasTwoLines) {
    EXPECT_EQ(
        Help().substr(0, Help().find("\n\n")),
        "Tovarn backup storage utility\n"
        "For any calls except --put and --client storage type should be set in storage access "
        "token in BACKUP_TOKEN environment variable");
}

struct Row {
    const char* command;
    const char* option;
    char letter;  // ' ': none
    bool value;
};

const Row kRows[] = {
    {"server", "date", 'D', true},        {"server", "size-limit", 'S', true},
    {"server", "count-limit", 'C', true}, {"server", "path", 'P', true},
    {"server", "node", 'N', true},        {"server", "ssh-key", 'I', true},
    {"server", "storage", 'U', true},     {"server", "rescan", 'R', false},
    {"put", "info-file", 'I', true},      {"put", "last_slice", ' ', false},
    {"put", "operation", ' ', false},     {"put", "isolated", ' ', false},
    {"put", "convert", ' ', false},       {"put", "no-delete", ' ', false},
    {"delete", "force", 'f', false},      {"get", "operation", ' ', false},
    {"get", "init", ' ', false},          {"get", "tmp-file", ' ', true},
};

TEST_F(Options, EverySuboptionByItsNameAndItsLetter) {
    for (const Row& row : kRows) {
        Lines spellings = {std::string("--") + row.option};
        if (row.letter != ' ') spellings.push_back({'-', row.letter});
        for (const std::string& spelling : spellings) {
            SCOPED_TRACE(std::string(row.command) + " " + spelling);
            Lines words = {std::string("--") + row.command, spelling};
            if (row.value) words.push_back("value");
            words.push_back("file");
            const kro_args::ResultPtr result = Parsed(words);
            ASSERT_NE(result, nullptr);
            EXPECT_EQ(Calls().front().command, row.command);
            EXPECT_TRUE(result->Has(row.option));
            EXPECT_EQ(result->Param(row.option, -1), row.value ? "value" : "");
            EXPECT_EQ(result->ArgsCount(), 1);
            EXPECT_EQ(result->Args(0), "file");
        }
    }
}

TEST_F(Options, NoOtherLetterIsKnownUnderAnyCommand) {
    const std::map<std::string, std::string> top = {
        {"server", "DSCPNIUR"}, {"client", ""}, {"put", "I"}, {"delete", "f"},
        {"update", ""},         {"get", ""},    {"clear", ""}};
    for (const auto& [command, letters] : top) {
        for (char letter = 'A'; letter <= 'z'; ++letter) {
            if (letter > 'Z' && letter < 'a') continue;
            const std::string known = letters + "scpdug";
            if (known.find(letter) != std::string::npos) continue;
            SCOPED_TRACE(command + " -" + letter);
            const std::string error = UsageErrorOf({"--" + command, {'-', letter}, "x"});
            EXPECT_TRUE(error == std::string("unknown option -") + letter ||
                        error.starts_with(std::string("-") + letter + " belongs to "))
                << error;
        }
    }
}

TEST_F(Options, EveryCommandByItsNameAndItsLetter) {
    const std::vector<std::pair<std::string, std::string>> spellings = {
        {"--server", "server"}, {"-s", "server"}, {"--client", "client"}, {"-c", "client"},
        {"--put", "put"},       {"-p", "put"},    {"--delete", "delete"}, {"-d", "delete"},
        {"--update", "update"}, {"-u", "update"}, {"--get", "get"},       {"-g", "get"},
        {"--clear", "clear"}};
    for (const auto& [spelling, command] : spellings) {
        Calls().clear();
        EXPECT_EQ(Run({spelling, "file"}), 0);
        ASSERT_EQ(Calls().size(), 1U) << spelling;
        EXPECT_EQ(Calls().front().command, command);
    }
}

TEST_F(Options, ServerWithoutOptionsSeesTheDefaults) {
    const kro_args::ResultPtr result = Parsed({"--server"});
    EXPECT_EQ(result->Param("path", -1), "var/backup/tovarn");
    EXPECT_EQ(result->Param("size-limit", -1), "0");
    EXPECT_EQ(result->Param("count-limit", -1), "0");
    EXPECT_EQ(result->Param("ssh-key", -1), "etc/.ssh/master_id");
    EXPECT_EQ(result->Param("date", -1), "");
    EXPECT_EQ(result->Param("storage", -1), "");
    EXPECT_EQ(result->Param("node", -1), "");
    EXPECT_EQ(result->Params("node"), Lines());
    EXPECT_FALSE(result->Has("rescan"));
    EXPECT_EQ(result->Param("subcommand", -1), "");
    EXPECT_FALSE(result->Has("subcommand"));
}

TEST_F(Options, PutAndGetHaveNoDefaults) {
    EXPECT_EQ(Parsed({"--put", "f"})->Param("info-file", -1), "");
    EXPECT_EQ(Parsed({"--get", "f"})->Param("tmp-file", -1), "");
}

TEST_F(Options, TheLetterIHasTwoMeanings) {
    EXPECT_EQ(Parsed({"--put", "file", "-I", "info"})->Param("info-file", -1), "info");
    EXPECT_FALSE(Parsed({"--put", "file", "-I", "info"})->Has("ssh-key"));
    EXPECT_EQ(Parsed({"--server", "-I", "key"})->Param("ssh-key", -1), "key");
    EXPECT_FALSE(Parsed({"--server", "-I", "key"})->Has("info-file"));
}

TEST_F(Options, GroupCommandNamesTheCommand) {
    EXPECT_EQ(Parsed({"--server"})->Param("command", -1), "server");
    EXPECT_EQ(Parsed({"-p", "f"})->Param("command", -1), "put");
    EXPECT_EQ(UsageErrorOf({"--clear", "--put", "f"}),
              "--clear and --put cannot be given together");
}

TEST_F(Options, GroupSubcommandNamesDateOrRescan) {
    EXPECT_EQ(Parsed({"--server", "--rescan"})->Param("subcommand", -1), "rescan");
    EXPECT_EQ(Parsed({"--server", "--date", "2026-11-20"})->Param("subcommand", -1), "date");
    EXPECT_EQ(UsageErrorOf({"--server", "--rescan", "--date", "2026-11-20"}),
              "--rescan and --date cannot be given together");
    for (const char* other : {"size-limit", "count-limit", "path", "node", "ssh-key", "storage"}) {
        EXPECT_FALSE(Parsed({"--server", std::string("--") + other, "1"})->Has("subcommand"))
            << other;
    }
}

TEST_F(Options, GroupTovtarNamesLastSliceOrOperationOfPut) {
    EXPECT_EQ(Parsed({"--put", "f", "--last_slice"})->Param("tovtar", -1), "last_slice");
    EXPECT_EQ(Parsed({"--put", "f", "--operation"})->Param("tovtar", -1), "operation");
    EXPECT_TRUE(Parsed({"--put", "f", "--operation"})->Has("tovtar"));
    EXPECT_EQ(UsageErrorOf({"--put", "f", "--last_slice", "--operation"}),
              "--last_slice and --operation cannot be given together");
    EXPECT_FALSE(Parsed({"--put", "f", "--isolated", "--convert", "--no-delete"})->Has("tovtar"));
}

TEST_F(Options, OperationOfGetIsInNoGroup) {
    const kro_args::ResultPtr result = Parsed({"--get", "f", "--operation", "--init"});
    EXPECT_TRUE(result->Has("operation"));
    EXPECT_TRUE(result->Has("init"));
    EXPECT_FALSE(result->Has("tovtar"));
    EXPECT_FALSE(result->Has("subcommand"));
}

TEST_F(Options, NodeKeepsAllValuesInOrder) {
    EXPECT_EQ(Parsed({"--server", "--node", "b", "-N", "a", "--node=b"})->Params("node"),
              (Lines{"b", "a", "b"}));
}

TEST_F(Options, OfOtherValuesTheLastCounts) {
    EXPECT_EQ(Parsed({"--server", "-S", "1", "-S", "2"})->Param("size-limit", -1), "2");
}

TEST_F(Options, AValueMissingOrUnwantedIsAnError) {
    EXPECT_EQ(UsageErrorOf({"--server", "--date"}), "--date needs a value");
    EXPECT_EQ(UsageErrorOf({"--server", "--rescan=now"}), "--rescan takes no value");
    EXPECT_TRUE(Calls().empty());
}

// --- Dispatch ---

TEST_F(Options, ServerClientAndClearDoNotCountTheirArguments) {
    for (const char* command : {"server", "client", "clear"}) {
        for (const Lines& files : {Lines{}, Lines{"a"}, Lines{"a", "b"}}) {
            Calls().clear();
            Lines words = {std::string("--") + command};
            words.insert(words.end(), files.begin(), files.end());
            EXPECT_EQ(Run(words), 0);
            ASSERT_EQ(Calls().size(), 1U);
            EXPECT_EQ(Calls().front().command, command);
            EXPECT_EQ(printed_, "");
        }
    }
}

TEST_F(Options, FileCommandsWithAnyButOneArgumentPrintTheUsage) {
    const std::string help = Help();
    for (const char* command : {"put", "delete", "update", "get"}) {
        for (const Lines& files : {Lines{}, Lines{"a", "b"}, Lines{"a", "b", "c"}}) {
            Lines words = {std::string("--") + command};
            words.insert(words.end(), files.begin(), files.end());
            EXPECT_EQ(Run(words), 0);
            EXPECT_TRUE(Calls().empty()) << command;
            EXPECT_EQ(printed_, help);
        }
    }
}

TEST_F(Options, NoCommandAndNotOneArgumentPrintsTheUsage) {
    const std::string help = Help();
    for (const Lines& files : {Lines{}, Lines{"a", "b"}}) {
        EXPECT_EQ(Run(files), 0);
        EXPECT_EQ(printed_, help);
        EXPECT_TRUE(Calls().empty());
    }
}

TEST_F(Options, NoCommandAndOneArgumentDoesNothing) {
    EXPECT_EQ(Run({"file"}), 0);
    EXPECT_EQ(printed_, "");
    EXPECT_TRUE(Calls().empty());
}

TEST_F(Options, UpdateIsGivenTheNormalisedPath) {
    EXPECT_EQ(Run({"--update", "a//b/./c/"}), 0);
    ASSERT_EQ(Calls().size(), 1U);
    EXPECT_EQ(Calls().front().path, "a/b/c");
}

TEST_F(Options, WhatACommandThrowsPassesThrough) {
    EXPECT_EQ(TextOf<std::runtime_error>([&] { Run({"--update", "throws"}); }), "left through");
}

TEST_F(Options, TheLogIsNamedAfterTheProgramAndItsLevelIsFive) {
    EXPECT_EQ(Run({"file"}), 0);
    EXPECT_TRUE(kro_log::Enabled(5));
    EXPECT_FALSE(kro_log::Enabled(6));
    kro_log::Module("main").Text(5, "here");
    EXPECT_EQ(Log(), (Lines{"5: here"}));
}

}  // namespace
