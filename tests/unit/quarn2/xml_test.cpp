// Reading XML answers.
#include "net/xml.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kro/kro_err.h"

namespace {

using kro_err::Error;
using kro_err::Kind;
using quarn2::net::XmlReader;
using testing::ElementsAre;
using testing::HasSubstr;

struct Recorder final : quarn2::net::XmlHandler {
    void Close(std::string_view space, std::string_view name, const std::string& text) override {
        if (text == "throw") throw Error(Kind::kFailed, "thrown by the handler");
        seen.push_back(std::string(space) + "|" + std::string(name) + "|" + text);
    }
    std::vector<std::string> seen;
};

// Returns what the reader reports for the text. It gets the text in pieces of `piece` bytes.
std::vector<std::string> Read(const std::string& text, std::size_t piece = 100000) {
    Recorder recorder;
    XmlReader reader("server", recorder);
    for (std::size_t done = 0; done < text.size(); done += piece) {
        reader.Feed(std::as_bytes(std::span(text))
                        .subspan(done)
                        .first(std::min(piece, text.size() - done)));
    }
    reader.Finish();
    return recorder.seen;
}

void ExpectUnavailable(const std::string& text, const char* why) {
    try {
        Read(text);
        ADD_FAILURE() << "accepted: " << text.substr(0, 100);
    } catch (const Error& error) {
        EXPECT_EQ(error.kind(), Kind::kUnavailable);
        EXPECT_THAT(error.what(), HasSubstr(why));
    }
}

TEST(XmlReader, TellsElementsWithNamespaceAndText) {
    EXPECT_THAT(Read("<a xmlns='urn:x'><b>1 &amp; 2</b><c xmlns=''>3</c></a>"),
                ElementsAre("urn:x|b|1 & 2", "|c|3", "urn:x|a|"));
}

TEST(XmlReader, PrefixesMeanTheirNamespace) {
    EXPECT_THAT(Read("<D:a xmlns:D='DAV:' xmlns:l='DAV:'><l:b>x</l:b></D:a>"),
                ElementsAre("DAV:|b|x", "DAV:|a|"));
}

TEST(XmlReader, AnswerMayComeByteByByte) {
    EXPECT_THAT(Read("<?xml version=\"1.0\"?>\n<a>\n <b>k\xc3\xa4se</b>\n</a>\n", 1),
                ElementsAre("|b|k\xc3\xa4se", "|a|\n"));
}

TEST(XmlReader, RefusesWhatIsNoXml) {
    for (const char* const text :
         {"", "OK", "<a>", "<a></b>", "<a/><b/>", "<a>&x;</a>", "<a>\x01</a>"}) {
        ExpectUnavailable(text, "invalid XML response: ");
    }
}

TEST(XmlReader, RefusesDocumentTypesAndSoEntitiesThatGrow) {
    ExpectUnavailable("<!DOCTYPE a [<!ENTITY b 'c'>]><a>&b;</a>", "document type");
}

TEST(XmlReader, RefusesNestingWithoutEnd) {
    std::string text;
    for (int i = 0; i < 100; ++i) text += "<a>";
    ExpectUnavailable(text, "the elements are nested too deeply");
}

TEST(XmlReader, RefusesATextWithoutEnd) {
    ExpectUnavailable("<a>" + std::string(2 * 1024 * 1024, 'x') + "</a>", "a text is too long");
}

TEST(XmlReader, ThrowsOnWhatTheHandlerThrows) {
    try {
        Read("<a><b>throw</b></a>");
        FAIL();
    } catch (const Error& error) {
        EXPECT_EQ(error.kind(), Kind::kFailed);
        EXPECT_STREQ(error.what(), "thrown by the handler");
    }
}

}  // namespace
