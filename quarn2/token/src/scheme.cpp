#include "token/scheme.h"

#include <map>
#include <utility>
#include <vector>

#include "built_in_schemes.h"
#include "kro/str.h"

namespace quarn2 {

namespace {

using Schemes = std::map<std::string, TokenScheme>;

Schemes BuiltIn() {
    Schemes schemes;
    for (TokenScheme& scheme : std::vector<TokenScheme>{
             LocalTokenScheme(),
             FtpTokenScheme("ftp"),
             FtpTokenScheme("ftps"),
             S3TokenScheme("s3"),
             S3TokenScheme("s3+http"),
             SftpTokenScheme(),
             WebdavTokenScheme("webdav"),
             WebdavTokenScheme("webdav+http"),
         }) {
        std::string name = scheme.scheme;
        schemes.insert_or_assign(std::move(name), std::move(scheme));
    }
    return schemes;
}

Schemes& Known() {
    static Schemes schemes = BuiltIn();
    return schemes;
}

}  // namespace

const TokenScheme* FindTokenScheme(const std::string& scheme) {
    const auto found = Known().find(scheme);
    return found == Known().end() ? nullptr : &found->second;
}

void AddTokenScheme(TokenScheme scheme) {
    std::string name = scheme.scheme;
    Known().insert_or_assign(std::move(name), std::move(scheme));
}

std::string KnownSchemes() {
    std::string names;
    for (const auto& [name, scheme] : Known()) str::inpl::Append(names, name, ", ");
    return names;
}

}  // namespace quarn2
