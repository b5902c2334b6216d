// Ownership templates: a reference-counted shared pointer with pluggable
// deletion and lock policies, a sole-owner pointer, and the two deletion
// policies.
//
// Thread safety: with Lock = ACE_Thread_Mutex the shared counter is updated
// atomically, so copies of one SmartPtr may be made and destroyed on any
// threads and exactly one releaser frees the object. A single SmartPtr
// object is not protected: two threads must not assign to the same one at
// once. With Lock = ACE_Null_Mutex nothing is synchronised.
//
//   Kelvane::SmartPtr<Request> a(new Request);  // count 1
//   Kelvane::SmartPtr<Request> b = a;            // count 2
//   b->Run();
//   Kelvane::auto_ptr<char, Kelvane::ArrayDelete<char>> buf(new char[16]);
#ifndef COM_COMMON_BASE_SMARTPTR_H_
#define COM_COMMON_BASE_SMARTPTR_H_

#include <exception>

#include <ace/Atomic_Op.h>
#include <ace/Null_Mutex.h>
#include <ace/Thread_Mutex.h>

namespace Kelvane {

// Frees with scalar delete; the pointee's virtual destructor runs. Null is
// accepted.
template <class T>
struct BasicDelete {
  static void Delete(T* p) { delete p; }
};

// Frees with array delete. Null is accepted.
template <class T>
struct ArrayDelete {
  static void Delete(T* p) { delete[] p; }
};

// Thrown by member access through an empty SmartPtr; what() gives the
// fixed text of the access that failed.
class NullPointerException : public std::exception {
 public:
  explicit NullPointerException(const char* text) : text_(text) {}
  const char* what() const noexcept override { return text_; }

 private:
  const char* text_;
};

inline constexpr const char kSmartPtrNullAccess[] =
    "SmartPtr::operator->() Attempt to dereference a null pointer";
inline constexpr const char kSmartPtrNullAccessConst[] =
    "SmartPtr::operator->() const Attempt to dereference a null pointer";

// Reference-counted shared pointer. `count` is null exactly when the
// pointer is empty; its value is the number of SmartPtr objects sharing it.
template <class T, class Deleter = BasicDelete<T>,
          class Lock = ACE_Thread_Mutex>
class SmartPtr {
 public:
  typedef ACE_Atomic_Op<Lock, long> Counter;

  SmartPtr() : ptr(nullptr), count(nullptr) {}

  // Takes ownership; a null pointer gets no counter.
  explicit SmartPtr(T* p) : ptr(p), count(p ? new Counter(1) : nullptr) {}

  SmartPtr(const SmartPtr& other) : ptr(nullptr), count(nullptr) {
    Share(other);
  }

  SmartPtr& operator=(const SmartPtr& other) {
    if (this != &other) {
      Release();
      Share(other);
    }
    return *this;
  }

  ~SmartPtr() { Release(); }

  // Drops this reference; the last one frees the object and the counter.
  // The pointer is empty afterwards.
  void Release() {
    if (count != nullptr) {
      long left = --(*count);
      if (left == 0) {
        Deleter::Delete(ptr);
        delete count;
      }
    }
    ptr = nullptr;
    count = nullptr;
  }

  // Throws NullPointerException(kSmartPtrNullAccess) when empty.
  T* operator->() {
    if (ptr == nullptr) throw NullPointerException(kSmartPtrNullAccess);
    return ptr;
  }
  // Throws NullPointerException(kSmartPtrNullAccessConst) when empty.
  const T* operator->() const {
    if (ptr == nullptr) throw NullPointerException(kSmartPtrNullAccessConst);
    return ptr;
  }
  T& operator*() { return *operator->(); }
  const T& operator*() const { return *operator->(); }

  T* get() const { return ptr; }
  bool isNull() const { return ptr == nullptr; }
  explicit operator bool() const { return ptr != nullptr; }

  // Number of SmartPtr objects sharing the object; 0 when empty.
  long use_count() const { return count ? count->value() : 0; }

  bool operator==(const SmartPtr& o) const { return ptr == o.ptr; }
  bool operator!=(const SmartPtr& o) const { return ptr != o.ptr; }

 private:
  void Share(const SmartPtr& other) {
    if (other.count != nullptr) {
      ++(*other.count);
      ptr = other.ptr;
      count = other.count;
    }
  }

  T* ptr;
  Counter* count;
};

// Sole-owner pointer; copying transfers ownership and leaves the source
// null, as the historic std::auto_ptr did.
template <class T, class Deleter = BasicDelete<T>>
class auto_ptr {
 public:
  explicit auto_ptr(T* p = nullptr) : ptr(p) {}
  auto_ptr(auto_ptr& other) : ptr(other.release()) {}
  auto_ptr(auto_ptr&& other) noexcept : ptr(other.release()) {}
  auto_ptr& operator=(auto_ptr& other) {
    reset(other.release());
    return *this;
  }
  auto_ptr& operator=(auto_ptr&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~auto_ptr() { Deleter::Delete(ptr); }

  T* get() const { return ptr; }
  T& operator*() const { return *ptr; }
  T* operator->() const { return ptr; }
  T& operator[](size_t i) const { return ptr[i]; }

  // Gives up ownership and returns the pointer.
  T* release() {
    T* p = ptr;
    ptr = nullptr;
    return p;
  }
  // Frees the held object (unless it is `p` itself) and holds `p`.
  void reset(T* p = nullptr) {
    if (p != ptr) {
      Deleter::Delete(ptr);
      ptr = p;
    }
  }

 private:
  T* ptr;
};

}  // namespace Kelvane

#endif  // COM_COMMON_BASE_SMARTPTR_H_
