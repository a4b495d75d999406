#include "framework/snmp/notifications.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>

#include "tests/support/failing_call.h"

namespace vex {
namespace {

Notification Numbered(uint32_t number) {
  Notification notification;
  notification.number = number;
  return notification;
}

// What a function writes to the log.
template <typename Function>
std::string Logged(Function function) {
  testing::internal::CaptureStderr();
  function();
  return testing::internal::GetCapturedStderr();
}

uint32_t PopNumber(NotificationQueue *queue) {
  Notifications first = queue->Pop();
  return first.empty() ? 0 : first.front().notification.number;
}

TEST(NotificationQueue, OldestFirst) {
  NotificationQueue queue;
  EXPECT_TRUE(queue.Pop().empty());
  queue.Push(Numbered(1));
  queue.Push(Numbered(2));
  EXPECT_EQ(PopNumber(&queue), 1U);
  EXPECT_EQ(PopNumber(&queue), 2U);
  EXPECT_TRUE(queue.Pop().empty());
}

TEST(NotificationQueue, KeepsTheNewest256WhileTheMasterIsAway) {
  NotificationQueue queue;
  for (uint32_t i = 1; i <= 300; i++) {
    queue.Push(Numbered(i));
  }
  EXPECT_EQ(queue.Size(), 256U);
  EXPECT_EQ(PopNumber(&queue), 45U);
}

TEST(NotificationQueue, KeepsAFloodWhileTheMasterIsThere) {
  NotificationQueue queue;
  queue.SetUp(true);
  for (uint32_t i = 1; i <= 1000; i++) {
    queue.Push(Numbered(i));
  }
  EXPECT_EQ(queue.Size(), 1000U);
  EXPECT_EQ(PopNumber(&queue), 1U);
  queue.SetUp(false);
  EXPECT_EQ(queue.Size(), 256U);
  EXPECT_EQ(PopNumber(&queue), 745U);
}

TEST(NotificationQueue, IsAllDoneOnceNothingWaitsOrIsUnderWay) {
  NotificationQueue queue;
  EXPECT_TRUE(queue.AllDone());
  queue.Push(Numbered(2));
  Notifications older;
  older.push_back({Numbered(1)});
  queue.PushOlder(std::move(older));
  EXPECT_FALSE(queue.AllDone());
  Notifications popped = queue.Pop();
  EXPECT_EQ(popped.front().notification.number, 1U);
  EXPECT_EQ(PopNumber(&queue), 2U);
  EXPECT_FALSE(queue.AllDone());
  queue.Done();
  EXPECT_FALSE(queue.AllDone());
  queue.PutBack(std::move(popped));
  EXPECT_FALSE(queue.AllDone());
  EXPECT_EQ(PopNumber(&queue), 1U);
  queue.Done();
  EXPECT_TRUE(queue.AllDone());
}

TEST(NotificationQueue, WhatWasNotAnsweredGoesFirstAgain) {
  NotificationQueue queue;
  queue.Push(Numbered(3));
  Notifications back;
  back.push_back({Numbered(1)});
  back.push_back({Numbered(2)});
  queue.PutBack(std::move(back));
  EXPECT_EQ(PopNumber(&queue), 1U);
  EXPECT_EQ(PopNumber(&queue), 2U);
  EXPECT_EQ(PopNumber(&queue), 3U);
}

TEST(NotificationQueue, PutBackCountsTowardsTheBound) {
  NotificationQueue queue;
  for (uint32_t i = 10; i < 10 + 256; i++) {
    queue.Push(Numbered(i));
  }
  Notifications back;
  back.push_back({Numbered(1)});
  queue.PutBack(std::move(back));
  EXPECT_EQ(queue.Size(), 256U);
  EXPECT_EQ(PopNumber(&queue), 10U);
}

// What is lost is said when it begins and counted when all the rest is on its way.
TEST(NotificationQueue, SaysWhatItDropsOnce) {
  NotificationQueue queue;
  const auto push = [&queue](uint32_t from, uint32_t to) {
    for (uint32_t i = from; i <= to; i++) {
      queue.Push(Numbered(i));
    }
  };
  EXPECT_EQ(Logged([&] { push(1, 256); }), "");
  EXPECT_EQ(Logged([&] { push(257, 300); }),
            "More than 256 notifications wait for the master agent; the oldest are lost\n");
  EXPECT_EQ(Logged([&] {
              while (PopNumber(&queue) != 0) {
              }
            }),
            "44 notifications were lost\n");
  EXPECT_EQ(Logged([&] {
              push(301, 301);
              EXPECT_EQ(PopNumber(&queue), 301U);
            }),
            "");
}

// Whoever reads the log may take its time, and the agent must not wait for the SNMP side's lines.
TEST(NotificationQueue, IsNotHeldWhileALineIsWritten) {
  NotificationQueue queue;
  std::future<size_t> size;
  int asked = 0;
  const auto ask = [&] {
    size = std::async(std::launch::async, [&queue] { return queue.Size(); });
    asked += size.wait_for(std::chrono::seconds(10)) == std::future_status::ready ? 1 : 0;
  };
  const std::string log = Logged([&] {
    const FailingCall before_line("write", ask, 1, FailingCall::kAll);
    for (uint32_t i = 1; i <= 257; i++) {
      queue.Push(Numbered(i));
    }
    EXPECT_EQ(asked, 1);
    while (PopNumber(&queue) != 0) {
    }
    EXPECT_EQ(asked, 2);
  });
  EXPECT_NE(log.find("1 notifications were lost\n"), std::string::npos) << log;
}

}  // namespace
}  // namespace vex
