// Parses command lines for the tests of functions that take parsed options.
#pragma once

#include <string>
#include <vector>

#include "kro/kro_args.h"

// Parses the words as arguments of quarn2_cp, with the options of all commands.
inline kro_args::ResultPtr Arguments(std::vector<std::string> words) {
    kro_args::Args args("");
    args.AddOption("date", ' ', "").SetParam();
    args.AddOption("rescan", ' ', "");
    args.AddOption("size-limit", ' ', "").SetDefault("0");
    args.AddOption("count-limit", ' ', "").SetDefault("0");
    args.AddOption("path", ' ', "").SetDefault("var/backup/tovarn");
    args.AddOption("node", ' ', "").SetMultiple();
    args.AddOption("ssh-key", ' ', "").SetDefault("etc/.ssh/master_id");
    args.AddOption("storage", ' ', "").SetParam();
    args.AddOption("info-file", ' ', "").SetParam();
    args.AddOption("last_slice", ' ', "").SetGroup("tovtar");
    args.AddOption("operation", ' ', "").SetGroup("tovtar");
    args.AddOption("isolated", ' ', "");
    args.AddOption("init", ' ', "");
    args.AddOption("tmp-file", ' ', "").SetParam();
    args.AddOption("convert", ' ', "");
    args.AddOption("no-delete", ' ', "");
    args.AddOption("force", ' ', "");
    words.insert(words.begin(), "quarn2_cp");
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    args.Parse(static_cast<int>(argv.size()), argv.data());
    return args.GetResult();
}
