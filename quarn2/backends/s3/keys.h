// Converts file names to object keys and back.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quarn2::s3 {

// Keys are UTF-8; names may contain any bytes. A byte that is not part of a valid UTF-8 character
// is percent-encoded. A "%" that would look like such an escape becomes "%25". Every other name is
// its own key.
std::string KeyOf(std::string_view name);

// Returns nullopt if KeyOf() maps no name to this key.
std::optional<std::string> NameOf(std::string_view key);

// True if an XML document can contain the text once XmlEscaped() has escaped the five special
// characters.
bool IsXmlText(std::string_view text);
std::string XmlEscaped(std::string_view text);

}  // namespace quarn2::s3
