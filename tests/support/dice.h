// Random decisions of tests with random models. The same seed gives the same decisions.
#pragma once

#include <random>

class Dice {
  public:
    explicit Dice(unsigned seed) : engine_(seed) {}
    int Number(int from, int to) { return std::uniform_int_distribution<int>(from, to)(engine_); }
    bool OneIn(int n) { return Number(1, n) == 1; }

  private:
    std::mt19937 engine_;
};
