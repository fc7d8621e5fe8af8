// expect: kp.hpp needs C++17 or later
// options: -std=c++14
#include <kp.hpp>

int nothing;
