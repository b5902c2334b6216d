// Logging through ACE_Log_Msg with the record's source unit and line.
//
// COM_LOG((LM_ERROR, "OSFile::Foo: open() failed. OS Error: %m\n")) works
// like ACE_ERROR: the arguments are those of ACE_Log_Msg::log, the text is
// logged as given, and "%m" prints the errno in force at the call. Before
// logging, the unit path ("common/os/osfile", set by the build for every
// library source) and the line are stored in the thread's ACE_Log_Msg, so a
// log format with "%N:%l" or a msg_callback reading file()/linenum() sees
// where the record came from.
//
// Thread safety: as ACE_Log_Msg (each thread has its own instance).
#ifndef COM_COMMON_BASE_COMLOG_H_
#define COM_COMMON_BASE_COMLOG_H_

#include <ace/Log_Msg.h>

#ifndef COM_UNIT
#define COM_UNIT __FILE__
#endif

#define COM_LOG(X)                                                        \
  do {                                                                    \
    int const com_log_error_ = ACE_Log_Msg::last_error_adapter();         \
    ACE_Log_Msg* com_log_msg_ = ACE_Log_Msg::instance();                  \
    com_log_msg_->conditional_set(COM_UNIT, __LINE__, 0, com_log_error_); \
    com_log_msg_->log X;                                                  \
  } while (0)

#endif  // COM_COMMON_BASE_COMLOG_H_
