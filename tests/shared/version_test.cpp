#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include <carrow/version.h>

TEST(Version, NumberAndWhatStringIdentifyTheLibrary) {
  EXPECT_EQ(CarrowPrivateVersionNumber, 1.0);
  const auto* text = reinterpret_cast<const char*>(CarrowPrivateVersionString);
  EXPECT_EQ(std::string(text), "@(#)PROGRAM:CarrowPrivate  PROJECT:carrowd-1\n");
}
