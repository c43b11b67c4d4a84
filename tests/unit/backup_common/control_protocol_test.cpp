// The protocol of the control socket: its addresses, the commands and the answers.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstring>
#include <functional>

#include "quarn2_cp2_misc_control.h"

namespace {

using Word = ControlCommand::Word;

constexpr std::size_t kAddressSize = sizeof(sockaddr_un::sun_path);

std::string TextOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "(no error)";
}

std::string PathIn(const sockaddr_un& address) {
    EXPECT_EQ(address.sun_family, AF_UNIX);
    return std::string(address.sun_path, strnlen(address.sun_path, kAddressSize));
}

TEST(ControlAddress, IsTheSameForBothSides) {
    const std::string longest(kAddressSize - 1, 's');
    for (const std::string& path : {ControlSocketPath("web1"), longest}) {
        EXPECT_TRUE(FitsControlAddress(path));
        EXPECT_EQ(PathIn(AddressToListen(path)), path);
        EXPECT_EQ(PathIn(AddressToConnect(path)), path);
    }
}

TEST(ControlAddress, OfALongPathIsRefusedOrTruncated) {
    for (const std::size_t size : {kAddressSize, kAddressSize + 1, std::size_t{200}}) {
        const std::string path(size, 's');
        EXPECT_FALSE(FitsControlAddress(path));
        EXPECT_EQ(TextOf([&] { AddressToListen(path); }),
                  "The control socket's path '" + path + "' is too long: " + std::to_string(size) +
                      " bytes, at most 107 are possible");
        EXPECT_EQ(PathIn(AddressToConnect(path)), path.substr(0, kAddressSize));
    }
}

TEST(ControlCommands, HaveTheirWireForm) {
    const std::vector<std::pair<std::string, ControlCommand>> cases = {
        {"PUT /b/F.tgz", {Word::kPut, "/b/F.tgz"}},
        {"PUT /b/F.tgz DELETE", {Word::kPut, "/b/F.tgz", true}},
        {"PUTLAST a dir/x.info", {Word::kPutLast, "a dir/x.info"}},
        {"PUTLAST x DELETE", {Word::kPutLast, "x", true}},
        {"DELETE x.info", {Word::kDelete, "x.info"}},
        {"DELETEALL x.info", {Word::kDeleteAll, "x.info"}}};
    for (const auto& [text, command] : cases) {
        EXPECT_EQ(FormatControlCommand(command), text);
        EXPECT_EQ(ParseControlCommand(text), command) << text;
    }
}

TEST(ControlCommands, AreParsedToTheEndOfTheText) {
    EXPECT_EQ(ParseControlCommand("PUT a DELETE DELETE"),
              (ControlCommand{Word::kPut, "a DELETE", true}));
    EXPECT_EQ(ParseControlCommand("PUT aDELETE"), (ControlCommand{Word::kPut, "aDELETE"}));
    EXPECT_EQ(ParseControlCommand("PUT  DELETE"), (ControlCommand{Word::kPut, "", true}));
    EXPECT_EQ(ParseControlCommand("PUT a\nb "), (ControlCommand{Word::kPut, "a\nb "}));
    EXPECT_EQ(ParseControlCommand("DELETE a DELETE"), (ControlCommand{Word::kDelete, "a DELETE"}));
    EXPECT_EQ(ParseControlCommand("PUT"), (ControlCommand{Word::kPut, ""}));
}

TEST(ControlCommands, UnknownWordsAreUnknown) {
    for (const char* const text : {"", " PUT a", "STAT", "put a", "PUTS a", "PUT\ta"}) {
        EXPECT_EQ(ParseControlCommand(text).word, Word::kUnknown) << text;
    }
}

TEST(ControlCommands, ANulByteIsRefused) {
    for (const std::string& text : {std::string("PUT a\0b", 7), std::string("STAT\0", 5)}) {
        EXPECT_EQ(TextOf([&] { ParseControlCommand(text); }),
                  "A command with a NUL byte is refused");
    }
}

TEST(ControlAnswers, AreOkWithOrWithoutInformation) {
    EXPECT_EQ(FormatControlAnswer(), "OK");
    EXPECT_EQ(FormatControlAnswer("name 5 hash"), "OK name 5 hash");
    EXPECT_EQ(ParseControlAnswer("OK name 5 hash").status, "OK");
    EXPECT_EQ(ParseControlAnswer("OK name 5 hash").info, "name 5 hash");
    EXPECT_EQ(ParseControlAnswer("OK").info, "");
    EXPECT_EQ(ParseControlAnswer("").status, "");
    EXPECT_EQ(ParseControlAnswer("NO reason").status, "NO");
}

}  // namespace
