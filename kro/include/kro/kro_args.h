// The command line: a tree of options, declared as one chain of calls.
//
// "--name VALUE", "--name=VALUE", "-x VALUE", "-xVALUE"; short flags may be bundled; "--" ends the
// options; positional arguments may stand anywhere. Suboptions are known once their top-level
// option has been seen. Nothing is guessed: an unknown option, a missing or unwanted value, a
// suboption without its command and two different members of one group are errors.
#pragma once

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace kro_args {

// A command line that cannot be used; the text says what is wrong with it.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The parser has done all there was to do (--help, --version): end with this status.
struct EarlyExit {
    int status;
};

class Args;

// One option; made by the builder calls only, owned by the parser.
class Arg {
  public:
    // A further option at this option's level. A `letter` of ' ' means none.
    Arg& AddOption(const std::string& name, char letter, const std::string& help);
    // The first option one level below this one.
    Arg& AddSuboption(const std::string& name, char letter, const std::string& help);
    // The option takes a value.
    Arg& SetParam();
    // The option takes a value and has this one when it is not given.
    Arg& SetDefault(const std::string& value);
    // May be given more than once, every value is kept.
    Arg& SetMultiple();
    // At most one option of a group can be given; the group's value is that option's name.
    Arg& SetGroup(const std::string& group);
    // Closes this level: the option above.
    Arg& Last();

  private:
    friend class Args;
    friend class Parser;
    friend class Result;
    Arg(Args* owner, Arg* parent, std::string name, char letter, std::string help);

    Args* owner_;
    Arg* parent_;  // null at the top level
    std::string name_;
    char letter_;
    std::string help_;
    bool takes_value_ = false;
    bool multiple_ = false;
    bool has_default_ = false;
    std::string default_;
    std::string group_;
    std::vector<std::unique_ptr<Arg>> children_;
};

// What a command line said.
class Result {
  public:
    // `index` -1: the last value given, else the default, else "". Other indexes: that value of a
    // multiple option, "" beyond the last. For a group: the chosen member's name.
    std::string Param(const std::string& name, int index = -1) const;
    // All values given, in order.
    std::vector<std::string> Params(const std::string& name) const;
    // True when the option, or any member of the group, was given.
    bool Has(const std::string& name) const;
    // The positional arguments. An index out of range is "".
    std::string Args(int index) const;
    int ArgsCount() const noexcept;

  private:
    friend class Parser;
    std::map<std::string, std::vector<std::string>> values_;
    std::map<std::string, std::string> defaults_;
    std::map<std::string, std::string> groups_;
    std::vector<std::string> positional_;
};

using ResultPtr = std::shared_ptr<Result>;

class Args {
  public:
    // `banner` heads the usage text.
    explicit Args(std::string banner);
    ~Args();
    Args(const Args&) = delete;
    Args& operator=(const Args&) = delete;

    Arg& AddOption(const std::string& name, char letter, const std::string& help);

    // Throws UsageError; prints and throws EarlyExit for --help and --version.
    void Parse(int argc, char** argv);

    // The result of Parse.
    Result* operator->() const noexcept { return result_.get(); }
    const ResultPtr& GetResult() const noexcept { return result_; }

    // Prints the usage and, when it is not empty, `text` below it, on standard output.
    void Usage(const std::string& text) const;
    std::string UsageText() const;

  private:
    friend class Arg;
    friend class Parser;

    std::string banner_;
    std::vector<std::unique_ptr<Arg>> options_;
    ResultPtr result_;
};

// What --version prints; for the launcher.
void SetProgram(const std::string& name, const std::string& version);
const std::string& ProgramName();

}  // namespace kro_args

// A path from the command line as the program uses it: normalised. A relative one stays relative,
// and so is relative to the install root, where every role works.
std::string GetArgPath(const std::string& argument);
