// SPDX-License-Identifier: Apache-2.0
//
// renew_attribute_reference FILE: writes the tables of attributes anew into the reference.
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "tests/support/attribute_reference.h"

int main(int count, char** arguments) {
  if (count != 2) {
    std::cerr << "usage: renew_attribute_reference FILE\n";
    return 2;
  }
  std::ifstream in(arguments[1], std::ios::binary);
  const std::string before{std::istreambuf_iterator<char>(in), {}};
  const std::string after = thmp::withAttributeReference(before);
  std::ofstream out(arguments[1], std::ios::binary);
  return in && (out << after).flush() ? 0 : 1;
}
