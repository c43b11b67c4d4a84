#include "backup_common/quarn2_cp2.h"

#include <string>

#include "kro/kro_args.h"
#include "kro/kro_log.h"
#include "quarn2_cp2_get.h"
#include "quarn2_cp2_misc_clear.h"
#include "quarn2_cp2_misc_delete.h"
#include "quarn2_cp2_put.h"
#include "quarn2_cp2_server.h"

namespace {

constexpr char kNoLetter = ' ';

void DeclareOptions(kro_args::Args& args) {
    const char* const command = "command";
    const char* const subcommand = "subcommand";
    const char* const tovtar = "tovtar";
    // The indentation shows the tree of options.
    // clang-format off
    args.AddOption("server", 's', "Start storage disk space control server").SetGroup(command)
            .AddSuboption("date", 'D', "current backup date").SetParam().SetGroup(subcommand)
            .AddOption("size-limit", 'S', "maximum storage size to use").SetDefault("0")
            .AddOption("count-limit", 'C', "backups to store. First - full, second - daily").SetDefault("0")
            .AddOption("path", 'P', "local storage path").SetDefault("var/backup/tovarn")
            .AddOption("node", 'N', "remote node name or IP. Space control client (--client) will be "
                                    "started on each of specified nodes").SetParam().SetMultiple()
            .AddOption("ssh-key", 'I', "ssh key to access to node").SetDefault("etc/.ssh/master_id")
            .AddOption("storage", 'U', "start server for user individual storage").SetParam()
            .AddOption("rescan", 'R', "reload backup index files from remote storage").SetGroup(subcommand)
            .Last()
        .AddOption("client", 'c', "Start storage disk space control client. Space control server (--server) "
                                  "will start clients automatically. You shouldn't start it manually")
            .SetGroup(command)
        .AddOption("put", 'p', "Upload file to storage. You should start space control server (--server) "
                               "with proper --storage parameter before any --put call. To use individual "
                               "user storage you should set BACKUP_STORAGE environment variable")
            .SetGroup(command)
            .AddSuboption("info-file", 'I', "filename to store backup info").SetParam()
            .AddOption("last_slice", kNoLetter, "last slice file").SetGroup(tovtar)
            .AddOption("operation", kNoLetter, "middle slice").SetGroup(tovtar)
            .AddOption("isolated", kNoLetter, "this is the last file of backup. calculate total size and put "
                                              "info file to storage")
            .AddOption("convert", kNoLetter, "backup convert. do not touch times in info file")
            .AddOption("no-delete", kNoLetter, "do not delete file after upload")
            .Last()
        .AddOption("delete", 'd', "delete selected backup. Need .info file as param").SetGroup(command)
            .AddSuboption("force", 'f', "delete depended backups too")
            .Last()
        .AddOption("update", 'u', "Update file on storage").SetGroup(command)
        .AddOption("get", 'g', "Download file from storage").SetGroup(command)
            .AddSuboption("operation", kNoLetter, "middle slice")
            .AddOption("init", kNoLetter, "first call. quarn2_cp will list all files on storage and download "
                                          "last one")
            .AddOption("tmp-file", kNoLetter, "file to store filename that was downloaded last. quarn2_cp "
                                              "remove file with given name before downloading new one and "
                                              "save new filename into it after download will be finished")
            .SetParam()
            .Last()
        .AddOption("clear", kNoLetter, "Delete all files from storage").SetGroup(command);
    // clang-format on
}

// Runs a command that has one file argument. Does nothing when no command was given.
void RunFileCommand(const std::string& command, const kro_args::ResultPtr& result) {
    if (command == "put") {
        CommandPut(result);
    } else if (command == "delete") {
        CommandDelete(result);
    } else if (command == "update") {
        CommandUpdate(GetArgPath(result->Args(0)));
    } else if (command == "get") {
        CommandGet(result);
    }
}

}  // namespace

int tovmain(int argc, char** argv) {
    kro_log::Init("quarn2_cp", 5);
    kro_args::Args args(
        "Tovarn backup storage utility\n"
        "For any calls except --put and --client storage type should be set in storage access "
        "token in "
        "BACKUP_TOKEN environment variable");
    DeclareOptions(args);
    args.Parse(argc, argv);

    const std::string command = args->Param("command", -1);
    if (command == "server") {
        CommandServer(argc, argv, args.GetResult());
    } else if (command == "client") {
        CommandClient();
    } else if (command == "clear") {
        CommandClear();
    } else if (args->ArgsCount() == 1) {
        RunFileCommand(command, args.GetResult());
    } else {
        args.Usage("");
    }
    return 0;
}
