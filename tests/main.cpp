#include <gtest/gtest.h>

#include "stream/base/reflect/IClass.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  kiv::ReflectRun();
  return RUN_ALL_TESTS();
}
