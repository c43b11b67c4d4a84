// Implements the declaration of options, the access to parsed values and the usage text.
#include "kro/kro_args.h"

#include <algorithm>
#include <cstdio>

#include "kro/kro_file.h"

namespace kro_args {

namespace {

constexpr std::size_t kLineWidth = 79;
constexpr std::size_t kIndent = 4;
constexpr std::size_t kMargin = 2;
constexpr std::size_t kGap = 2;

// A row of the usage text: an option and its help.
struct Row {
    std::string option;
    std::string help;
};

// Formats an option as "-s, --server", indented. Omits the letter when the option has none.
std::string OptionColumn(std::size_t depth, char letter, const std::string& name) {
    std::string column(kMargin + depth * kIndent, ' ');
    column += letter == ' ' ? "    " : std::string{'-', letter, ',', ' '};
    return column + "--" + name;
}

// Breaks the text into lines at blanks. Indents every line but the first to `column`.
std::string Wrapped(const std::string& text, std::size_t column) {
    std::string wrapped;
    std::size_t used = column;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find(' ', begin), text.size());
        const std::string word = text.substr(begin, end - begin);
        begin = end + 1;
        if (used == column) {
            wrapped += word;
        } else if (used + 1 + word.size() <= kLineWidth) {
            wrapped += ' ' + word;
            ++used;
        } else {
            wrapped += '\n' + std::string(column, ' ') + word;
            used = column;
        }
        used += word.size();
    }
    return wrapped;
}

std::string Layout(const std::vector<Row>& rows) {
    std::size_t column = 0;
    for (const Row& row : rows) column = std::max(column, row.option.size() + kGap);
    std::string text;
    for (const Row& row : rows) {
        text += row.option + std::string(column - row.option.size(), ' ');
        text += Wrapped(row.help, column) + "\n";
    }
    return text;
}

}  // namespace

// --- Arg ---

Arg::Arg(Args* owner, Arg* parent, std::string name, char letter, std::string help)
    : owner_(owner),
      parent_(parent),
      name_(std::move(name)),
      letter_(letter),
      help_(std::move(help)) {}

Arg& Arg::AddOption(const std::string& name, char letter, const std::string& help) {
    if (parent_ == nullptr) return owner_->AddOption(name, letter, help);
    return parent_->AddSuboption(name, letter, help);
}

Arg& Arg::AddSuboption(const std::string& name, char letter, const std::string& help) {
    children_.push_back(std::unique_ptr<Arg>(new Arg(owner_, this, name, letter, help)));
    return *children_.back();
}

Arg& Arg::SetParam() {
    takes_value_ = true;
    return *this;
}

Arg& Arg::SetDefault(const std::string& value) {
    takes_value_ = true;
    has_default_ = true;
    default_ = value;
    return *this;
}

Arg& Arg::SetMultiple() {
    takes_value_ = true;
    multiple_ = true;
    return *this;
}

Arg& Arg::SetGroup(const std::string& group) {
    group_ = group;
    return *this;
}

Arg& Arg::Last() {
    if (parent_ == nullptr) throw std::logic_error("There is no parent option of --" + name_);
    return *parent_;
}

// --- Result ---

std::string Result::Param(const std::string& name, int index) const {
    if (const auto group = groups_.find(name); group != groups_.end()) {
        return index <= 0 ? group->second : std::string();
    }
    const std::vector<std::string> values = Params(name);
    if (index >= 0) {
        const auto at = static_cast<std::size_t>(index);
        return at < values.size() ? values[at] : std::string();
    }
    if (!values.empty()) return values.back();
    const auto found = defaults_.find(name);
    return found == defaults_.end() ? std::string() : found->second;
}

std::vector<std::string> Result::Params(const std::string& name) const {
    const auto found = values_.find(name);
    return found == values_.end() ? std::vector<std::string>() : found->second;
}

bool Result::Has(const std::string& name) const {
    return values_.count(name) != 0 || groups_.count(name) != 0;
}

std::string Result::Args(int index) const {
    if (index < 0 || index >= ArgsCount()) return std::string();
    return positional_[static_cast<std::size_t>(index)];
}

int Result::ArgsCount() const noexcept { return static_cast<int>(positional_.size()); }

// --- Args ---

Args::Args(std::string banner) : banner_(std::move(banner)), result_(std::make_shared<Result>()) {}

Args::~Args() = default;

Arg& Args::AddOption(const std::string& name, char letter, const std::string& help) {
    options_.push_back(std::unique_ptr<Arg>(new Arg(this, nullptr, name, letter, help)));
    return *options_.back();
}

std::string Args::UsageText() const {
    std::vector<Row> rows;
    const auto add = [&rows](const auto& self, const Arg& option, std::size_t depth) -> void {
        Row row{OptionColumn(depth, option.letter_, option.name_), option.help_};
        if (option.takes_value_) row.option += " VALUE";
        if (option.has_default_) row.help += " (default: " + option.default_ + ")";
        if (option.multiple_) row.help += " (may be given several times)";
        rows.push_back(std::move(row));
        for (const auto& child : option.children_) self(self, *child, depth + 1);
    };
    for (const auto& option : options_) add(add, *option, 0);
    rows.push_back({OptionColumn(0, ' ', "help"), "Show this text"});
    rows.push_back({OptionColumn(0, ' ', "version"), "Show the program's version"});
    return banner_ + "\n\n" + Layout(rows);
}

void Args::Usage(const std::string& text) const {
    std::string whole = UsageText();
    if (!text.empty()) whole += "\n" + text + "\n";
    std::fputs(whole.c_str(), stdout);
    std::fflush(stdout);
}

}  // namespace kro_args

std::string GetArgPath(const std::string& argument) { return kro_file::GoodPath(argument); }
