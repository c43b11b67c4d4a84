// The command line parser: a tree of options, declared as one chain of calls.
//
// Accepts "--name VALUE", "--name=VALUE", "-x VALUE" and "-xVALUE". Short flags may be bundled.
// After "--", all arguments are positional. Before "--", positional arguments may be between the
// options. A suboption is accepted only after its parent option. Errors are: an unknown option, a
// missing value, a value for an option that takes none, a suboption without its parent option, and
// two different members of one group.
#pragma once

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace kro_args {

// Thrown for an invalid command line. The text describes the error.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Thrown after --help or --version was printed. The program then exits with `status`.
struct EarlyExit {
    int status;
};

class Args;

// One option. AddOption and AddSuboption create it; Args owns it.
class Arg {
  public:
    // Adds an option with the same parent as this option and returns the new option. A `letter` of
    // ' ' means that the new option has no short form.
    Arg& AddOption(const std::string& name, char letter, const std::string& help);
    // Adds a suboption of this option and returns the suboption.
    Arg& AddSuboption(const std::string& name, char letter, const std::string& help);
    // The option takes a value.
    Arg& SetParam();
    // The option takes a value. `value` applies when the option is not given.
    Arg& SetDefault(const std::string& value);
    // The option takes a value and may be given more than once. Every value is kept.
    Arg& SetMultiple();
    // Adds the option to a group. A command line can contain only one option of a group.
    // Result::Param of the group returns the name of that option.
    Arg& SetGroup(const std::string& group);
    // Returns the parent option, so that the chain of calls continues there. Throws
    // std::logic_error for an option without a parent.
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
    // With `index` -1, returns the last value of the option; when the option was not given, its
    // default, or "" without a default. With another index, returns the value at that index of an
    // option that was given several times, or "" beyond the last value. For a group, returns the
    // name of the option that was given.
    std::string Param(const std::string& name, int index = -1) const;
    // All values of the option, in the order of the command line.
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

    // Throws UsageError when the command line is invalid. For --help and --version, prints the text
    // and throws EarlyExit.
    void Parse(int argc, char** argv);

    // The result of the last call of Parse.
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

// Normalises a path from the command line. A relative path stays relative to the install root,
// which is the working directory of every command.
std::string GetArgPath(const std::string& argument);
