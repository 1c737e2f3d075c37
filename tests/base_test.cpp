// Attribute sets, text conversions, rationals, time scales, helpers and the log line form.
#include <gtest/gtest.h>

#include <climits>
#include <sstream>

#include "stream/base/AttrSet.h"
#include "stream/base/Helpers.h"
#include "stream/base/dbg/Log.h"
#include "tests/LogCapture.h"

using namespace kiv::base;

TEST(BaseAttrSet, OrderedPairsAndTypedAccess) {
  AttrSet ap;
  EXPECT_TRUE(ap.Add("b", "1"));
  EXPECT_TRUE(ap.Add("a", 2));
  EXPECT_FALSE(ap.Add("a", "again")) << "Add keeps the first value";
  EXPECT_FALSE(ap.Add("", "x"));
  EXPECT_TRUE(ap.SetOrAdd("a", 3LL));
  EXPECT_STREQ(ap.Key(0), "b");
  EXPECT_STREQ(ap.Value(1), "3");
  unsigned u = 0;
  EXPECT_TRUE(ap.Get("a", u) && u == 3u);
  EXPECT_EQ(ap.GetOrDef<int>("missing", -5), -5);
  EXPECT_TRUE(ap.Invalid("b"));
  EXPECT_FALSE(ap.Invalid("b"));
  EXPECT_EQ(ap.Size(), 1u);

  bool flag = false;
  ap.SetOrAdd("on", "yes");
  EXPECT_TRUE(ap.Get("on", flag) && flag);
  ap.SetOrAdd("on", "maybe");
  EXPECT_FALSE(ap.Get("on", flag));
}

TEST(BaseAttrSet, TextParsingAndRoundTrip) {
  AttrSet one("video");
  ASSERT_EQ(one.Size(), 1u);
  EXPECT_STREQ(one.Key(0), "video");
  EXPECT_STREQ(one.Value(0), "");

  AttrSet ap(" type = mov-stream-avc1 ;name=x\nurl=\"/a b;c/\\\"q\\\".mp4\"; empty= ");
  EXPECT_STREQ(ap.Get("type"), "mov-stream-avc1");
  EXPECT_STREQ(ap.Get("name"), "x");
  EXPECT_STREQ(ap.Get("url"), "/a b;c/\"q\".mp4");
  EXPECT_STREQ(ap.Get("empty"), "");
  for (bool lines : {false, true}) {
    AttrSet again(ap.ToString(lines).c_str());
    EXPECT_EQ(again.ToString(), ap.ToString());
    EXPECT_STREQ(again.Get("url"), "/a b;c/\"q\".mp4");
  }
  AttrSet bad;
  EXPECT_FALSE(bad.Parse("a=\"unclosed"));
}

TEST(BaseConvert, NumbersRejectGarbageAndRange) {
  int i = 0;
  unsigned u = 0;
  unsigned char c = 0;
  // 0 marks a text that must be refused.
  const std::pair<const char*, int> ints[] = {{"-42", -42}, {"0x7fffffff", INT_MAX}, {"010", 10},  // no octal
                                              {"12abc", 0}, {"", 0},                {"3000000000", 0}};
  for (const auto& k : ints) {
    const bool ok = ConvertToImpl(k.first, i);
    EXPECT_EQ(ok, k.second != 0) << k.first;
    EXPECT_EQ(ok ? i : 0, k.second) << k.first;
  }
  EXPECT_FALSE(ConvertToImpl("256", c));
  EXPECT_TRUE(ConvertToImpl("-1", u) && u == UINT_MAX);
  long long ll = 0;
  EXPECT_TRUE(ConvertToImpl("-9223372036854775808", ll) && ll == LLONG_MIN);
  unsigned long long ull = 0;
  EXPECT_TRUE(ConvertToImpl("18446744073709551615", ull) && ull == ULLONG_MAX);
  double d = 0;
  EXPECT_TRUE(ConvertToImpl("2.5", d) && d == 2.5);
}

TEST(BaseConvert, FractionsAndTimeScales) {
  Fraction f;
  EXPECT_TRUE(f.From("30000/1001") && f == Fraction(30000, 1001));
  EXPECT_TRUE(f.From("29.97") && f == Fraction(2997, 100));
  EXPECT_TRUE(f.From("25") && f.ToString() == "25/1");
  EXPECT_FALSE(f.From("1/0"));
  EXPECT_TRUE(f.From(5, -2) && f == Fraction(-5, 2));

  // Conversions round to nearest, halves away from zero, so that the frame steps of a constant rate
  // (33333333 and 33333334 ns at 30 fps) land on one value; values of long recordings stay exact
  // where a plain product would overflow.
  const struct {
    int scale;
    bool toNs;
    long long in, out;
  } times[] = {{90000, true, 3003, 33366667},       {90000, false, 1000000000, 90000},
               {60000, false, 33333333, 2000},      {60000, false, 33333334, 2000},
               {60000, false, -33333333, -2000},    {1000, false, 1500000, 2},
               {1000, false, 1499999, 1},           {1000, false, -1500000, -2},
               {48000, true, 10LL * 24 * 3600 * 48000, 10LL * 24 * 3600 * 1000000000LL}};
  TimeScale ts;
  for (const auto& t : times) {
    ts.Scale(t.scale);
    EXPECT_EQ(t.toNs ? ts.To(t.in) : ts.From(t.in), t.out) << t.scale << (t.toNs ? " to ns " : " from ns ") << t.in;
  }
  ts.Scale(90000);
  EXPECT_EQ(std::make_pair(ts.ToMs(45000), ts.FromMs(2000)), std::make_pair(500LL, 180000LL));
  EXPECT_EQ(kiv::base::MulDiv(1, 2, 3), 1);  // 0.67
  EXPECT_EQ(kiv::base::MulDiv(1, 1, 3), 0);  // 0.33
  EXPECT_EQ(kiv::base::MulDiv(7, 1, 0), 0);
  // A frame time at index n is rounded from n alone, so no error adds up over an hour.
  EXPECT_EQ(kiv::base::MulDiv(108000, 1000000000LL * 1001, 30000), 3603600000000LL);
  EXPECT_EQ(kiv::base::MulDiv(2, 1000000000LL * 1001, 30000), 66733333LL);
}

TEST(BaseHelpers, HashPackingSplittingAndHex) {
  EXPECT_EQ(kiv::Hash(0x811c9dc5, "MP4"), kiv::Hash(0x811c9dc5, "mp4")) << "upper case folds";
  EXPECT_EQ(kiv::Hash(0x811c9dc5, "mp4"), 0x9d7939c4u);
  uint32_t v = 0;
  uint64_t w = 0;
  kiv::Convert64(w, "abcdefghij");
  EXPECT_EQ(w, 0x6867666564636261ull) << "eight characters at most";
  kiv::Convert32(v, "ab");
  EXPECT_EQ(v, 0x6261u);
  const unsigned char be[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(kiv::Read64BE(be), 0x0102030405060708ull);

  Spliter s("a.b..c", '.');
  EXPECT_EQ(s.Items(), 4u);
  EXPECT_STREQ(s[3], "c");
  EXPECT_EQ(s[4], nullptr);
  Spliter t(" x - y -", '-', true, true);
  EXPECT_EQ(t.Items(), 2u);
  EXPECT_STREQ(t[1], "y");
  std::ostringstream os;
  os << Hex(uint32_t{0x6d6f6f76}) << " " << Hex(uint8_t{5});
  EXPECT_EQ(os.str(), "0x6d6f6f76 0x05");
}

TEST(BaseLog, LineFormAndLevels) {
  {
    LogCapture log(kiv::dbg::N);
    LOGE << "!_moov";
    LOGI << "hidden at level N";
    const auto lines = log.Lines();
    ASSERT_EQ(lines.size(), 1u);
    const std::string& l = lines[0];
    EXPECT_EQ(l.rfind("\033[31mBpSC|", 0), 0u);
    EXPECT_NE(l.find("|0|E|kiv: tests/base_test/"), std::string::npos) << l;
    EXPECT_NE(l.find("/TestBody:\t!_moov\n\033[0m"), std::string::npos) << l;
    EXPECT_EQ(l.substr(l.size() - 4), "\033[0m");
  }
  const std::string n = kiv::dbg::FormatLine(kiv::dbg::N, "stream/plugin/mp4/common/IBox.cpp", 7, "Parse", "x");
  EXPECT_EQ(n.rfind("\033[35mBpSC|", 0), 0u);
  EXPECT_NE(n.find("|0|N|kiv: stream/plugin/mp4/common/IBox/7/Parse:\tx\n"), std::string::npos);
}
