// Helpers for the tests of active objects and their timers.
#ifndef COM_TESTS_SUPPORT_REQUESTTESTING_H_
#define COM_TESTS_SUPPORT_REQUESTTESTING_H_

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Backend.h>
#include <ace/Log_Record.h>
#include <ace/Reactor.h>
#include <ace/Thread.h>

#include "common/base/activeobj.h"

namespace testsupport {

// Polls `condition` until it holds or `timeoutMs` passed.
inline bool WaitUntil(const std::function<bool()>& condition,
                      int timeoutMs = 10000) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Calls `get` from 8 threads released at once; answers what each saw.
template <class T>
std::vector<T*> RaceCalls(T* (*get)()) {
  const int kThreads = 8;
  std::atomic<int> waiting{kThreads};
  std::vector<T*> seen(kThreads, nullptr);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([&, i] {
      --waiting;
      while (waiting.load() > 0) std::this_thread::yield();
      seen[i] = get();
    });
  for (std::thread& t : threads) t.join();
  return seen;
}

// Entries of ActiveObj's registry under `name`.
inline int Registered(const char* name) {
  int found = 0;
  for (const auto& entry : ActiveObj::getAllSchedulers())
    found += entry.first == name;
  return found;
}

// Runs `body` on the worker; its destructor bumps `*deaths` when given.
class CallRequest : public MethodRequest {
 public:
  CallRequest(ActiveObj* target, const char* name, std::function<int()> body,
              std::atomic<int>* deaths = nullptr)
      : target_(target), name_(name), body_(std::move(body)), deaths_(deaths) {}
  ~CallRequest() override {
    if (deaths_ != nullptr) ++*deaths_;
  }
  ActiveObj* GetActiveObj() override { return target_; }
  const char* GetName() override { return name_.c_str(); }

  using MethodRequest::Lock;
  using MethodRequest::Reactivate;
  using MethodRequest::Release;
  using MethodRequest::Self;

 protected:
  int ExecuteImpl() override { return body_(); }

 private:
  ActiveObj* target_;
  std::string name_;
  std::function<int()> body_;
  std::atomic<int>* deaths_;
};

// Queues a request that holds a worker of `object` until `*open`; it bumps
// `*started` on the worker.
inline void HoldWorker(ActiveObj* object, const std::atomic<bool>* open,
                       std::atomic<int>* started) {
  MethodRequest::Schedule(
      MethodRequestPtr(new CallRequest(object, "gate",
                                       [open, started] {
                                         ++*started;
                                         while (!*open)
                                           std::this_thread::yield();
                                         return 0;
                                       })),
      Kelvane::NORMAL_PRIORITY);
}

// Runs ACE_Reactor::instance()'s loop on a thread of its own until destroyed.
class ReactorLoop {
 public:
  ReactorLoop() {
    ACE_Reactor::instance()->reset_reactor_event_loop();
    thread_ = std::thread([] {
      ACE_Reactor::instance()->owner(ACE_Thread::self());
      ACE_Reactor::instance()->run_reactor_event_loop();
    });
  }
  ~ReactorLoop() {
    ACE_Reactor::instance()->end_reactor_event_loop();
    thread_.join();
  }
  ReactorLoop(const ReactorLoop&) = delete;
  ReactorLoop& operator=(const ReactorLoop&) = delete;

 private:
  std::thread thread_;
};

// Collects the log records of every thread while it lives.
class SharedLogCapture : public ACE_Log_Msg_Backend {
 public:
  struct Record {
    ACE_Log_Priority priority;
    std::string text;
  };
  SharedLogCapture() {
    flags_ = ACE_LOG_MSG->flags();
    previous_ = ACE_Log_Msg::msg_backend(this);
    ACE_LOG_MSG->set_flags(ACE_Log_Msg::CUSTOM);
    ACE_LOG_MSG->clr_flags(ACE_Log_Msg::STDERR);
  }
  ~SharedLogCapture() override {
    ACE_LOG_MSG->clr_flags(~0ul);
    ACE_LOG_MSG->set_flags(flags_);
    ACE_Log_Msg::msg_backend(previous_);
  }
  int open(const ACE_TCHAR*) override { return 0; }
  int reset() override { return 0; }
  int close() override { return 0; }
  ssize_t log(ACE_Log_Record& record) override {
    std::lock_guard<std::mutex> hold(mutex_);
    records_.push_back(
        {static_cast<ACE_Log_Priority>(record.type()), record.msg_data()});
    return 0;
  }
  // Records whose text contains `part`.
  std::vector<Record> Matching(const std::string& part) {
    std::lock_guard<std::mutex> hold(mutex_);
    std::vector<Record> found;
    for (const Record& r : records_)
      if (r.text.find(part) != std::string::npos) found.push_back(r);
    return found;
  }

 private:
  std::mutex mutex_;
  std::vector<Record> records_;
  ACE_Log_Msg_Backend* previous_;
  unsigned long flags_;
};

}  // namespace testsupport

#endif  // COM_TESTS_SUPPORT_REQUESTTESTING_H_
