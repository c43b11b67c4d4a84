// Makes one mistake that a sanitizer is there to find:  planted leak|overflow|freed|race
// The tests that run it fail when it is not found.

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <thread>

namespace {

// Not to be seen through by the optimiser.
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
