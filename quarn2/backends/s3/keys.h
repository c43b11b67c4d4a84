// The names of files as keys of objects, and back.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quarn2::s3 {

// Keys are UTF-8, names any bytes. A byte that belongs to no character is written as "%" and two
// digits, and so is the "%" of a name that would pass for such a piece; every other name is its own
// key.
std::string KeyOf(std::string_view name);

// Nothing when no name has that key.
std::optional<std::string> NameOf(std::string_view key);

// The text can stand in an XML document as it is, but for the five characters that are escaped
// there.
bool IsXmlText(std::string_view text);
std::string XmlEscaped(std::string_view text);

}  // namespace quarn2::s3
