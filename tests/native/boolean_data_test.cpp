// BooleanData: the flag's setters and properties, and its Boolean history,
// which never touches Value.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "frame/history.h"
#include "values/boolean_data.h"

#include "test_support.h"

namespace valmetra {
namespace {

class BooleanDataTest : public ::testing::Test {
 protected:
  void SetUp() override { release_thread_history(); }
  void TearDown() override { release_thread_history(); }
};

// Every setter from every kind of start: false, true, and a non-canonical
// value stored by a put. The setters store exactly -1 or 0.
TEST_F(BooleanDataTest, SettersStoreExactFlags) {
  struct Setter { const char* name; std::function<void(BooleanData&)> op; Flag result; };
  const Setter setters[] = {
      {"No", [](BooleanData& b) { b.No(); }, 0},
      {"Reset", [](BooleanData& b) { b.Reset(); }, 0},
      {"ResetThis", [](BooleanData& b) { b.ResetThis(); }, 0},
      {"SetThis", [](BooleanData& b) { b.SetThis(); }, -1},
      {"Yes", [](BooleanData& b) { b.Yes(); }, -1},
      // sets, never inverts
      {"ToggleThis", [](BooleanData& b) { b.ToggleThis(); }, -1},
      {"Toggle", [](BooleanData& b) { b.Toggle(); }, -1},
  };
  for (const auto& s : setters) {
    for (Flag start : {Flag{0}, Flag{-1}, Flag{1}, Flag{0x7FFF}}) {
      BooleanData b;
      b.Value(start);
      s.op(b);
      EXPECT_EQ(b.Value(), s.result) << s.name << " from " << start;
      EXPECT_EQ(b.Default(), s.result) << s.name << " from " << start;
    }
  }
}

TEST_F(BooleanDataTest, NewObjectIsFalseAndPutsStoreTheGivenBits) {
  EXPECT_EQ(BooleanData().Value(), 0);
  for (Flag bits : {Flag{1}, Flag{-2}, Flag{0x1234}, Flag{-32768}}) {
    BooleanData b;
    b.Value(bits);
    EXPECT_EQ(b.Value(), bits);
    EXPECT_EQ(b.Default(), bits);
    b.Default(static_cast<Flag>(bits ^ 1));
    EXPECT_EQ(b.Value(), static_cast<Flag>(bits ^ 1));
  }
}

// Push and Pop leave Value alone; Drop calls nothing, so the newest flag
// stays and an empty history is no error.
TEST_F(BooleanDataTest, PushPopAndDrop) {
  BooleanData b;
  b.Drop();
  b.Push(-1);
  b.Push(5);  // recorded as given
  b.Drop();
  EXPECT_EQ(b.Value(), 0);
  b.SetThis();
  EXPECT_EQ(b.Pop(), 5);
  EXPECT_EQ(b.Pop(), -1);
  EXPECT_EQ(b.Value(), -1);
}

TEST_F(BooleanDataTest, PushAndSetChangesTheCallersVariable) {
  BooleanData a, b;
  b.Value(7);
  Flag variable = -1;
  b.PushAndSet(variable, 0);
  EXPECT_EQ(variable, 0);
  EXPECT_EQ(b.Value(), 7);
  EXPECT_EQ(a.Pop(), -1);  // the history is the thread's, shared by every object
}

TEST_F(BooleanDataTest, HistoryErrorPassesOn) {
  BooleanData b;
  b.Yes();
  EXPECT_TRUE(test::history_empty_error([&] { b.Pop(); }, u"Boolean"));
  EXPECT_EQ(b.Value(), -1);
}

// Pop takes from the flag history, not from the Integer one.
TEST_F(BooleanDataTest, FlagHistoryIsItsOwn) {
  BooleanData b;
  Integer i = -1;
  history().PushInteger(i);
  EXPECT_THROW(b.Pop(), Error);
}

}  // namespace
}  // namespace valmetra
