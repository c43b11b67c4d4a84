#include "net/loaded_library.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "kro/kro_err.h"

namespace quarn2::net {
namespace {

std::string ErrorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const kro_err::Error& error) {
        return error.what();
    }
    return "no error";
}

TEST(LoadedLibrary, MissingFileNamesThePackageThatHasIt) {
    EXPECT_EQ(
        "this storage needs libnobody-has-it.so.1 (Debian package nobody): "
        "libnobody-has-it.so.1: cannot open shared object file: No such file or directory",
        ErrorOf([] { LoadedLibrary("libnobody-has-it.so.1", "nobody"); }));
}

TEST(LoadedLibrary, FindsWhatItHasAndNamesWhatItLacks) {
    const LoadedLibrary library("libm.so.6", "libc6");
    double (*square_root)(double) = nullptr;
    library.Find("sqrt", square_root);
    EXPECT_EQ(3, square_root(9));
    const std::string error = ErrorOf([&] { library.Find("no_such_function", square_root); });
    EXPECT_EQ(0U, error.find("this storage needs libm.so.6 (Debian package libc6): ")) << error;
    EXPECT_NE(std::string::npos, error.find("undefined symbol: no_such_function")) << error;
}

}  // namespace
}  // namespace quarn2::net
