// The one table from four-character code to box class.
#pragma once

#include <vector>

namespace kiv {
namespace plugin {
namespace mov {

class IBox;

// The box class for a non-zero code. A code without a row gives a cfakebox of that code, so that an
// unknown box is kept and skipped and never fails a parse. Only "mdat" uses the size.
IBox* CreateBox(unsigned fcc, unsigned size);
// The codes that have a row, in the table's order.
std::vector<unsigned> BoxCodes();

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
