// Parses the command line.
#include <algorithm>
#include <cstdio>
#include <functional>

#include "kro/kro_args.h"

namespace kro_args {

namespace {

struct Program {
    std::string name;
    std::string version;
};

Program& TheProgram() {
    static Program program;
    return program;
}

// Joins option names: "--put", "--put and --get", "--put, --get and --server".
std::string Listed(const std::vector<std::string>& names) {
    std::string text;
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (i > 0) text += i + 1 == names.size() ? " and " : ", ";
        text += "--" + names[i];
    }
    return text;
}

}  // namespace

class Parser {
  public:
    Parser(const Args& args, Result& result) : args_(args), result_(result) {
        for (const auto& option : args_.options_) AddDefaults(*option);
    }

    void Parse(std::vector<std::string> words) {
        words_ = std::move(words);
        while (next_ < words_.size()) {
            const std::string word = words_[next_++];
            if (word == "--") {
                while (next_ < words_.size()) result_.positional_.push_back(words_[next_++]);
            } else if (word.starts_with("--")) {
                Long(word);
            } else if (word.size() > 1 && word.front() == '-') {
                Letters(word);
            } else {
                result_.positional_.push_back(word);
            }
        }
    }

  private:
    using Match = std::function<bool(const Arg&)>;

    // Sets the defaults of an option and its suboptions. The default of a suboption applies even
    // when the parent option is not given. When several options have a suboption of the same name,
    // the default of the first applies until one of these options is given.
    void AddDefaults(const Arg& option) {
        if (option.has_default_) result_.defaults_.emplace(option.name_, option.default_);
        for (const auto& child : option.children_) AddDefaults(*child);
    }

    void Long(const std::string& word) {
        const std::size_t equals = word.find('=');
        const std::string shown = word.substr(0, equals);
        const std::string name = shown.substr(2);
        const bool has_value = equals != word.npos;
        if (name == "help" || name == "version") {
            if (has_value) throw UsageError(shown + " takes no value");
            ThrowAfterPrinting(name);
        }
        const Arg& option = Find([&name](const Arg& arg) { return arg.name_ == name; }, shown);
        if (!option.takes_value_) {
            if (has_value) throw UsageError(shown + " takes no value");
            Give(option);
        } else {
            GiveValue(option, has_value ? word.substr(equals + 1) : NextValue(shown));
        }
    }

    void Letters(const std::string& word) {
        for (std::size_t i = 1; i < word.size(); ++i) {
            const char letter = word[i];
            // Shows the complete word when the letter is a byte of a multibyte character, because
            // this byte alone would make the message unreadable.
            const bool plain = letter > ' ' && letter < '\x7f';
            const std::string shown = plain ? std::string{'-', letter} : word;
            const Arg& option = Find(
                [letter](const Arg& arg) { return arg.letter_ == letter && letter != ' '; }, shown);
            if (option.takes_value_) {
                return GiveValue(option,
                                 i + 1 < word.size() ? word.substr(i + 1) : NextValue(shown));
            }
            Give(option);
        }
    }

    std::string NextValue(const std::string& shown) {
        if (next_ == words_.size()) throw UsageError(shown + " needs a value");
        return words_[next_++];
    }

    // Searches the suboptions of the options that were given, and then the top-level options.
    // Suboptions of the most recent option take precedence.
    const Arg& Find(const Match& match, const std::string& shown) const {
        for (auto command = given_.rbegin(); command != given_.rend(); ++command) {
            if (const Arg* found = FindIn((*command)->children_, match)) return *found;
        }
        if (const Arg* found = FindIn(args_.options_, match)) return *found;
        ThrowUnknown(match, shown);
    }

    static const Arg* FindIn(const std::vector<std::unique_ptr<Arg>>& options, const Match& match) {
        const auto found = std::find_if(options.begin(), options.end(),
                                        [&match](const auto& option) { return match(*option); });
        return found == options.end() ? nullptr : found->get();
    }

    // Adds the names of the options that have a matching suboption to `names`.
    static void Owners(const std::vector<std::unique_ptr<Arg>>& options, const Match& match,
                       std::vector<std::string>& names) {
        for (const auto& option : options) {
            if (FindIn(option->children_, match) != nullptr) names.push_back(option->name_);
            Owners(option->children_, match, names);
        }
    }

    [[noreturn]] void ThrowUnknown(const Match& match, const std::string& shown) const {
        std::vector<std::string> owners;
        Owners(args_.options_, match, owners);
        if (owners.empty()) throw UsageError("unknown option " + shown);
        throw UsageError(shown + " belongs to " + Listed(owners) + " and must come after " +
                         (owners.size() == 1 ? "it" : "one of them"));
    }

    void Give(const Arg& option) {
        if (!option.group_.empty()) {
            const auto [chosen, is_new] = result_.groups_.emplace(option.group_, option.name_);
            if (!is_new && chosen->second != option.name_) {
                throw UsageError(Listed({chosen->second, option.name_}) +
                                 " cannot be given together");
            }
        }
        result_.values_[option.name_];
        if (std::find(given_.begin(), given_.end(), &option) != given_.end()) return;
        given_.push_back(&option);
        for (const auto& child : option.children_) {
            if (child->has_default_) result_.defaults_[child->name_] = child->default_;
        }
    }

    void GiveValue(const Arg& option, const std::string& value) {
        Give(option);
        result_.values_[option.name_].push_back(value);
    }

    [[noreturn]] void ThrowAfterPrinting(const std::string& name) const {
        if (name == "help") {
            args_.Usage("");
        } else {
            std::printf("%s %s\n", TheProgram().name.c_str(), TheProgram().version.c_str());
            std::fflush(stdout);
        }
        throw EarlyExit{0};
    }

    const Args& args_;
    Result& result_;
    std::vector<std::string> words_;
    std::size_t next_ = 0;
    std::vector<const Arg*> given_;
};

void Args::Parse(int argc, char** argv) {
    result_ = std::make_shared<Result>();
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) words.emplace_back(argv[i]);
    Parser(*this, *result_).Parse(std::move(words));
}

void SetProgram(const std::string& name, const std::string& version) {
    TheProgram() = {name, version};
}

const std::string& ProgramName() { return TheProgram().name; }

}  // namespace kro_args
