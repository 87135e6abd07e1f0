#include "agent/vtep/BoundedText.h"

#include <gtest/gtest.h>

namespace Agent::Vtep::Testing {

TEST(BoundedTextTest, AShortTextIsKeptAndShownAsItIs) {
  const BoundedText text("leaf1 \xc3\xa9 \xe2\x82\xac");
  EXPECT_EQ(text.kept(), "leaf1 \xc3\xa9 \xe2\x82\xac");
  EXPECT_EQ(text.shown(), text.kept());
  EXPECT_EQ(text.quoted(), "\"" + text.kept() + "\"");
  EXPECT_FALSE(text.cut());
}

TEST(BoundedTextTest, OfALongTextTheFirst255BytesAreKeptAndTheCutIsMarked) {
  EXPECT_FALSE(BoundedText(std::string(255, 'x')).cut());
  EXPECT_EQ(BoundedText(std::string(255, 'x')).shown(), std::string(255, 'x'));
  EXPECT_TRUE(BoundedText(std::string(256, 'x')).cut());
  EXPECT_EQ(BoundedText(std::string(900'000, 'x')).shown(), std::string(255, 'x') + "...");
}

TEST(BoundedTextTest, TheCutIsBetweenCharacters) {
  for (const char* const character : {"\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80"}) {
    for (std::size_t before = 250; before < 256; ++before) {
      const BoundedText text(std::string(before, 'x') + character + std::string(10, 'y'));
      EXPECT_LE(text.kept().size(), 255U);
      EXPECT_GE(text.kept().size(), 252U);
      EXPECT_EQ(text.shown().find('?'), std::string::npos) << text.shown();
    }
  }
}

TEST(BoundedTextTest, TextsThatDifferAreNotEqualThoughWhatIsKeptIs) {
  const std::string begin(300, 'x');
  EXPECT_EQ(BoundedText(begin + "1"), BoundedText(begin + "1"));
  EXPECT_NE(BoundedText(begin + "1"), BoundedText(begin + "2"));
  EXPECT_NE(BoundedText(begin + "1"), BoundedText(begin));
  EXPECT_NE(BoundedText(begin), BoundedText(begin.substr(0, 255)));
  EXPECT_LT(BoundedText("a"), BoundedText("b"));
}

TEST(BoundedTextTest, WhatActsOnATerminalIsShownAsQuestionMarks) {
  EXPECT_EQ(BoundedText("a\x1b[2Jb\nc\x7f").shown(), "a?[2Jb?c?");
  EXPECT_EQ(BoundedText(std::string("a\0b", 3)).shown(), "a?b");
  EXPECT_EQ(BoundedText("\xc2\x9b").shown(), "?") << "a control character of 0x80 to 0x9f";
  EXPECT_EQ(BoundedText("\xe2\x80\xae!").shown(), "?!") << "right to left";
  EXPECT_EQ(BoundedText("\xe2\x80\xa8").shown(), "?") << "a line separator";
  EXPECT_EQ(BoundedText("\xf3\xa0\x81\x81").shown(), "?") << "a tag";
}

TEST(BoundedTextTest, WhatIsNotUtf8IsShownAsQuestionMarks) {
  EXPECT_EQ(BoundedText("\xff"
                        "a")
                .shown(),
            "?a");
  EXPECT_EQ(BoundedText("\xc3").shown(), "?") << "ends too early";
  EXPECT_EQ(BoundedText("\xc3(").shown(), "?(");
  EXPECT_EQ(BoundedText("\xc0\xaf").shown(), "??") << "too long";
  EXPECT_EQ(BoundedText("\xe0\x80\xaf").shown(), "???") << "too long";
  EXPECT_EQ(BoundedText("\xed\xa0\x80").shown(), "???") << "half of a pair";
  EXPECT_EQ(BoundedText("\xf4\x90\x80\x80").shown(), "????") << "beyond the last";
}

}  // namespace Agent::Vtep::Testing
