#include <kestrova/platform/linux/segmentation/Model.h>
#include <kestrova/platform/linux/segmentation/ModelFile.h>

#include <gtest/gtest.h>

#include <random>

namespace kestrova::segmentation {
namespace {

TEST(Model, damagedFilesAreRefusedAndNeverReadBeyondTheirEnd) {
  const auto whole = readModelFile(KESTROVA_SEGMENTATION_MODEL_DEFAULT);
  const auto model = readModel(whole);
  EXPECT_EQ(model.tensor(model.input).shape, (std::vector<std::size_t>{1, 256, 256, 3}));
  EXPECT_GT(model.operations.size(), 50u);

  for (std::size_t size = 0; size < whole.size(); size += 1 + whole.size() / 97) {
    // Memory of just that size, so that a sanitizer sees a byte too many.
    const std::vector<std::uint8_t> part(whole.begin(),
                                         whole.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_THROW(readModel(part), flatbuffer::Damaged) << size;
  }
  std::mt19937 random(7);
  int refused = 0;
  for (int round = 0; round < 300; ++round) {
    auto changed = whole;
    // Where the tables are: most of the file is numbers, whose change nobody could see.
    for (int i = 0; i < 30; ++i) {
      const auto nearEnd = changed.size() - 1 - random() % 60'000;
      changed[random() % 2 ? nearEnd : random() % 2'000] = static_cast<std::uint8_t>(random());
    }
    try {
      readModel(changed);
    } catch (const flatbuffer::Damaged&) {
      ++refused;
    }
  }
  EXPECT_GT(refused, 0);
}

}  // namespace
}  // namespace kestrova::segmentation
