// SPDX-License-Identifier: Apache-2.0
//
// make_query_page: copies the manual page of the query language from standard input to standard
// output, with the list of attributes in its place.
#include <iostream>
#include <iterator>
#include <string>

#include "docs/man/query_page.h"

int main() {
  const std::string page =
      thmp::withAttributeList(std::string{std::istreambuf_iterator<char>(std::cin), {}});
  return !page.empty() && (std::cout << page).flush() ? 0 : 1;
}
