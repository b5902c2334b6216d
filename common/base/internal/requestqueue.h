// The message queue behind every ActiveObj.
//
// ACE_Message_Queue::enqueue_prio walks back from the tail past every block
// of lower priority, so with mixed priorities each insertion costs the depth
// of the queue. RequestQueue keeps exactly the order that walk produces
// (a block goes behind the last block of equal or higher priority, ahead of
// every lower one; equal priorities keep their arrival order) but finds the
// place from an index: for each priority level present, the level's last
// block. An insertion costs the number of distinct levels present (a
// handful), whatever the depth.
//
// The index covers the ordered part of the queue. Blocks put at the head
// out of order (enqueue_head/ungetq, as a stop's hang-up message is) form a
// short prefix that is walked when a block outranks every indexed one.
// Blocks appended out of order at the tail, chains, and the deadline and
// priority dequeues that pick from the middle switch the queue to ACE's own
// walk until it next runs empty: same order, plain cost.
//
// Thread safety: as ACE_Message_Queue<ACE_MT_SYNCH>; every override runs
// under the queue's lock, taken by the public methods of the base.
#ifndef COM_COMMON_BASE_INTERNAL_REQUESTQUEUE_H_
#define COM_COMMON_BASE_INTERNAL_REQUESTQUEUE_H_

#include <cstddef>
#include <vector>

#include <ace/Condition_Thread_Mutex.h>
#include <ace/Message_Block.h>
#include <ace/Message_Queue_T.h>
#include <ace/Synch_Traits.h>
#include <ace/Time_Policy.h>

#include "common/base/comexport.h"

namespace Kelvane {
namespace internal {

class COM_EXPORT RequestQueue
    : public ACE_Message_Queue<ACE_MT_SYNCH, ACE_System_Time_Policy> {
 public:
  typedef ACE_Message_Queue<ACE_MT_SYNCH, ACE_System_Time_Policy> Base;

  RequestQueue();
  ~RequestQueue() override;

  // Unlinks every queued block under the queue's lock and returns the
  // first; the rest follow through next(), in queue order. The queue is
  // empty afterwards and inserters blocked on the high water mark wake.
  ACE_Message_Block* TakeAll();

  // The head block, the rest following through next(); only while the
  // caller holds lock().
  ACE_Message_Block* HeadLocked() { return head_; }

  // enqueue_prio of a block of size 1 that refers to `data` without owning
  // it, with the given type and priority. The block is one handed back
  // through DequeueHead when there is one, so that a steady flow of
  // requests allocates no blocks. Waits while the queue is full; -1 (errno
  // ESHUTDOWN) once deactivated; else the count after the insertion.
  int EnqueueData(const char* data, ACE_Message_Block::ACE_Message_Type type,
                  unsigned long priority);
  // What Take found.
  enum TakeResult {
    kTaken,           // `item` is the head block, now the caller's
    kHangUpEnd,       // a hang-up, passed on: the taker ends
    kHangUpContinue,  // a hang-up on its first pass, passed on: keep taking
    kHangUpLost,      // a hang-up that could not be put back (released)
    kClosed           // deactivated: nothing taken
  };
  // dequeue_head without a time limit that first takes back `spent`, a
  // block from EnqueueData that the caller no longer uses (or null), for
  // reuse. A hang-up message (MB_HANGUP) is not handed out but passed on:
  // it goes back by priority in the same step, so that no other taker
  // slips past it. A hang-up carrying `firstPass` in its self flags loses
  // the flag and lets this taker go on (kHangUpContinue).
  TakeResult Take(ACE_Message_Block*& item, ACE_Message_Block* spent,
                  ACE_Message_Block::Message_Flags firstPass);

 protected:
  int enqueue_i(ACE_Message_Block* item) override;
  int enqueue_head_i(ACE_Message_Block* item) override;
  int enqueue_tail_i(ACE_Message_Block* item) override;
  int enqueue_deadline_i(ACE_Message_Block* item) override;
  int dequeue_head_i(ACE_Message_Block*& item) override;
  int dequeue_tail_i(ACE_Message_Block*& item) override;
  int dequeue_prio_i(ACE_Message_Block*& item) override;
  int dequeue_deadline_i(ACE_Message_Block*& item) override;
  int flush_i() override;

 private:
  struct Level {
    unsigned long priority;
    ACE_Message_Block* last;  // the level's block nearest the tail
    size_t count;
  };

  void LinkAfter(ACE_Message_Block* before, ACE_Message_Block* item);
  void LinkHead(ACE_Message_Block* item);
  // Forgets the index once the queue is empty.
  void ResetIfEmpty();

  // Levels of the indexed part, highest priority first.
  std::vector<Level> levels_;
  // Blocks at the head that are not indexed, and the last of them.
  size_t front_;
  ACE_Message_Block* frontEnd_;
  // Order no longer known to the index: ACE's walk decides.
  bool unindexed_;
  // Blocks handed back for reuse, linked through next().
  ACE_Message_Block* spare_;
  size_t spareCount_;
};

}  // namespace internal
}  // namespace Kelvane

#endif  // COM_COMMON_BASE_INTERNAL_REQUESTQUEUE_H_
