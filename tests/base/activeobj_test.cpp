#include "common/base/activeobj.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
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
  const std::pair<const char*, int> queued[] = {{"a", 30}, {"b", 10}, {"c", 60},
                                                {"d", 45}, {"e", 30}, {"i", 0}};
  const std::vector<std::string> dump = {
      "Non user command 2, priority = 60",
      "Command d queued in position 0, priority = 45",
      "Command a queued in position 1, priority = 30",
      "Command e queued in position 2, priority = 30",
      "Command b queued in position 3, priority = 10",
      "Command i queued in position 4, priority = 0"};
  ActiveObj::SetLoggingEnabled(false);
  Journal journal;
  ActiveObj object("Order", 1u << 20);
  StopOnExit stopper{object};
  std::vector<MethodRequestPtr> requests;
  for (const auto& q : queued) {
    requests.push_back(Tagged(&object, &journal, q.first));
    MethodRequest::Schedule(requests.back(), P(q.second));
  }
  {
    testsupport::LogCapture capture;
    object.dumpQueue();
    std::vector<std::string> lines;
    for (const auto& record : capture.records()) {
      EXPECT_EQ(LM_DEBUG, record.priority);
      lines.push_back(
          record.text.substr(record.text.find(": ") + 2,
                             record.text.size() - record.text.find(": ") - 3));
    }
    EXPECT_EQ(dump, lines);
  }
  ASSERT_EQ(0, object.run(1, 0));
  for (MethodRequestPtr& r : requests) EXPECT_EQ(0, r->Wait());
  EXPECT_EQ("c d a e b i", journal.Text());
  ActiveObj::SetLoggingEnabled(true);
}

TEST(ActiveObj, ResultOneKeepsTheRequestAliveAndUncompleted) {
  const int results[] = {2, 1};
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
    MethodRequest::ScheduleAndWait(Tagged(&object, &journal, "next"),
                                   Kelvane::NORMAL_PRIORITY);
    EXPECT_EQ("r next", journal.Text());
    EXPECT_EQ(result != 1, request->IsCompleted());
    CallRequest* raw = static_cast<CallRequest*>(request.get());
    request.Release();
    if (result == 1) {
      EXPECT_EQ(0, deaths.load()) << "self keeps it alive";
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
  }
  // Never scheduled: no self to queue.
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
    Journal journal;
    MethodRequest::ScheduleAndWait(Tagged(&object, &journal, "after"),
                                   Kelvane::NORMAL_PRIORITY);
    EXPECT_FALSE(woken.load());  // the worker moved on, the waiter did not
    EXPECT_EQ(0, object.stop(false));
    EXPECT_TRUE(WaitUntil([&] { return woken.load(); }));
    waiter.join();
    EXPECT_TRUE(request->IsCompleted());
    request.Release();
    EXPECT_EQ(1, deaths.load()) << "stop released self";

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
  const Row rows[] = {{false, 1, "c a b"}, {true, 3, ""}};
  ActiveObj::SetLoggingEnabled(false);
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.urgent ? "urgent, " : "graceful, ") +
                 std::to_string(row.workers) + " workers");
    Journal journal;
    ActiveObj object("Stopper", 1u << 20);
    ASSERT_EQ(0, object.run(row.workers, 0));
    std::atomic<bool> open{false};
    std::atomic<int> started{0};
    for (int i = 0; i < row.workers; ++i)
      testsupport::HoldWorker(&object, &open, &started);
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
    // The hang-ups are queued before any worker leaves its gate.
    ASSERT_TRUE(WaitUntil([&] { return object.pending() == 6; }));
    open = true;
    stopping.join();
    EXPECT_TRUE(WaitUntil([&] { return woken.load(); }));
    waiter.join();
    EXPECT_EQ(row.ran, journal.Text());
    EXPECT_EQ(0u, object.pending());
    for (MethodRequestPtr& r : requests) {
      EXPECT_TRUE(r->IsCompleted()) << r->GetName();
      EXPECT_EQ(1, r.use_count()) << r->GetName() << ": self not cleared";
    }
  }
  ActiveObj::SetLoggingEnabled(true);
}

TEST(ActiveObj, PerformanceWarningEveryThousandTwentyFourFromTheThreshold) {
  struct Row {
    unsigned int threshold;
    int inserts;
    std::vector<int> counts;
  };
  const Row rows[] = {
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
    ASSERT_EQ(0, object.run(1, 0));
  }
  ActiveObj::SetLoggingEnabled(true);
}

TEST(ActiveObj, ObjectsSharingANameAreRegisteredApart) {
  ActiveObj first("Twin", 10);
  auto second = std::make_unique<ActiveObj>("Twin", 10);
  EXPECT_EQ(2, testsupport::Registered("Twin"));
  second.reset();
  ASSERT_EQ(1, testsupport::Registered("Twin"));
  for (const auto& entry : ActiveObj::getAllSchedulers()) {
    if (entry.first == "Twin") {
      EXPECT_EQ(&first, entry.second);
    }
  }
}

TEST(ActiveObj, ActivatedRequestsCannotBeWaitedForAndOutliveAStopBeforeRun) {
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
  EXPECT_EQ(-1, request->Wait());  // queued, but nothing to wait for
  EXPECT_TRUE(request->IsCompleted());
  MethodRequest::Schedule(MethodRequestPtr(), Kelvane::NORMAL_PRIORITY);
  MethodRequest::ScheduleAndWait(MethodRequestPtr(), Kelvane::NORMAL_PRIORITY);
  MethodRequest::Activate(MethodRequestAutoPtr(), Kelvane::NORMAL_PRIORITY);
  {
    testsupport::LogCapture capture;
    EXPECT_EQ(0, object.stop(true));  // never run: keeps its queue, silently
    EXPECT_TRUE(capture.records().empty());
  }
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
