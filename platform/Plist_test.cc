#include "platform/Plist.h"

#include <gtest/gtest.h>

#include <random>

#include "testsupport/TestSupport.h"

namespace platform::plist {
namespace {

Value sample() {
  Dictionary inner{{"flag", true}, {"off", false}, {"negative", std::int64_t{-42}}};
  return Dictionary{
      {"CFBundleIdentifier", "org.example.App"},
      {"Count", std::int64_t{1} << 40},
      {"Ratio", 0.25},
      {"Blob", Data{0, 1, 2, 255}},
      {"When", Date{600000000}},  // property lists keep whole seconds
      {"List", Array{"a", std::int64_t{2}, inner, Array{}}},
      {"Unicode", "caf\xC3\xA9 \xE2\x98\x95"},
      {"Empty", ""},
  };
}

TEST(PlistTest, BinaryAndXmlRoundTripsAndAccessorsAnswerForTheirType) {
  for (Format format : {Format::binary, Format::xml}) {
    std::string bytes = serialize(sample(), format);
    ASSERT_FALSE(bytes.empty());
    auto parsed = parse(bytes);
    ASSERT_TRUE(parsed) << (format == Format::xml ? "xml" : "binary");
    EXPECT_EQ(*parsed, sample());
  }
  // Accessors answer only for their type.
  auto parsed = parse(serialize(sample(), Format::binary));
  ASSERT_TRUE(parsed);
  ASSERT_NE(parsed->find("CFBundleIdentifier"), nullptr);
  EXPECT_EQ(*parsed->find("CFBundleIdentifier")->string(), "org.example.App");
  EXPECT_FALSE(parsed->find("CFBundleIdentifier")->integer());
  EXPECT_EQ(parsed->find("Count")->integer(), std::int64_t{1} << 40);
  EXPECT_EQ(parsed->find("missing"), nullptr);
  EXPECT_EQ(parsed->find("Ratio")->find("x"), nullptr);
  EXPECT_DOUBLE_EQ(parsed->find("When")->date()->unixTime(), 600000000 + 978307200.0);
}

TEST(PlistTest, EmptyAndGarbageGiveNothing) {
  EXPECT_FALSE(parse(""));
  EXPECT_FALSE(parse("not a plist"));
  EXPECT_FALSE(parse("bplist00"));
  EXPECT_FALSE(parse("<plist><dict><key>a</key></plist>"));
}

TEST(PlistTest, EveryTruncationIsSafe) {
  // A binary list is read from its trailer, so any cut loses it. XML may survive a cut after its
  // last value; it must just never crash.
  std::string binary = serialize(sample(), Format::binary);
  for (std::size_t n = 0; n < binary.size(); ++n) {
    EXPECT_FALSE(parse(std::string_view(binary).substr(0, n))) << n;
  }
  std::string xml = serialize(sample(), Format::xml);
  for (std::size_t n = 0; n < xml.size(); ++n) (void)parse(std::string_view(xml).substr(0, n));
}

TEST(PlistTest, NulInsideKeysOrStringsIsRefused) {
  std::string binary = serialize(Dictionary{{"key", "value"}}, Format::binary);
  auto at = binary.find("key");
  ASSERT_NE(at, std::string::npos);
  binary[at + 1] = '\0';
  EXPECT_FALSE(parse(binary));
  EXPECT_FALSE(parse("<plist><dict><key>a&#0;b</key><string>x</string></dict></plist>"));
  EXPECT_FALSE(parse("<plist><dict><key>a&#x00;b</key><string>x</string></dict></plist>"));
  EXPECT_FALSE(parse(std::string("<plist><string>a\0b</string></plist>", 35)));
}

TEST(PlistTest, CyclicAndExplodingReferencesAreRefused) {
  // Array A (object 0) holds itself: bplist00, A1 00, offset table, trailer.
  std::string cyclic("bplist00\xA1\x00", 10);
  cyclic += '\x08';  // offset of object 0
  std::string trailer(32, '\0');
  trailer[6] = 1;    // offset size
  trailer[7] = 1;    // reference size
  trailer[15] = 1;   // one object
  trailer[31] = 10;  // offset table at byte 10
  EXPECT_FALSE(parse(cyclic + trailer));

  // 60 arrays, each holding the next one twice: tiny on disk, 2^60 nodes once expanded.
  std::string exploding = "bplist00";
  std::string table;
  for (int i = 0; i < 60; ++i) {
    table += static_cast<char>(exploding.size());
    if (i < 59) {
      exploding += "\xA2";
      exploding += static_cast<char>(i + 1);
      exploding += static_cast<char>(i + 1);
    } else {
      exploding += "\xA0";
    }
  }
  std::string tail(32, '\0');
  tail[6] = 1;
  tail[7] = 1;
  tail[15] = 60;
  tail[31] = static_cast<char>(exploding.size());
  ASSERT_LT(exploding.size(), 256u);
  EXPECT_FALSE(parse(exploding + table + tail));
}

TEST(PlistTest, RandomAndMutatedBytesNeverCrash) {
  std::mt19937 random(1234);
  std::string binary = serialize(sample(), Format::binary);
  std::string xml = serialize(sample(), Format::xml);
  for (int round = 0; round < 20000; ++round) {
    std::string bytes = round % 3 == 0 ? binary : round % 3 == 1 ? xml : std::string(64, '\0');
    int flips = 1 + static_cast<int>(random() % 8);
    for (int i = 0; i < flips; ++i) {
      bytes[random() % bytes.size()] = static_cast<char>(random());
    }
    if (round % 3 == 2) bytes.replace(0, 8, "bplist00");
    (void)parse(bytes);
  }
}

TEST(PlistTest, DeepNestingIsRefusedNotRecursedInto) {
  std::string deep = "<plist>";
  for (int i = 0; i < 100000; ++i) deep += "<array>";
  for (int i = 0; i < 100000; ++i) deep += "</array>";
  deep += "</plist>";
  EXPECT_FALSE(parse(deep));

  Value nested = Array{};
  for (int i = 0; i < 200; ++i) nested = Array{nested};
  EXPECT_FALSE(parse(serialize(nested, Format::binary)));
  EXPECT_FALSE(parse(serialize(nested, Format::xml)));

  Value shallow = Array{};
  for (int i = 0; i < 50; ++i) shallow = Array{shallow};
  EXPECT_TRUE(parse(serialize(shallow, Format::binary)));
}

TEST(PlistTest, ReadFileReadsAndRefuses) {
  testsupport::TempDir tmp;
  auto good = tmp.write("Info.plist", serialize(sample(), Format::xml));
  auto bad = tmp.write("broken.plist", "<plist><dict>");
  EXPECT_TRUE(readFile(good));
  EXPECT_FALSE(readFile(bad));
  EXPECT_FALSE(readFile(tmp / "missing.plist"));
  EXPECT_FALSE(readFile(tmp.path()));  // a folder
}

}  // namespace
}  // namespace platform::plist
