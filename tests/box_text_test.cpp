// The text forms of field values in printed boxes.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "stream/plugin/mp4/common/BoxText.h"
#include "stream/plugin/mp4/common/IBox.h"

using namespace kiv::plugin::mov;

TEST(BoxText, FieldValuesAsText) {
  struct Case {
    std::string got, want;
  };
  const unsigned char bytes[20] = {0x00, 0x1f, 0xab, 0xff, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  const Case cases[] = {
      {FccText(FCC("avc1")), "avc1"},
      {FccText(0x00410a42u), "B.A."},  // first character in the lowest byte
      {FccText(0), "...."},
      {HexBytes(bytes, 4), "001fabff"},
      {HexBytes(bytes, 16), "001fabff0102030405060708090a0b0c"},
      {HexBytes(bytes, 17), "001fabff0102030405060708090a0b0c..."},
      {HexBytes(nullptr, 3), ""},
      {HexText(static_cast<uint8_t>(0x2a)), "0x2a"},
      {HexText(0x10000u), "0x00010000"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.got, c.want);
}
