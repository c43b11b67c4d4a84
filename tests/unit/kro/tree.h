// A tree of options with all features of the program's options: commands in a group, a letter and a
// name that two commands share, groups below commands, defaults, multiple values.
#pragma once

#include "kro/kro_args.h"

inline void DeclareTree(kro_args::Args& args) {
    args.AddOption("server", 's', "Start server")
        .SetGroup("command")
        .AddSuboption("date", 'D', "current backup date")
        .SetParam()
        .SetGroup("subcommand")
        .AddOption("size-limit", 'S', "maximum storage size to use")
        .SetDefault("0")
        .AddOption("path", 'P', "local storage path")
        .SetDefault("var/backup/tovarn")
        .AddOption(
            "node", 'N',
            "remote node name or IP. Space control client (--client) will be started on each "
            "of specified nodes")
        .SetMultiple()
        .AddOption("ssh-key", 'I', "ssh key to access to node")
        .SetDefault("etc/.ssh/master_id")
        .AddOption("rescan", 'R', "reload backup index files from remote storage")
        .SetGroup("subcommand")
        .Last()
        .AddOption("client", 'c', "Start client")
        .SetGroup("command")
        .AddOption("put", 'p', "Upload file to storage")
        .SetGroup("command")
        .AddSuboption("info-file", 'I', "filename to store backup info")
        .SetParam()
        .AddOption("last_slice", ' ', "last slice file")
        .SetGroup("tovtar")
        .AddOption("operation", ' ', "middle slice")
        .SetGroup("tovtar")
        .AddOption("isolated", ' ', "the last file of backup")
        .Last()
        .AddOption("delete", 'd', "delete selected backup")
        .SetGroup("command")
        .AddSuboption("force", 'f', "delete depended backups too")
        .Last()
        .AddOption("get", 'g', "Download file from storage")
        .SetGroup("command")
        .AddSuboption("operation", ' ', "middle slice")
        .AddOption("tmp-file", ' ', "file to store filename")
        .SetParam()
        .Last()
        .AddOption("clear", ' ', "Delete all files from storage")
        .SetGroup("command");
}

inline void ParseWords(kro_args::Args& args, std::vector<std::string> words) {
    words.insert(words.begin(), "prog");
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    args.Parse(static_cast<int>(words.size()), argv.data());
}
