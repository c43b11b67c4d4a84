// Makes one error that a sanitizer must detect:  planted leak|overflow|freed|race
// The tests that run it fail if the sanitizer does not report it.

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <thread>

namespace {

// volatile, so that the optimiser does not remove the errors.
int* volatile kept = nullptr;
volatile int most = INT_MAX;
int counted = 0;

void Leak() {
    kept = new int(1);
    kept = nullptr;
}

void Overflow() { std::printf("went on with %d\n", most + 1); }

void Freed() {
    kept = new int(1);
    delete kept;
    std::printf("went on with %d\n", *kept);
}

void Race() {
    std::thread other([] { ++counted; });
    ++counted;
    other.join();
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view mistake = argc > 1 ? argv[1] : "";
    if (mistake == "leak") {
        Leak();
    } else if (mistake == "overflow") {
        Overflow();
    } else if (mistake == "freed") {
        Freed();
    } else if (mistake == "race") {
        Race();
    } else {
        return 2;
    }
    return 0;
}
