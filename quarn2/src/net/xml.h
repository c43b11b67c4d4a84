// XML answers, read piece by piece in memory that does not depend on their length.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace quarn2::net {

// Told of each element as it ends; `text` is what stood directly in it, "" where it holds elements.
class XmlHandler {
  public:
    virtual ~XmlHandler() = default;
    // `space` is the namespace's URI, "" for none.
    virtual void Open(std::string_view /*space*/, std::string_view /*name*/) {}
    virtual void Close(std::string_view space, std::string_view name, const std::string& text) = 0;
};

// Reads one document. What is no XML, is cut off, declares entities or nests without end is
// kUnavailable: a server's answer that makes no sense may be better the next time. What the handler
// throws is thrown on.
class XmlReader {
  public:
    // `what` names the server in error texts. The handler outlives the reader.
    XmlReader(std::string what, XmlHandler& handler);
    ~XmlReader();
    XmlReader(const XmlReader&) = delete;
    XmlReader& operator=(const XmlReader&) = delete;

    void Feed(std::span<const std::byte> bytes);
    // To be called when everything has been fed.
    void Finish();

  private:
    class Parser;
    std::unique_ptr<Parser> parser_;
};

}  // namespace quarn2::net
