#include "common/base/activeobj.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iterator>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <ace/Guard_T.h>

#include <gtest/gtest.h>

#include "support/logcapture.h"
#include "support/requesttesting.h"

namespace {

using testsupport::CallRequest;
using testsupport::SharedLogCapture;
using testsupport::WaitUntil;

Kelvane::CommandPriority P(int value) {
  return static_cast<Kelvane::CommandPriority>(value);
}

// Stops the object's workers when the test leaves, whatever happened.
struct StopOnExit {
  ActiveObj& object;
  ~StopOnExit() { object.stop(true); }
};

// Tags appended by requests in the order they ran.
class Journal {
 public:
  void Add(const std::string& tag) {
    std::lock_guard<std::mutex> hold(mutex_);
    text_ += text_.empty() ? tag : " " + tag;
  }
  std::string Text() {
    std::lock_guard<std::mutex> hold(mutex_);
    return text_;
  }

 private:
  std::mutex mutex_;
  std::string text_;
};

// The words of `text`, sorted.
std::string Sorted(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> words{std::istream_iterator<std::string>(in),
                                 std::istream_iterator<std::string>()};
  std::sort(words.begin(), words.end());
  std::string joined;
  for (const std::string& w : words) joined += joined.empty() ? w : " " + w;
  return joined;
}

MethodRequestPtr Tagged(ActiveObj* object, Journal* journal,
                        const std::string& tag, int result = 0,
                        std::atomic<int>* deaths = nullptr) {
  return MethodRequestPtr(new CallRequest(
      object, tag.c_str(),
      [journal, tag, result] {
        journal->Add(tag);
        return result;
      },
      deaths));
}

// Counts what the hook sees.
class CountingObj : public ActiveObj {
 public:
  CountingObj(const char* name, unsigned int threshold)
      : ActiveObj(name, threshold) {}
  std::atomic<int> executed{0};

 protected:
  void commandExecuted(MethodRequest&) override { ++executed; }
};

TEST(ActiveObj, OneWorkerRunsByPriorityThenArrival) {
  struct Row {
    const char* label;
    std::vector<std::pair<std::string, int>> requests;
    const char* order;
    std::vector<std::string> dump;  // dumpQueue before the worker starts
  };
  std::vector<std::pair<std::string, int>> tenThenTop;
  for (char c = 'a'; c <= 'j'; ++c)
    tenThenTop.push_back({std::string(1, c), 30});
  tenThenTop.push_back({"T", 60});
  const Row rows[] = {
      {"ten ordinary then one top", tenThenTop, "T a b c d e f g h i j", {}},
      {"mixed levels",
       {{"a", 30},
        {"b", 10},
        {"c", 60},
        {"d", 45},
        {"e", 30},
        {"f", 60},
        {"g", 10},
        {"h", 45},
        {"i", 0}},
       "c f d h a e b g i",
       {"Non user command 2, priority = 60",
        "Non user command 2, priority = 60",
        "Command d queued in position 0, priority = 45",
        "Command h queued in position 1, priority = 45",
        "Command a queued in position 2, priority = 30",
        "Command e queued in position 3, priority = 30",
        "Command b queued in position 4, priority = 10",
        "Command g queued in position 5, priority = 10",
        "Command i queued in position 6, priority = 0"}},
  };
  ActiveObj::SetLoggingEnabled(false);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    Journal journal;
    ActiveObj object("Order", 1u << 20);
    StopOnExit stopper{object};
    std::vector<MethodRequestPtr> requests;
    for (const auto& r : row.requests) {
      requests.push_back(Tagged(&object, &journal, r.first));
      MethodRequest::Schedule(requests.back(), P(r.second));
    }
    if (!row.dump.empty()) {
      testsupport::LogCapture capture;
      object.dumpQueue();
      std::vector<std::string> lines;
      for (const auto& record : capture.records()) {
        EXPECT_EQ(LM_DEBUG, record.priority);
        lines.push_back(record.text.substr(
            record.text.find(": ") + 2,
            record.text.size() - record.text.find(": ") - 3));
      }
      EXPECT_EQ(row.dump, lines);
    }
    ASSERT_EQ(0, object.run(1, 0));
    for (MethodRequestPtr& r : requests) EXPECT_EQ(0, r->Wait());
    EXPECT_EQ(row.order, journal.Text());
  }
  ActiveObj::SetLoggingEnabled(true);
}

TEST(ActiveObj, ResultOneKeepsTheRequestAliveAndUncompleted) {
  const int results[] = {0, -1, 2, 1};
  ActiveObj::SetLoggingEnabled(false);
  ActiveObj object("Results", 1u << 20);
  StopOnExit stopper{object};
  ASSERT_EQ(0, object.run(1, 0));
  for (int result : results) {
    SCOPED_TRACE(result);
    Journal journal;
    std::atomic<int> deaths{0};
    MethodRequestPtr request = Tagged(&object, &journal, "r", result, &deaths);
    MethodRequest::Schedule(request, Kelvane::NORMAL_PRIORITY);
    // A second request on the one worker runs after the first is finished.
    MethodRequest::ScheduleAndWait(Tagged(&object, &journal, "next"),
                                   Kelvane::NORMAL_PRIORITY);
    EXPECT_EQ("r next", journal.Text());
    EXPECT_EQ(result != 1, request->IsCompleted());
    CallRequest* raw = static_cast<CallRequest*>(request.get());
    request.Release();
    if (result == 1) {
      EXPECT_EQ(0, deaths.load()) << "self must keep it alive";
      MethodRequestPtr last;
      raw->Release(last);
      EXPECT_EQ(0, deaths.load());
      last.Release();
    }
    EXPECT_EQ(1, deaths.load());
  }
  ActiveObj::SetLoggingEnabled(true);
}

TEST(ActiveObj, ReactivateQueuesTheRequestAgain) {
  const int delaysMs[] = {0, 300};
  testsupport::ReactorLoop reactor;
  ActiveObj::SetLoggingEnabled(false);
  ActiveObj object("Again", 1u << 20);
  StopOnExit stopper{object};
  ASSERT_EQ(0, object.run(2, 0));
  for (int delayMs : delaysMs) {
    SCOPED_TRACE(delayMs);
    std::vector<std::chrono::steady_clock::time_point> runs;
    CallRequest* self = nullptr;
    MethodRequestPtr request(
        self = new CallRequest(&object, "Again", [&] {
          runs.push_back(std::chrono::steady_clock::now());
          if (runs.size() > 1) return 0;
          EXPECT_EQ(0, self->Reactivate(Kelvane::HIGH_PRIORITY,
                                        ACE_Time_Value(0, delayMs * 1000)));
          return 1;
        }));
    const auto started = std::chrono::steady_clock::now();
    MethodRequest::ScheduleAndWait(request, Kelvane::NORMAL_PRIORITY);
    ASSERT_EQ(2u, runs.size());
    EXPECT_GE(runs[1] - runs[0], std::chrono::milliseconds(delayMs));
    EXPECT_LT(std::chrono::steady_clock::now() - started,
              std::chrono::seconds(10));
    EXPECT_TRUE(request->IsCompleted());
  }
  // Without self (never scheduled) there is nothing to queue.
  CallRequest loose(&object, "Loose", [] { return 0; });
  EXPECT_EQ(-1, loose.Reactivate(Kelvane::NORMAL_PRIORITY));
  EXPECT_EQ(0u, object.pending());
  ActiveObj::SetLoggingEnabled(true);
}

TEST(ActiveObj, ThrowLeavesTheWaiterBlockedUntilStop) {
  static const std::runtime_error kStatic("static failure");
  struct Row {
    std::function<int()> body;
    const char* text;
  };
  const Row rows[] = {
      {[]() -> int { throw std::runtime_error("boom"); }, "boom"},
      {[]() -> int { throw static_cast<const std::exception*>(&kStatic); },
       "static failure"},
      {[]() -> int { throw static_cast<const std::exception*>(nullptr); },
       "Unknown"},
  };
  ActiveObj::SetLoggingEnabled(false);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    SharedLogCapture log;
    CountingObj object("Thrower", 1u << 20);
    StopOnExit stopper{object};
    ASSERT_EQ(0, object.run(1, 0));
    std::atomic<int> deaths{0};
    MethodRequestPtr request(
        new CallRequest(&object, "Failing", row.body, &deaths));
    std::atomic<bool> woken{false};
    std::thread waiter([&] {
      MethodRequest::ScheduleAndWait(request, Kelvane::NORMAL_PRIORITY);
      woken = true;
    });
    ASSERT_TRUE(WaitUntil([&] { return object.executed.load() == 1; }));
    // The worker has moved on; the waiter has not.
    Journal journal;
    MethodRequest::ScheduleAndWait(Tagged(&object, &journal, "after"),
                                   Kelvane::NORMAL_PRIORITY);
    EXPECT_EQ(2, object.executed.load());
    EXPECT_FALSE(woken.load());
    EXPECT_FALSE(request->IsCompleted());

    EXPECT_EQ(0, object.stop(false));
    EXPECT_TRUE(WaitUntil([&] { return woken.load(); }));
    waiter.join();
    EXPECT_TRUE(request->IsCompleted());
    request.Release();
    EXPECT_EQ(1, deaths.load()) << "stop released the request's self";

    const auto lines = log.Matching("caught while executing");
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(LM_CRITICAL, lines[0].priority);
    EXPECT_EQ(std::string("ActiveObj: Exception '") + row.text +
                  "' caught while executing command Failing\n",
              lines[0].text);
  }
  ActiveObj::SetLoggingEnabled(true);
}

TEST(ActiveObj, GracefulStopRunsOrdinaryWorkAndUrgentStopDiscardsIt) {
  struct Row {
    bool urgent;
    int workers;
    const char* ran;
  };
  const Row rows[] = {
      {false, 1, "c a b"}, {false, 3, "c a b"}, {true, 1, ""}, {true, 3, ""}};
  ActiveObj::SetLoggingEnabled(false);
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.urgent ? "urgent, " : "graceful, ") +
                 std::to_string(row.workers) + " workers");
    Journal journal;
    ActiveObj object("Stopper", 1u << 20);
    ASSERT_EQ(0, object.run(row.workers, 0));
    // Every worker is held in a gate while the queue fills.
    std::atomic<bool> open{false};
    std::atomic<int> started{0};
    for (int i = 0; i < row.workers; ++i) {
      MethodRequest::Schedule(
          MethodRequestPtr(new CallRequest(&object, "gate",
                                           [&] {
                                             ++started;
                                             while (!open)
                                               std::this_thread::yield();
                                             return 0;
                                           })),
          Kelvane::NORMAL_PRIORITY);
    }
    ASSERT_TRUE(WaitUntil([&] { return started.load() == row.workers; }));
    const std::pair<const char*, int> queued[] = {
        {"a", 30}, {"b", 30}, {"c", 45}, {"d", 10}, {"e", 10}};
    std::vector<MethodRequestPtr> requests;
    for (const auto& q : queued) {
      requests.push_back(Tagged(&object, &journal, q.first));
      MethodRequest::Schedule(requests.back(), P(q.second));
    }
    std::atomic<bool> woken{false};
    std::thread waiter([&] {
      requests.back()->Wait();
      woken = true;
    });
    std::thread stopping([&] { EXPECT_EQ(0, object.stop(row.urgent)); });
    // The hang-up is queued before any worker gets past its gate.
    ASSERT_TRUE(WaitUntil([&] { return object.pending() == 6; }));
    open = true;
    stopping.join();
    EXPECT_TRUE(WaitUntil([&] { return woken.load(); }));
    waiter.join();

    // One worker keeps the queue's order; several start them in that order
    // but may log them in any.
    EXPECT_EQ(row.workers == 1 ? row.ran : Sorted(row.ran),
              row.workers == 1 ? journal.Text() : Sorted(journal.Text()));
    EXPECT_EQ(0u, object.thr_count());
    EXPECT_EQ(0u, object.pending());
    for (MethodRequestPtr& r : requests) {
      EXPECT_TRUE(r->IsCompleted()) << r->GetName();
      EXPECT_EQ(1, r.use_count()) << r->GetName() << ": self not cleared";
    }
  }
  ActiveObj::SetLoggingEnabled(true);
}

TEST(ActiveObj, StopOfAnObjectNeverRunKeepsItsQueue) {
  Journal journal;
  ActiveObj object("Idle", 1u << 20);
  StopOnExit stopper{object};
  for (const char* tag : {"x", "y", "z"}) {
    MethodRequest::Activate(
        MethodRequestAutoPtr(new CallRequest(&object, tag,
                                             [&journal, tag] {
                                               journal.Add(tag);
                                               return 0;
                                             })),
        Kelvane::NORMAL_PRIORITY);
  }
  {
    testsupport::LogCapture capture;
    EXPECT_EQ(0, object.stop(true));
    EXPECT_TRUE(capture.records().empty());
  }
  EXPECT_EQ(3u, object.pending());
  ASSERT_EQ(0, object.run(1, 0));
  EXPECT_TRUE(WaitUntil([&] { return journal.Text() == "x y z"; }))
      << journal.Text();
}

TEST(ActiveObj, PerformanceWarningEveryThousandTwentyFourFromTheThreshold) {
  struct Row {
    unsigned int threshold;
    int inserts;
    std::vector<int> counts;
  };
  const Row rows[] = {
      {2048, 2050, {2048}},
      {2048, 3073, {2048, 3072}},
      {3000, 4097, {3072, 4096}},
      {0, 1025, {0, 1024}},
  };
  ActiveObj::SetLoggingEnabled(false);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.threshold);
    ActiveObj object("Backlog", row.threshold);
    StopOnExit stopper{object};
    std::vector<std::string> warnings;
    {
      testsupport::LogCapture capture;
      for (int i = 0; i < row.inserts; ++i) {
        MethodRequest::Activate(
            MethodRequestAutoPtr(
                new CallRequest(&object, "w", [] { return 0; })),
            i % 2 ? Kelvane::NORMAL_PRIORITY : Kelvane::LOW_PRIORITY);
      }
      for (const auto& record : capture.records()) {
        EXPECT_EQ(LM_CRITICAL, record.priority);
        warnings.push_back(record.text);
      }
    }
    std::vector<std::string> expected;
    for (int count : row.counts) {
      expected.push_back("PERFORMANCE WARNING: Backlog has " +
                         std::to_string(count) + " items in the queue.\n");
    }
    EXPECT_EQ(expected, warnings);
    ASSERT_EQ(0, object.run(1, 0));  // the urgent stop discards the backlog
  }
  ActiveObj::SetLoggingEnabled(true);
}

TEST(ActiveObj, ObjectsSharingANameAreRegisteredApart) {
  auto entries = [](const ActiveObj* object) {
    int found = 0;
    for (const auto& entry : ActiveObj::getAllSchedulers()) {
      if (entry.first == "Twin" && entry.second == object) ++found;
    }
    return found;
  };
  testsupport::LogCapture capture;
  ActiveObj first("Twin", 10);
  auto second = std::make_unique<ActiveObj>("Twin", 10);
  EXPECT_EQ(1, entries(&first));
  EXPECT_EQ(1, entries(second.get()));
  EXPECT_STREQ("Twin", second->name());
  const ActiveObj* gone = second.get();
  second.reset();
  EXPECT_EQ(1, entries(&first));
  EXPECT_EQ(0, entries(gone));
  EXPECT_TRUE(capture.records().empty());
}

TEST(ActiveObj, ActivatedRequestsCannotBeWaitedFor) {
  ActiveObj object("Fire", 10);
  StopOnExit stopper{object};
  std::atomic<int> deaths{0};
  std::atomic<bool> ran{false};
  CallRequest* request = new CallRequest(
      &object, "Fire",
      [&] {
        ran = true;
        return 0;
      },
      &deaths);
  MethodRequest::Activate(MethodRequestAutoPtr(request),
                          Kelvane::NORMAL_PRIORITY);
  // Queued, not run yet: still nothing to wait for.
  EXPECT_EQ(1u, object.pending());
  EXPECT_EQ(-1, request->Wait());
  EXPECT_TRUE(request->IsCompleted());
  // Null requests are ignored.
  MethodRequest::Schedule(MethodRequestPtr(), Kelvane::NORMAL_PRIORITY);
  MethodRequest::ScheduleAndWait(MethodRequestPtr(), Kelvane::NORMAL_PRIORITY);
  MethodRequest::Activate(MethodRequestAutoPtr(), Kelvane::NORMAL_PRIORITY);
  EXPECT_EQ(1u, object.pending());

  ASSERT_EQ(0, object.run(1, 0));
  EXPECT_TRUE(WaitUntil([&] { return deaths.load() == 1; }))
      << "the request owns itself until it has run";
  EXPECT_TRUE(ran.load());
}

TEST(ActiveObj, RequestLockIsRecursiveAndHeldDuringExecution) {
  ActiveObj object("Locker", 10);
  StopOnExit stopper{object};
  ASSERT_EQ(0, object.run(1, 0));
  std::atomic<int> stage{0};
  CallRequest* raw = nullptr;
  MethodRequestPtr request(raw = new CallRequest(&object, "Locker", [&] {
                             // Taken again on the worker, which already holds
                             // it.
                             ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, again,
                                              raw->Lock(), -1);
                             stage = 2;
                             return 0;
                           }));
  {
    ACE_GUARD(ACE_Recursive_Thread_Mutex, hold, raw->Lock());
    MethodRequest::Schedule(request, Kelvane::NORMAL_PRIORITY);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(0, stage.load()) << "ran while another thread held its lock";
  }
  EXPECT_TRUE(WaitUntil([&] { return request->IsCompleted(); }));
  EXPECT_EQ(2, stage.load());
}

}  // namespace
