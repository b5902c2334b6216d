#include "common/namedevent/namedevent.h"

#include <stdexcept>

// Records of this unit carry the folder's name, not the file's.
#undef COM_UNIT
#define COM_UNIT "common/namedevent"
#include "common/base/comlog.h"
#include "common/namedevent/internal/sharedevent.h"

namespace Common {

const char NamedEvent::kSecurityAttributesError[] =
    "NamedEvent: Unable to create security attributes";
const char NamedEvent::kInitializeError[] =
    "NamedEvent: Unable to initialize named event";

NamedEvent::NamedEvent(const ACE_CString& name)
    : event_(new internal::SharedEvent) {
  if (event_->Open(name.c_str(), true, false) != 0) {
    COM_LOG((LM_DEBUG, "NamedEvent: Unable to initialize named event: %m %p\n",
             name.c_str()));
    delete event_;
    throw std::runtime_error(kInitializeError);
  }
}

NamedEvent::~NamedEvent() { delete event_; }

int NamedEvent::signal() { return event_->Signal(); }

int NamedEvent::pulse() { return event_->Pulse(); }

int NamedEvent::reset() { return event_->Reset(); }

void* NamedEvent::handle() const { return event_; }

}  // namespace Common
