// SPDX-License-Identifier: Apache-2.0
//
// A table of records at its limits, whatever its count says.
#include "conf/record_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <vector>

namespace {

using ::testing::ElementsAre;

constexpr int kLeast = std::numeric_limits<int>::min();
constexpr int kMost = std::numeric_limits<int>::max();

struct Record {
  int number;
};

// Three records between two that belong to nobody.
class RecordTableLimits : public ::testing::Test {
 protected:
  struct Memory {
    Record before{-1};
    Record records[3] = {{10}, {11}, {12}};
    Record behind{-2};
  };

  std::vector<int> numbers() const {
    return {memory.before.number, memory.records[0].number, memory.records[1].number, memory.records[2].number,
            memory.behind.number};
  }
  const Record* find(int number) const {
    return table.find([number](const Record& record) { return record.number == number; });
  }

  Memory memory;
  int count = 0;
  RecordTable<Record, 3> table{memory.records, count};
};

TEST_F(RecordTableLimits, CountIsNeverOutsideTheTable) {
  for (const auto& [stored, expected] :
       std::vector<std::pair<int, int>>{{kLeast, 0}, {-1, 0}, {0, 0}, {1, 1}, {3, 3}, {4, 3}, {kMost, 3}}) {
    count = stored;
    EXPECT_EQ(table.count(), expected) << stored;
  }
}

TEST_F(RecordTableLimits, PositionsOutsideHoldNothing) {
  count = 2;
  EXPECT_EQ(table.at(0), &memory.records[0]);
  EXPECT_EQ(table.at(1), &memory.records[1]);
  for (const int position : {2, 3, kMost, -1, kLeast}) {
    EXPECT_EQ(table.at(position), nullptr) << position;
  }
}

TEST_F(RecordTableLimits, SearchStaysInsideTheTable) {
  count = 2;
  EXPECT_EQ(find(11), &memory.records[1]);
  EXPECT_EQ(find(12), nullptr);
  count = kMost;
  EXPECT_EQ(find(12), &memory.records[2]);
  EXPECT_EQ(find(-2), nullptr);
  count = -1;
  EXPECT_EQ(find(10), nullptr);
}

TEST_F(RecordTableLimits, LastPlaceCanBeTakenAndNoneBehindIt) {
  count = 2;
  EXPECT_TRUE(table.append({20}));
  EXPECT_EQ(count, 3);
  for (const int full : {3, 4, kMost}) {
    count = full;
    EXPECT_FALSE(table.append({30})) << full;
    EXPECT_EQ(count, full);
  }
  EXPECT_THAT(numbers(), ElementsAre(-1, 10, 11, 20, -2));
}

TEST_F(RecordTableLimits, TableThatWasEmptiedMeanwhileIsLeftAlone) {
  count = 1;
  Record* found = table.at(0);
  for (const int emptied : {0, -1, kLeast}) {
    count = emptied;
    table.remove(*found);
    EXPECT_EQ(count, emptied);
  }
  EXPECT_THAT(numbers(), ElementsAre(-1, 10, 11, 12, -2));
}

}  // namespace
