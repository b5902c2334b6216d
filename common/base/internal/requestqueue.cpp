#include "common/base/internal/requestqueue.h"

#include <cerrno>

#include <ace/Guard_T.h>
#include <ace/Message_Block.h>

namespace Kelvane {
namespace internal {

namespace {

// Spent blocks kept for reuse; more are released.
const size_t kMaxSpare = 1024;

}  // namespace

RequestQueue::RequestQueue()
    : front_(0),
      frontEnd_(nullptr),
      unindexed_(false),
      spare_(nullptr),
      spareCount_(0) {
  levels_.reserve(8);
}

RequestQueue::~RequestQueue() {
  while (spare_ != nullptr) {
    ACE_Message_Block* next = spare_->next();
    spare_->next(nullptr);
    spare_->release();
    spare_ = next;
  }
}

void RequestQueue::LinkAfter(ACE_Message_Block* before,
                             ACE_Message_Block* item) {
  ACE_Message_Block* after = before->next();
  item->prev(before);
  item->next(after);
  if (after != nullptr) {
    after->prev(item);
  } else {
    tail_ = item;
  }
  before->next(item);
}

void RequestQueue::LinkHead(ACE_Message_Block* item) {
  item->prev(nullptr);
  item->next(head_);
  if (head_ != nullptr) {
    head_->prev(item);
  } else {
    tail_ = item;
  }
  head_ = item;
}

void RequestQueue::ResetIfEmpty() {
  if (head_ != nullptr) return;
  levels_.clear();
  front_ = 0;
  frontEnd_ = nullptr;
  unindexed_ = false;
}

int RequestQueue::enqueue_i(ACE_Message_Block* item) {
  if (item == nullptr) return -1;
  if (unindexed_) return Base::enqueue_i(item);
  item->next(nullptr);
  const unsigned long priority = item->msg_priority();

  // levels_[0, i) are the indexed levels at or above the new priority.
  size_t i = levels_.size();
  while (i > 0 && levels_[i - 1].priority < priority) --i;

  if (i > 0) {
    // Every indexed block lies behind the unindexed prefix, so the last
    // block of the lowest level at or above `priority` is the last block
    // of the whole queue that ranks at or above it.
    Level& level = levels_[i - 1];
    LinkAfter(level.last, item);
    if (level.priority == priority) {
      level.last = item;
      ++level.count;
    } else {
      levels_.insert(levels_.begin() + i, Level{priority, item, 1});
    }
  } else {
    // Nothing indexed ranks as high: look through the prefix from its end.
    ACE_Message_Block* block = frontEnd_;
    size_t left = front_;
    while (left > 0 && block->msg_priority() < priority) {
      block = block->prev();
      --left;
    }
    if (left == 0) {
      LinkHead(item);
      if (front_ > 0) {
        ++front_;  // ahead of the prefix, so part of it
      } else {
        levels_.insert(levels_.begin(), Level{priority, item, 1});
      }
    } else if (block == frontEnd_) {
      // Right behind the prefix and above every indexed block: it opens
      // the indexed part.
      LinkAfter(block, item);
      levels_.insert(levels_.begin(), Level{priority, item, 1});
    } else {
      LinkAfter(block, item);
      ++front_;
    }
  }

  item->total_size_and_length(cur_bytes_, cur_length_);
  ++cur_count_;
  if (signal_dequeue_waiters() == -1) return -1;
  return static_cast<int>(cur_count_);
}

int RequestQueue::enqueue_head_i(ACE_Message_Block* item) {
  if (unindexed_ || item == nullptr) return Base::enqueue_head_i(item);
  if (item->next() != nullptr) {
    unindexed_ = true;
    return Base::enqueue_head_i(item);
  }
  const unsigned long priority = item->msg_priority();
  if (front_ == 0 && (levels_.empty() || priority >= levels_[0].priority)) {
    if (!levels_.empty() && levels_[0].priority == priority) {
      ++levels_[0].count;
    } else {
      levels_.insert(levels_.begin(), Level{priority, item, 1});
    }
  } else {
    if (front_ == 0) frontEnd_ = item;
    ++front_;
  }
  return Base::enqueue_head_i(item);
}

int RequestQueue::enqueue_tail_i(ACE_Message_Block* item) {
  if (unindexed_ || item == nullptr) return Base::enqueue_tail_i(item);
  const unsigned long priority = item->msg_priority();
  if (item->next() != nullptr) {
    unindexed_ = true;
  } else if (levels_.empty()) {
    levels_.push_back(Level{priority, item, 1});
  } else if (levels_.back().priority == priority) {
    levels_.back().last = item;
    ++levels_.back().count;
  } else if (levels_.back().priority > priority) {
    levels_.push_back(Level{priority, item, 1});
  } else {
    unindexed_ = true;
  }
  return Base::enqueue_tail_i(item);
}

int RequestQueue::enqueue_deadline_i(ACE_Message_Block* item) {
  unindexed_ = true;
  return Base::enqueue_deadline_i(item);
}

int RequestQueue::dequeue_head_i(ACE_Message_Block*& item) {
  if (!unindexed_ && head_ != nullptr) {
    if (front_ > 0) {
      if (--front_ == 0) frontEnd_ = nullptr;
    } else if (--levels_[0].count == 0) {
      levels_.erase(levels_.begin());
    }
  }
  const int result = Base::dequeue_head_i(item);
  ResetIfEmpty();
  return result;
}

int RequestQueue::dequeue_tail_i(ACE_Message_Block*& item) {
  if (!unindexed_ && tail_ != nullptr) {
    if (!levels_.empty()) {
      Level& level = levels_.back();
      if (--level.count == 0) {
        levels_.pop_back();
      } else {
        level.last = tail_->prev();
      }
    } else if (--front_ == 0) {
      frontEnd_ = nullptr;
    } else {
      frontEnd_ = tail_->prev();
    }
  }
  const int result = Base::dequeue_tail_i(item);
  ResetIfEmpty();
  return result;
}

int RequestQueue::dequeue_prio_i(ACE_Message_Block*& item) {
  unindexed_ = true;
  const int result = Base::dequeue_prio_i(item);
  ResetIfEmpty();
  return result;
}

int RequestQueue::dequeue_deadline_i(ACE_Message_Block*& item) {
  unindexed_ = true;
  const int result = Base::dequeue_deadline_i(item);
  ResetIfEmpty();
  return result;
}

int RequestQueue::flush_i() {
  const int result = Base::flush_i();
  ResetIfEmpty();
  return result;
}

ACE_Message_Block* RequestQueue::TakeAll() {
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, lock_, nullptr);
  ACE_Message_Block* first = head_;
  head_ = nullptr;
  tail_ = nullptr;
  cur_bytes_ = 0;
  cur_length_ = 0;
  cur_count_ = 0;
  ResetIfEmpty();
  signal_enqueue_waiters();
  return first;
}

int RequestQueue::EnqueueData(const char* data,
                              ACE_Message_Block::ACE_Message_Type type,
                              unsigned long priority) {
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, lock_, -1);
  if (state_ == ACE_Message_Queue_Base::DEACTIVATED) {
    errno = ESHUTDOWN;
    return -1;
  }
  if (wait_not_full_cond(nullptr) == -1) return -1;

  ACE_Message_Block* block = spare_;
  if (block != nullptr) {
    spare_ = block->next();
    --spareCount_;
    block->next(nullptr);
    block->msg_type(type);
    block->msg_priority(priority);
    block->base(const_cast<char*>(data), 1, ACE_Message_Block::DONT_DELETE);
  } else {
    block = new ACE_Message_Block(1, type, nullptr, data, nullptr, nullptr,
                                  priority, ACE_Time_Value::zero,
                                  ACE_Time_Value::max_time, nullptr, nullptr);
  }
  const int count = enqueue_i(block);
  if (count == -1) {
    block->release();
    return -1;
  }
  // No notification strategy is ever set on this queue.
  return count;
}

RequestQueue::TakeResult RequestQueue::Take(
    ACE_Message_Block*& item, ACE_Message_Block* spent,
    ACE_Message_Block::Message_Flags firstPass) {
  item = nullptr;
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, lock_, kClosed);
  if (spent != nullptr) {
    if (spareCount_ < kMaxSpare) {
      spent->next(spare_);
      spare_ = spent;
      ++spareCount_;
    } else {
      spent->release();
    }
  }
  if (state_ == ACE_Message_Queue_Base::DEACTIVATED) {
    errno = ESHUTDOWN;
    return kClosed;
  }
  if (wait_not_empty_cond(nullptr) == -1) return kClosed;
  ACE_Message_Block* head = nullptr;
  if (dequeue_head_i(head) == -1) return kClosed;
  if (head->msg_type() != ACE_Message_Block::MB_HANGUP) {
    item = head;
    return kTaken;
  }
  const bool first = (head->self_flags() & firstPass) != 0;
  head->clr_self_flags(firstPass);
  if (enqueue_i(head) == -1) {
    head->release();
    return kHangUpLost;
  }
  return first ? kHangUpContinue : kHangUpEnd;
}

}  // namespace internal
}  // namespace Kelvane
