// The protocol of the master link: frames, commands and answers, both ways.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <functional>

#include "kro/kro_err.h"
#include "kro/kro_proc.h"
#include "quarn2_cp2_misc_link.h"

namespace {

using Word = LinkCommand::Word;

std::string TextOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "(no error)";
}

// Reads `frames` frames from a pipe that contains these bytes and ends after them.
std::vector<std::string> Read(const std::string& bytes, std::size_t frames) {
    auto [in, out] = kro_proc::Pipe();
    EXPECT_EQ(write(out, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    out.Close();
    std::vector<std::string> texts;
    while (texts.size() < frames) texts.push_back(ReadFrame(in));
    return texts;
}

std::string Length(std::uint32_t length) {
    std::string bytes(sizeof length, '\0');
    std::memcpy(bytes.data(), &length, sizeof length);
    return bytes;
}

// --- Frames ---

TEST(LinkFrame, IsTheLengthAndTheText) {
    EXPECT_EQ(FormatFrame("OK 12"), Length(5) + "OK 12");
    EXPECT_EQ(FormatFrame(""), Length(0));
    EXPECT_EQ(FormatFrame(std::string("a\0b", 3)), Length(3) + std::string("a\0b", 3));
}

TEST(LinkFrame, IsReadAsItWasWritten) {
    const std::vector<std::string> texts = {"",
                                            "OK",
                                            std::string("\0\n", 2),
                                            std::string(32, 'x'),
                                            std::string(33, 'y'),
                                            std::string(10000, 'z')};
    std::string bytes;
    for (const std::string& text : texts) bytes += FormatFrame(text);
    EXPECT_EQ(Read(bytes, texts.size()), texts);
}

TEST(LinkFrame, AnIncompleteOneIsAnError) {
    const std::string no_length = "Failed to get answer size from server";
    const std::string no_text = "Failed to get answer from server";
    for (const std::string& bytes : {std::string(), Length(5).substr(0, 3)}) {
        EXPECT_EQ(TextOf([&] { Read(bytes, 1); }), no_length);
    }
    for (const std::string& bytes : {Length(5), Length(5) + "OK 1",
                                     Length(40) + std::string(39, 'x'), Length(UINT32_MAX) + "x"}) {
        EXPECT_EQ(TextOf([&] { Read(bytes, 1); }), no_text);
    }
    EXPECT_EQ(TextOf([&] { Read(FormatFrame("a") + "b", 2); }), no_length);
}

// --- Commands ---

LinkCommand Parse(std::string line) {
    EXPECT_EQ(line.back(), '\n');
    line.pop_back();
    return ParseLinkCommand(line);
}

TEST(LinkCommands, HaveTheirWireForm) {
    EXPECT_EQ(FormatReserve(12), "RESERVE 12\n");
    EXPECT_EQ(FormatComplete("web1", "2026-11-20", "full", "34"),
              "COMPLETE web1 2026-11-20 full 34\n");
    EXPECT_EQ(FormatDropOne(0), "DROPONE 0\n");
    EXPECT_EQ(FormatRelease(56), "RELEASE 56\n");
}

TEST(LinkCommands, AreParsedAsTheyWereFormatted) {
    LinkCommand command;
    command.word = Word::kReserve;
    command.bytes = INT64_MAX;
    EXPECT_EQ(Parse(FormatReserve(INT64_MAX)), command);
    command.word = Word::kRelease;
    EXPECT_EQ(Parse(FormatRelease(INT64_MAX)), command);
    LinkCommand drop;
    drop.word = Word::kDropOne;
    drop.count = 3;
    EXPECT_EQ(Parse(FormatDropOne(3)), drop);
    LinkCommand complete;
    complete.word = Word::kComplete;
    complete.bytes = 34;
    complete.user = "web.1";
    complete.date = "custom";
    complete.type = "incremental";
    EXPECT_EQ(Parse(FormatComplete("web.1", "custom", "incremental", "34")), complete);
    complete.type = "";
    complete.bytes = 0;
    EXPECT_EQ(Parse(FormatComplete("web.1", "custom", "", "")), complete);
}

TEST(LinkCommands, UnknownWordsAreUnknown) {
    for (const char* const line : {"", " ", "STAT", "reserve 1", "RESERVE1", "OK 1"}) {
        EXPECT_EQ(ParseLinkCommand(line), LinkCommand()) << line;
    }
}

TEST(LinkCommands, BrokenArgumentsAreErrors) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"RESERVE -1", "'-1' is not a size"},
        {"RELEASE -1", "'-1' is not a size"},
        {"RESERVE 1 2", "'1 2' is not a whole decimal number"},
        {"RESERVE 9223372036854775808", "'9223372036854775808' is out of range"},
        {"DROPONE x", "'x' is not a whole decimal number"},
        {"DROPONE 2147483648", "'2147483648' is out of range"},
        {"COMPLETE web1 2026-11-20 full -1", "'-1' is not a size"},
        {"COMPLETE web1 2026-11-20 full big", "'big' is not a whole decimal number"},
        {"COMPLETE a/b 2026-11-20 full 1", "'2026-11-20.a/b' is not a valid backup name"}};
    for (const auto& [line, text] : cases) {
        EXPECT_EQ(TextOf([&, line = line] { ParseLinkCommand(line); }), text) << line;
    }
}

// --- Answers ---

TEST(LinkAnswers, AreOkOrTheReasonOfARefusal) {
    EXPECT_EQ(FormatOk(), "OK");
    EXPECT_EQ(FormatOk(7), "OK 7");
    EXPECT_EQ(FormatRefusal("No disk space left"), "ERR No disk space left");
    EXPECT_TRUE(ParseLinkAnswer(FormatOk()).is_ok);
    EXPECT_EQ(ParseLinkAnswer(FormatOk()).text, "");
    EXPECT_TRUE(ParseLinkAnswer(FormatOk(7)).is_ok);
    EXPECT_EQ(ParseLinkAnswer(FormatOk(7)).text, "7");
    EXPECT_FALSE(ParseLinkAnswer(FormatRefusal("No disk space left")).is_ok);
    EXPECT_EQ(ParseLinkAnswer(FormatRefusal("No disk space left")).text, "No disk space left");
    for (const char* const answer : {"", " OK", "ok", "OKAY", "ERR OK"}) {
        EXPECT_FALSE(ParseLinkAnswer(answer).is_ok) << answer;
    }
}

}  // namespace
