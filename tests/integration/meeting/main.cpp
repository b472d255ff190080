#include <gtest/gtest.h>

#include "ChildAttendee.h"

int main(int argc, char** argv) {
  if (const auto code = kestrova::test::ChildAttendee::mainOfChild(argc, argv)) return *code;
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
