// Converts file names to object keys and back.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quarn2::s3 {

// Returns the object key for a file name. Keys must be UTF-8, but names may contain any bytes.
// Percent-encodes each byte that is not part of a valid UTF-8 character. Replaces a "%" that looks
// like the beginning of such an escape by "%25". All other characters are unchanged.
std::string KeyOf(std::string_view name);

// Returns the file name for an object key, or nullopt if no file name has this key.
std::optional<std::string> NameOf(std::string_view key);

// Returns true if an XML document can represent the text after XmlEscaped() has escaped the five
// special characters of XML.
bool IsXmlText(std::string_view text);
std::string XmlEscaped(std::string_view text);

}  // namespace quarn2::s3
