// A completion port and a small single-loop reactor on top of it.
//
// CompletionPort queues completions of asynchronous operations as packets
// (key, success, byte count, overlapped record). On Linux the port is one
// io_uring. A descriptor is registered with the port under a key; the start
// calls (startRead, startWrite, startRecv, startSend, startAccept,
// startPoll) begin an operation on a registered descriptor, and listen()
// returns the key of the next completed operation, with its status,
// record and byte count kept for GetAsyncIOStatus(), lastOverlapped() and
// lastBytes(). post() queues a packet of the caller's own.
//
// The callers' threads never submit to the ring themselves: a thread owned
// by the port does. The kernel ties an io_uring request to the thread that
// submitted it, cancelling it when that thread exits and interrupting that
// thread to finish it (a timed blocking call there would fail with EINTR).
// So an operation started from a short-lived thread still completes, and a
// thread that starts operations keeps its own blocking calls undisturbed.
//
// Three shortcuts keep thread hand-offs (which cost more than the
// operations on a busy machine) off the common paths:
//  - a receive or send on a socket is first tried at once as a plain call
//    that does not wait (MSG_DONTWAIT); when it finishes (with data, room
//    or an error) its packet goes to a queue the port keeps beside the
//    ring, and only a socket that would block goes to the ring;
//  - post() puts its packet on that same queue, never into the ring;
//  - operations started on the thread that last entered listen() (the
//    reactor's call-backs) are handed to the submitting thread together
//    when that thread looks for completions again (or 32 have gathered);
//    handleEvents() hands over what is left when it returns. A thread that
//    listens, starts an operation and then never listens again leaves it
//    waiting for the next listen() on the port.
// listen() takes completions from the ring first, then from the queue (in
// the order they were queued), so packets of the two sources may come back
// in another order than they finished.
//
// CompletionPortReactor maps each registered descriptor to an
// ACE_Event_Handler under keys 1, 2, 3, ... (never reused) and, in
// handleEvents(), calls handle_input(handle) for every successful
// completion and handle_exception(handle) for every failed one. Handlers
// start their own operations; the reactor only waits and dispatches.
//
// Thread safety: every CompletionPort call may be made from any thread,
// also while another thread sits in listen(). One thread at a time
// listens (a second listen() waits for the first); the values read by
// GetAsyncIOStatus(), lastOverlapped() and lastBytes() are those of the
// last listen() on the port. The reactor runs its loop and its call-backs
// on the thread that calls handleEvents(); start() and stop() may be
// called from any thread.
//
// Example, an echo of one accepted connection per handler:
//   struct Echo : ACE_Event_Handler {
//     CompletionPortReactor& r;
//     CompletionPort::Overlapped accepted, received;
//     char buf[4096];
//     int handle_input(ACE_HANDLE listener) override {
//       CompletionPort::Overlapped* ov = r.lastOverlapped();
//       if (ov == nullptr) return r.startAccept(listener, &accepted);
//       if (ov == &accepted) {
//         r.registerHandle(ACE_HANDLE(accepted.result), 1);  // own key
//         return r.startRecv(ACE_HANDLE(accepted.result), buf, 4096,
//                            &received);
//       }
//       ...
//     }
//   };
//   CompletionPortReactor reactor;
//   reactor.registerHandler(listenerFd, &echo);  // key 1
//   reactor.start();
//   reactor.handleEvents();  // until reactor.stop() from anywhere
#ifndef COM_COMMON_COMPLETIONPORT_COMPLETIONPORT_H_
#define COM_COMMON_COMPLETIONPORT_COMPLETIONPORT_H_

#include <atomic>
#include <exception>
#include <map>
#include <string>
#include <utility>

#include <ace/Auto_Event.h>
#include <ace/Basic_Types.h>
#include <ace/Event_Handler.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/config-all.h>

#include "common/base/comexport.h"

// Thrown by CompletionPort: the port cannot be created or a descriptor
// cannot be registered. what() is the text given to the constructor (a
// null text gives "").
class COM_EXPORT CompletionPortException : public std::exception {
 public:
  explicit CompletionPortException(const char* message);
  virtual ~CompletionPortException();
  virtual const char* what() const noexcept override;

 private:
  std::string message_;
};

// Thrown by CompletionPortReactor: a handler registered while the reactor
// runs, a descriptor the port refused, or a port failure in the loop.
class COM_EXPORT CompletionPortReactorException : public std::exception {
 public:
  explicit CompletionPortReactorException(const char* message);
  virtual ~CompletionPortReactorException();
  virtual const char* what() const noexcept override;

 private:
  std::string message_;
};

class COM_EXPORT CompletionPort {
 public:
  // The record of one operation, embedded in the caller's own struct as an
  // OVERLAPPED is. It must stay in place until its completion has been
  // returned by listen().
  struct Overlapped {
    ACE_UINT64 offset = 0;  // file position for read and write
    ACE_INT64 result = 0;   // set on completion: bytes, accepted descriptor
                            // or poll events; -errno on failure
    void* user = nullptr;   // the caller's own
  };

  // Ring size when none is given: submissions the ring holds before the
  // port submits them (completions it holds are four times as many; more
  // are kept by the kernel, not lost).
  static const unsigned kDefaultRingEntries = 256;

  // Creates the port (its ring and its submitting thread). `ringEntries`
  // is rounded up to a power of two and held to the kernel's maximum
  // (32768). 0, or a ring the kernel cannot give, throws
  // CompletionPortException("Error creating IO completion port").
  explicit CompletionPort(unsigned ringEntries = kDefaultRingEntries);
  // Cancels the operations still running and waits (up to a few seconds)
  // for the kernel to give them back; buffers of operations still running
  // then must outlive the port. Registered descriptors are not closed.
  virtual ~CompletionPort();

  CompletionPort(const CompletionPort&) = delete;
  CompletionPort& operator=(const CompletionPort&) = delete;

  // Operations later started on `handle` complete under `key`. Registering
  // a descriptor again gives it the new key (descriptor numbers are reused
  // after close). Any key may be used, 0xFFFFFFFF included. A descriptor
  // that is not open logs at LM_CRITICAL "CompletionPort::registerHandle:
  // Problem registering completion port handle: OS Error %m.\n" and throws
  // CompletionPortException("CompletionPort::registerHandler error").
  void registerHandle(ACE_HANDLE handle, unsigned long key);

  // Waits without limit for the next packet and returns its key. The
  // status becomes 1 for a successful operation or a posted packet, 0 for
  // a failed one (result < 0), which also logs at LM_ERROR
  // "CompletionPort::listen(): GetQueuedCompletionStatus returned false.
  // Error Code: %u\n" with the errno value and sets errno. A packet posted
  // without a record is consumed and skipped, as is a failed wait.
  unsigned long listen();

  // 1 at construction, then the status of the last listen().
  int GetAsyncIOStatus();
  // The ring's descriptor.
  ACE_HANDLE getHandle() const;

  // Start calls. Each returns 0 once the operation is under way or done
  // (its outcome, success or failure, then arrives as a packet through
  // listen()), or -1 with errno: EBADF for a handle never registered with
  // this port, EINVAL for a null record, ENOMEM. A descriptor closed after
  // registration fails in its packet (result -EBADF). Closing a descriptor
  // does not end an operation already running on it.
  //
  // Read and write at `ov->offset`; (ACE_UINT64)-1 uses and moves the file
  // position (pipes, sockets). The byte count is the result.
  int startRead(ACE_HANDLE handle, void* buffer, ACE_UINT32 length,
                Overlapped* ov);
  int startWrite(ACE_HANDLE handle, const void* buffer, ACE_UINT32 length,
                 Overlapped* ov);
  // Socket receive and send (send never raises SIGPIPE: a closed peer is
  // -EPIPE). A receive of 0 bytes is the peer's orderly shutdown.
  int startRecv(ACE_HANDLE handle, void* buffer, ACE_UINT32 length,
                Overlapped* ov);
  int startSend(ACE_HANDLE handle, const void* buffer, ACE_UINT32 length,
                Overlapped* ov);
  // Accepts one connection on a listening socket: the result is the new
  // descriptor (close-on-exec, not registered), the byte count 0.
  int startAccept(ACE_HANDLE listener, Overlapped* ov);
  // Waits once for poll(2) `events` (POLLIN, POLLOUT, ...): the result is
  // the events that occurred, the byte count 0.
  int startPoll(ACE_HANDLE handle, short events, Overlapped* ov);
  // Queues a packet of the caller's: listen() returns `key` with status 1,
  // byte count `bytes` and record `ov` (left as given). A null `ov` makes
  // a packet that listen() consumes and skips. Returns 0, or -1 with errno
  // ENOMEM.
  int post(unsigned long key, ACE_UINT32 bytes, Overlapped* ov);

  // The record and byte count of the packet that listen() returned last
  // (null and 0 before the first).
  Overlapped* lastOverlapped() const;
  ACE_UINT32 lastBytes() const;

 protected:
  // Hands the operations that the listening thread started, and that wait
  // for it to look for completions again, to the submitting thread now.
  void handOverStarts();

 private:
  struct Impl;
  Impl* impl_;
};

class COM_EXPORT CompletionPortReactor : public CompletionPort {
 public:
  // The key of the packet stop() posts.
  static const unsigned long kStopKey = 0xFFFFFFFFul;

  explicit CompletionPortReactor(
      unsigned ringEntries = CompletionPort::kDefaultRingEntries);
  // Does not close registered descriptors or delete handlers.
  virtual ~CompletionPortReactor();

  // Registers `handle` with the port under the next key (1 for the first,
  // never reused) and maps the key to (handle, handler). While the reactor
  // is active throws CompletionPortReactorException("Attempt to register a
  // handler while the reactor is running"). A descriptor the port refuses
  // logs at LM_CRITICAL "CompletionPortReactor::registerHandler:
  // CompletionPortException: %s\n" and throws
  // CompletionPortReactorException("Unable to add transport"); its key is
  // not used up.
  void registerHandler(ACE_HANDLE handle, ACE_Event_Handler* handler);

  // Makes the reactor active and lets handleEvents() run; does nothing
  // when already active.
  void start();
  // Clears active and posts a packet with key 0xFFFFFFFF and 0 bytes, so
  // that the loop returns after its current call-back. A stop() before
  // start() is lost: the loop meets that packet while active, logs it as
  // the unknown key -1 and goes on.
  void stop();
  bool isActive();

  // The event loop, on the calling thread: waits for start(), returns at
  // once if no longer active, then holds the reactor's lock while it
  // primes every handler once in ascending key order (through
  // dispatchEvent, so handle_input unless the last packet failed; on a
  // fresh port lastOverlapped() is null then) and dispatches each packet to its
  // key's handler until a packet arrives while inactive. A packet with an
  // unknown key logs at LM_WARNING "CompletionPortReactor::handleEvents:
  // Received an unknown completion key: %d.\n" (the key's low 32 bits as a
  // signed number) and is skipped. A CompletionPortException from a call-back
  // logs at LM_CRITICAL "CompletionPortReactor::handleEvents:
  // CompletionPortException: %s\n" and leaves the loop as
  // CompletionPortReactorException("Completion port error").
  void handleEvents();

  // handle_input(handle) when the last status is non-zero, else
  // handle_exception(handle).
  void dispatchEvent(std::pair<ACE_HANDLE, ACE_Event_Handler*>& entry);

 private:
  std::map<unsigned long, std::pair<ACE_HANDLE, ACE_Event_Handler*>> handlers_;
  unsigned long nextKey_;
  // Recursive: a call-back that stops the reactor and then registers a
  // handler takes it again on the loop's thread.
  ACE_Recursive_Thread_Mutex lock_;
  ACE_Auto_Event started_;
  std::atomic<bool> active_;
  CompletionPort::Overlapped stopRecord_;
};

#endif  // COM_COMMON_COMPLETIONPORT_COMPLETIONPORT_H_
