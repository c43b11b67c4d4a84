// An incremental XML parser whose memory does not grow with the length of the document.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace quarn2::net {

// Receives the start (Open) and the end (Close) of each XML element. `text` is the text of the
// element. For an element with child elements, `text` contains only the text after the last child.
class XmlHandler {
  public:
    virtual ~XmlHandler() = default;
    // `space` is the URI of the element's namespace, or "" for an element without a namespace.
    virtual void Open(std::string_view /*space*/, std::string_view /*name*/) {}
    virtual void Close(std::string_view space, std::string_view name, const std::string& text) = 0;
};

// Parses one XML document of a server. Throws kUnavailable if the document is malformed or
// truncated, has a document type declaration, or exceeds a limit (nesting, names, texts, size). The
// error is kUnavailable because the server's next response may be valid. Rethrows exceptions of the
// handler.
class XmlReader {
  public:
    // `what` is the name of the server in error texts. The handler must outlive the reader.
    XmlReader(std::string what, XmlHandler& handler);
    ~XmlReader();
    XmlReader(const XmlReader&) = delete;
    XmlReader& operator=(const XmlReader&) = delete;

    void Feed(std::span<const std::byte> bytes);
    // Must be called after the last Feed(). Throws kUnavailable if the document is incomplete.
    void Finish();

  private:
    class Parser;
    std::unique_ptr<Parser> parser_;
};

}  // namespace quarn2::net
