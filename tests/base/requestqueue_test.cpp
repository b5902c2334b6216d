#include "common/base/internal/requestqueue.h"

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <ace/Message_Block.h>

#include <gtest/gtest.h>

namespace {

using Kelvane::internal::RequestQueue;
typedef ACE_Message_Queue<ACE_MT_SYNCH, ACE_System_Time_Policy> PlainQueue;

// A block whose read pointer carries the item's number.
ACE_Message_Block* Block(uintptr_t id, unsigned long priority) {
  return new ACE_Message_Block(1, ACE_Message_Block::MB_USER, nullptr,
                               reinterpret_cast<const char*>(id), nullptr,
                               nullptr, priority);
}

uintptr_t Id(ACE_Message_Block* block) {
  return reinterpret_cast<uintptr_t>(block->base());
}

// "id:priority" of every block, head first.
std::string Contents(PlainQueue& queue) {
  std::string text;
  PlainQueue::ITERATOR it(queue);
  for (ACE_Message_Block* block = nullptr; it.next(block) != 0; it.advance()) {
    text += std::to_string(Id(block)) + ":" +
            std::to_string(block->msg_priority()) + " ";
  }
  return text;
}

enum Op { kPrio, kHead, kTail, kTakeHead, kTakeTail, kTakePrio, kFlush };

// Applies one operation to both queues; the plain ACE queue is the oracle.
void Apply(Op op, uintptr_t id, unsigned long priority, RequestQueue& ours,
           PlainQueue& plain) {
  ACE_Time_Value now = ACE_OS::gettimeofday();
  ACE_Message_Block* a = nullptr;
  ACE_Message_Block* b = nullptr;
  switch (op) {
    case kPrio:
      EXPECT_EQ(plain.enqueue_prio(Block(id, priority)),
                ours.enqueue_prio(Block(id, priority)));
      break;
    case kHead:
      EXPECT_EQ(plain.enqueue_head(Block(id, priority)),
                ours.enqueue_head(Block(id, priority)));
      break;
    case kTail:
      EXPECT_EQ(plain.enqueue_tail(Block(id, priority)),
                ours.enqueue_tail(Block(id, priority)));
      break;
    case kTakeHead:
    case kTakeTail:
    case kTakePrio:
      if (plain.is_empty()) return;
      if (op == kTakeHead)
        plain.dequeue_head(a, &now), ours.dequeue_head(b, &now);
      else if (op == kTakeTail)
        plain.dequeue_tail(a, &now), ours.dequeue_tail(b, &now);
      else
        plain.dequeue_prio(a, &now), ours.dequeue_prio(b, &now);
      ASSERT_TRUE(a != nullptr && b != nullptr);
      EXPECT_EQ(Id(a), Id(b));
      a->release();
      b->release();
      break;
    case kFlush:
      EXPECT_EQ(plain.flush(), ours.flush());
      break;
  }
}

TEST(RequestQueue, KeepsTheOrderOfAcesOwnWalk) {
  struct Row {
    const char* label;
    // Weights of kPrio, kHead, kTail, kTakeHead, kTakeTail, kTakePrio, kFlush.
    std::vector<double> weights;
    int levels;
  };
  const Row rows[] = {
      {"tail inserts that keep or break the order", {44, 3, 6, 45, 2, 0, 0}, 4},
      {"one level", {45, 4, 4, 47, 0, 0, 0}, 1},
      {"everything, flushes too", {48, 4, 4, 38, 3, 3, 0.2}, 7},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    std::mt19937 random(2024);
    std::discrete_distribution<int> pick(row.weights.begin(),
                                         row.weights.end());
    std::uniform_int_distribution<int> level(0, row.levels - 1);
    RequestQueue ours;
    PlainQueue plain;
    for (uintptr_t id = 1; id <= 5000; ++id) {
      const Op op = static_cast<Op>(pick(random));
      const unsigned long priority =
          10ul * static_cast<unsigned long>(level(random));
      Apply(op, id, priority, ours, plain);
      ASSERT_EQ(plain.message_count(), ours.message_count());
      if (id % 8 == 0) {
        ASSERT_EQ(Contents(plain), Contents(ours))
            << "after op " << op << " of item " << id;
      }
      if (HasFailure()) return;
    }
    EXPECT_EQ(Contents(plain), Contents(ours));
    ours.flush();
    plain.flush();
  }
}

TEST(RequestQueue, TakeAllEmptiesTheQueueInOrder) {
  RequestQueue queue;
  const unsigned long priorities[] = {30, 60, 30, 10, 45};
  uintptr_t id = 1;
  for (unsigned long p : priorities) queue.enqueue_prio(Block(id++, p));
  queue.enqueue_head(Block(id++, 0));

  std::string order;
  for (ACE_Message_Block* block = queue.TakeAll(); block != nullptr;) {
    ACE_Message_Block* next = block->next();
    order += std::to_string(Id(block)) + " ";
    block->release();
    block = next;
  }
  EXPECT_EQ("6 2 5 1 3 4 ", order);
  EXPECT_EQ(0u, queue.message_bytes());
  // Still usable, with a fresh index.
  queue.enqueue_prio(Block(7, 10));
  queue.enqueue_prio(Block(8, 20));
  EXPECT_EQ("8:20 7:10 ", Contents(queue));
  queue.flush();
}

}  // namespace
