// Many producers against an object that is stopped while they insert.
#include <atomic>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/base/activeobj.h"

#include "support/requesttesting.h"

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
#define COM_STRESS_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#define COM_STRESS_SANITIZED 1
#endif
#endif

namespace {

#ifdef COM_STRESS_SANITIZED
const int kRequests = 100000;
#else
const int kRequests = 1000000;
#endif
const int kProducers = 4, kWorkers = 4;
const int kSample = 997;  // every kSampleth request gets a waiter

struct Tally {
  std::atomic<int> executed{0}, twice{0};
  // Freed after running, unrun but completed (drained), unrun and not.
  std::atomic<int> freedExecuted{0}, freedDrained{0}, freedLost{0};
};

class Counted : public MethodRequest {
 public:
  Counted(ActiveObj* target, Tally* tally) : target_(target), tally_(tally) {}
  ~Counted() override {
    ++(ran_.load()     ? tally_->freedExecuted
       : IsCompleted() ? tally_->freedDrained
                       : tally_->freedLost);
  }
  ActiveObj* GetActiveObj() override { return target_; }
  const char* GetName() override { return "Counted"; }
  bool ran() const { return ran_.load(); }

 protected:
  int ExecuteImpl() override {
    if (ran_.exchange(true)) ++tally_->twice;
    ++tally_->executed;
    return 0;
  }

 private:
  ActiveObj* target_;
  Tally* tally_;
  std::atomic<bool> ran_{false};
};

Kelvane::CommandPriority PriorityOf(int i) {
  static const Kelvane::CommandPriority kMix[] = {
      Kelvane::NORMAL_PRIORITY, Kelvane::HIGH_PRIORITY, Kelvane::LOW_PRIORITY,
      Kelvane::NORMAL_PRIORITY, Kelvane::TOP_PRIORITY};
  return kMix[i % 5];
}

void StopAllUnderLoad(bool urgent) {
  ActiveObj::SetLoggingEnabled(false);
  // stopAll stops every object; the others run again after.
  std::vector<std::pair<ActiveObj*, size_t>> others;
  for (const auto& entry : ActiveObj::getAllSchedulers())
    if (entry.second->thr_count() > 0)
      others.push_back({entry.second, entry.second->thr_count()});

  Tally tally;
  ActiveObj object("Stress", 1u << 30);
  ASSERT_EQ(0, object.run(kWorkers, 0));

  std::mutex sampleLock;
  std::deque<MethodRequestPtr> samples;
  MethodRequestPtr current;  // the sample the waiter waits on
  std::atomic<bool> producing{true};
  std::atomic<int> inserted{0}, waited{0};
  std::atomic<bool> waiterDone{false};
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = p; i < kRequests; i += kProducers) {
        MethodRequestPtr request(new Counted(&object, &tally));
        MethodRequest::Schedule(request, PriorityOf(i));
        ++inserted;
        if (i % kSample == 0) {
          std::lock_guard<std::mutex> hold(sampleLock);
          samples.push_back(request);
        }
      }
    });
  }
  // Every wait on a sample returns, whether it ran or was drained.
  std::thread waiter([&] {
    for (;;) {
      MethodRequestPtr next;
      {
        std::lock_guard<std::mutex> hold(sampleLock);
        current = MethodRequestPtr();
        if (!samples.empty()) {
          next = samples.front();
          current = next;
          samples.pop_front();
        } else if (!producing.load()) {
          waiterDone = true;
          return;
        }
      }
      if (next.isNull()) {
        std::this_thread::yield();
      } else {
        EXPECT_EQ(0, next->Wait());
        ++waited;
      }
    }
  });
  std::thread stopper([&] {
    while (inserted.load() < kRequests / 2) std::this_thread::yield();
    ActiveObj::stopAll(urgent);
  });

  for (std::thread& t : producers) t.join();
  producing = false;
  stopper.join();

  const int pending = static_cast<int>(object.pending());
  // Samples the waiter still holds are not freed yet; one that neither ran
  // nor completed is counted by pending().
  int heldExecuted = 0, heldDrained = 0;
  {
    std::lock_guard<std::mutex> hold(sampleLock);
    std::vector<MethodRequestPtr> held(samples.begin(), samples.end());
    if (!current.isNull()) held.push_back(current);
    for (const MethodRequestPtr& r : held) {
      Counted* request = static_cast<Counted*>(r.get());
      heldExecuted += request->ran();
      heldDrained += !request->ran() && request->IsCompleted();
    }
  }
  const int drained = tally.freedDrained.load() + heldDrained;
  EXPECT_EQ(kRequests, inserted.load());
  EXPECT_EQ(0u, object.thr_count());
  EXPECT_EQ(0, tally.twice.load());
  EXPECT_EQ(0, tally.freedLost.load()) << "a request vanished uncompleted";
  EXPECT_EQ(tally.executed.load(), tally.freedExecuted.load() + heldExecuted);
  EXPECT_EQ(kRequests, tally.executed.load() + drained + pending)
      << "executed " << tally.executed << ", drained " << drained
      << ", pending " << pending;
  // Run again, then a graceful stop: every waiter returns.
  ASSERT_EQ(0, object.run(2, 0));
  object.stop(false);
  EXPECT_TRUE(testsupport::WaitUntil([&] { return waiterDone.load(); }));
  waiter.join();
  EXPECT_EQ((kRequests + kSample - 1) / kSample, waited.load());
  EXPECT_EQ(0u, object.pending());
  EXPECT_EQ(kRequests, tally.freedExecuted.load() + tally.freedDrained.load());
  EXPECT_EQ(0, tally.freedLost.load());

  for (const auto& other : others)
    other.first->run(static_cast<int>(other.second), 0);
  ActiveObj::SetLoggingEnabled(true);
}

TEST(ActiveObjStress, GracefulStopAllWhileProducersInsert) {
  StopAllUnderLoad(false);
}

TEST(ActiveObjStress, UrgentStopAllWhileProducersInsert) {
  StopAllUnderLoad(true);
}

}  // namespace
