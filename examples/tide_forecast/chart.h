// chart.h: two curves as lines of characters.
#pragma once

#include <string>
#include <vector>

/// One column for each number; `lines` lines from the largest number down to the smallest, with a scale in front. The
/// second curve stands at the end of the first one's columns; where both have a number in one place, the second is
/// seen.
std::string chart(const std::vector<float>& first, char first_sign, const std::vector<float>& second, char second_sign,
                  int lines);
