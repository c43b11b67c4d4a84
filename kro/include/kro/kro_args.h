// The command line parser: a tree of options, declared as one chain of calls.
//
// Accepts "--name VALUE", "--name=VALUE", "-x VALUE" and "-xVALUE". Short flags may be bundled.
// "--" ends the options. Positional arguments may be anywhere. A suboption is known after its
// parent option. An unknown option, a missing or unwanted value, a suboption without its parent
// option and two different members of one group are errors.
#pragma once

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace kro_args {

// Thrown for an invalid command line. The text names the error.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Thrown after --help or --version was printed. The program exits with this status.
struct EarlyExit {
    int status;
};

class Args;

// One option. Only the builder calls create it; the parser owns it.
class Arg {
  public:
    // Adds an option at this option's level and returns it. A `letter` of ' ' means none.
    Arg& AddOption(const std::string& name, char letter, const std::string& help);
    // Adds an option one level below this one and returns it.
    Arg& AddSuboption(const std::string& name, char letter, const std::string& help);
    // The option takes a value.
    Arg& SetParam();
    // The option takes a value. `value` applies when the option is not given.
    Arg& SetDefault(const std::string& value);
    // The option takes a value and may be given more than once. Every value is kept.
    Arg& SetMultiple();
    // At most one option of a group can be given. The group's value is that option's name.
    Arg& SetGroup(const std::string& group);
    // Ends this level and returns the parent option. Throws std::logic_error at the top level.
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

// The parsed command line.
class Result {
  public:
    // `index` -1: the last value given, else the default, else "". Other indexes: the value at that
    // index of a multiple option, "" beyond the last. For a group: the name of the chosen member.
    std::string Param(const std::string& name, int index = -1) const;
    // All given values, in the order of the command line.
    std::vector<std::string> Params(const std::string& name) const;
    // True when the option, or any member of the group, was given.
    bool Has(const std::string& name) const;
    // The positional argument at `index`, "" when the index is out of range.
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
    // `banner` is the beginning of the usage text.
    explicit Args(std::string banner);
    ~Args();
    Args(const Args&) = delete;
    Args& operator=(const Args&) = delete;

    Arg& AddOption(const std::string& name, char letter, const std::string& help);

    // Throws UsageError. For --help and --version, prints the text and throws EarlyExit.
    void Parse(int argc, char** argv);

    // The result of Parse.
    Result* operator->() const noexcept { return result_.get(); }
    const ResultPtr& GetResult() const noexcept { return result_; }

    // Prints the usage on standard output, followed by `text` unless it is empty.
    void Usage(const std::string& text) const;
    std::string UsageText() const;

  private:
    friend class Arg;
    friend class Parser;

    std::string banner_;
    std::vector<std::unique_ptr<Arg>> options_;
    ResultPtr result_;
};

// Sets the name and version that --version prints. The launcher calls it.
void SetProgram(const std::string& name, const std::string& version);
const std::string& ProgramName();

}  // namespace kro_args

// Normalises a path from the command line. A relative path stays relative. It refers to the install
// root, which is the working directory of every role.
std::string GetArgPath(const std::string& argument);
