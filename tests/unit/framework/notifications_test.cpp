#include "framework/notifications.h"

#include <gtest/gtest.h>

namespace vex {
namespace {

Notification Numbered(uint32_t number) {
  Notification notification;
  notification.number = number;
  return notification;
}

TEST(NotificationQueue, OldestFirst) {
  NotificationQueue queue;
  EXPECT_FALSE(queue.Pop());
  queue.Push(Numbered(1));
  queue.Push(Numbered(2));
  EXPECT_EQ(queue.Pop()->number, 1U);
  EXPECT_EQ(queue.Pop()->number, 2U);
  EXPECT_FALSE(queue.Pop());
}

TEST(NotificationQueue, KeepsTheNewest256WhileTheMasterIsAway) {
  NotificationQueue queue;
  for (uint32_t i = 1; i <= 300; i++) {
    queue.Push(Numbered(i));
  }
  EXPECT_EQ(queue.Size(), 256U);
  EXPECT_EQ(queue.Pop()->number, 45U);
}

TEST(NotificationQueue, KeepsAFloodWhileTheMasterIsThere) {
  NotificationQueue queue;
  queue.SetUp(true);
  for (uint32_t i = 1; i <= 1000; i++) {
    queue.Push(Numbered(i));
  }
  EXPECT_EQ(queue.Size(), 1000U);
  EXPECT_EQ(queue.Pop()->number, 1U);
  queue.SetUp(false);
  EXPECT_EQ(queue.Size(), 256U);
  EXPECT_EQ(queue.Pop()->number, 745U);
}

TEST(NotificationQueue, WhatWasNotAnsweredGoesFirstAgain) {
  NotificationQueue queue;
  queue.Push(Numbered(3));
  std::vector<Notification> back;
  back.push_back(Numbered(1));
  back.push_back(Numbered(2));
  queue.PutBack(std::move(back));
  EXPECT_EQ(queue.Pop()->number, 1U);
  EXPECT_EQ(queue.Pop()->number, 2U);
  EXPECT_EQ(queue.Pop()->number, 3U);
}

TEST(NotificationQueue, PutBackCountsTowardsTheBound) {
  NotificationQueue queue;
  for (uint32_t i = 10; i < 10 + 256; i++) {
    queue.Push(Numbered(i));
  }
  std::vector<Notification> back;
  back.push_back(Numbered(1));
  queue.PutBack(std::move(back));
  EXPECT_EQ(queue.Size(), 256U);
  EXPECT_EQ(queue.Pop()->number, 10U);
}

}  // namespace
}  // namespace vex
