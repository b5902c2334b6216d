#include <cstdio>
#include <thread>

#include <ace/Log_Msg.h>

#include "common/base/observable.h"
#include "common/base/observer.h"
#include "common/base/observermanager.h"
#include "common/base/publisher.h"

#include "demo.h"

namespace {

enum : unsigned int { kStudyStored = 1, kVolumeFull = 2 };

// A volume that tells its watchers when studies arrive and when it fills.
class Volume : public Observable {
 public:
  explicit Volume(const char* name) : Observable(name) {}
};

class Indexer : public Observer {
 public:
  Indexer() : Observer("indexer") {}
  void HandleEvent(Observable* from, unsigned int event, void* data) override {
    if (event == 0) {
      std::printf("indexer: %s is going away\n", from->GetpName());
    } else if (event == kStudyStored) {
      std::printf("indexer: study %s stored on %s\n",
                  static_cast<const char*>(data), from->GetpName());
    }
  }
};

class Alarm : public Observer {
 public:
  Alarm() : Observer("alarm") {}
  void HandleEvent(Observable* from, unsigned int event, void*) override {
    // Every subscriber sees every event: the alarm picks its own.
    if (event == kVolumeFull) {
      std::printf("alarm:   %s is full, detaching\n", from->GetpName());
      Detach();  // allowed from inside the handler
    }
  }
};

class Printer : public Subscriber<int, char*> {
 public:
  void notify(const int& key, char* const& value) override {
    std::printf("subscriber of key %d got '%s'\n", key, value);
  }
};

void Observers() {
  // Birth and death lines of observables and observers are LM_DEBUG.
  const unsigned long mask = ACE_LOG_MSG->priority_mask(ACE_Log_Msg::PROCESS);
  ACE_LOG_MSG->priority_mask(mask & ~LM_DEBUG, ACE_Log_Msg::PROCESS);
  {
    Indexer indexer;
    Alarm alarm;
    Volume volume("/archive/vol1");
    indexer.Observe(&volume, 1u << kStudyStored);
    alarm.Observe(&volume, 1u << kVolumeFull);
    std::printf("alarm responds to 'full': %s\n",
                ObserverManager::Instance()->Responds(&alarm, &volume,
                                                      1u << kVolumeFull)
                    ? "yes"
                    : "no");
    char uid[] = "1.2.3.4";
    // Delivered on the posting thread, here a worker's.
    std::thread worker([&] { volume.PostEvent(kStudyStored, uid); });
    worker.join();
    volume.PostEvent(kVolumeFull, nullptr);
    volume.PostEvent(kVolumeFull, nullptr);  // the alarm has left
  }  // the volume goes first: the indexer hears event 0

  Publisher<int, char*> bus;
  Printer printer;
  bus.subscribe(7, &printer);
  char hello[] = "hello";
  std::printf("publish under 7: %s\n",
              bus.publish(7, hello) ? "true" : "false");
  std::printf("publish under 8: %s\n",
              bus.publish(8, hello) ? "true" : "false");
  ACE_LOG_MSG->priority_mask(mask, ACE_Log_Msg::PROCESS);
}

}  // namespace

COM_DEMO_SECTION(70, "Observers and the keyed publisher", Observers);
