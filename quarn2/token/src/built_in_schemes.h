// The built-in schemes. scheme.cpp lists them.
#pragma once

#include <string>

#include "token/scheme.h"

namespace quarn2 {

TokenScheme LocalTokenScheme();
TokenScheme SftpTokenScheme();
// The protocols that also exist without TLS have two schemes with the same properties. `name` is
// the name of the scheme.
TokenScheme FtpTokenScheme(const std::string& name);
TokenScheme S3TokenScheme(const std::string& name);
TokenScheme WebdavTokenScheme(const std::string& name);

}  // namespace quarn2
