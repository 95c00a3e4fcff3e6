// To C++20 a table is a range of values.
//
// with: -std=c++20
#include <gilvane/datastructures/gvhashtable.h>

#include <iterator>
#include <ranges>

using Table = Gilvane::GVHashTable<unsigned int, int>;
static_assert(std::forward_iterator<Table::Iterator>);
static_assert(std::ranges::forward_range<const Table>);
static_assert(std::ranges::common_range<const Table>);

int main() {}
