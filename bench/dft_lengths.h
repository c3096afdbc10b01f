#pragma once

// The lengths that benchmark and accuracy tables show, by what they ask of a plan.

struct DftLengths {
  const char* name;
  int lengths[12];  ///< up to the first 0
};

inline constexpr DftLengths dftLengths[] = {
    {"audio windows", {240, 320, 400, 480, 640, 800, 960, 1440, 1920, 2880}},
    {"odd factors", {441, 882, 1764, 600, 1000, 1200}},
    {"primes", {997, 1009, 2003}},
    {"a long prime", {10007}},
};
