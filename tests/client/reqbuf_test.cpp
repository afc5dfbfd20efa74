// The request buffer: growth rule and the bytes of every primitive.
#include "db/client/reqbuf.h"

#include <gtest/gtest.h>

namespace {

std::vector<unsigned char> bytes() { return {DBreq_data(), DBreq_data() + DBreq_length()}; }

TEST(ReqBuf, PrimitivesWriteLittleEndianFieldsWithTagsAndLengths) {
  DBreq_reset();
  DBreq_byte('S');
  DBreq_tag_string(DBTAG_NAME, "AB");
  DBreq_tag_int(DBTAG_INT, -2);
  DBreq_short(0x0102);
  DBreq_block("xy", 2);
  DBreq_tag_short_block(DBTAG_STRING, "q", 1);
  const unsigned char value[] = {3, 0, 'a', 'b', 'c'}; // own 16-bit length 3
  DBreq_value(value);
  std::vector<unsigned char> want = {'S',  'a', 3, 0, 'A', 'B', 0,   'd', 0xFE, 0xFF, 0xFF,
                                     0xFF, 2,   1, 2, 0,   0,   0,   'x', 'y',  'f',  1,
                                     0,    'q', 5, 0, 3,   0,   'a', 'b', 'c'};
  EXPECT_EQ(bytes(), want);

  DBreq_reset();
  DBreq_message("hi");
  EXPECT_EQ(bytes(), (std::vector<unsigned char>{'0', 'b', 3, 0, 'h', 'i', 0}));
}

TEST(ReqBuf, GrowsByTheFixedRuleAndKeepsMemoryOnReset) {
  DBreq_reset();
  DBreq_byte(1);
  size_t first = DBreq_capacity();
  EXPECT_GE(first, 100000u); // first allocation: 100000 or what an earlier test needed
  std::string big(first, 'z');
  DBreq_bytes(big.data(), big.size()); // overflows by one byte
  EXPECT_EQ(DBreq_capacity(), first + 1000000);
  EXPECT_EQ(DBreq_length(), first + 1);
  std::string huge(5000000, 'h');
  DBreq_bytes(huge.data(), huge.size());
  EXPECT_EQ(DBreq_capacity(), first + 1 + 5000000); // needed size beats +1000000
  DBreq_reset();
  EXPECT_EQ(DBreq_length(), 0u);
  EXPECT_EQ(DBreq_capacity(), first + 1 + 5000000);
}

} // namespace
