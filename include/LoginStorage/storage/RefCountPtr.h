// RefCountPtr<T>: a counted pointer through which stores and callers share one
// object. Copies share the object and one separately allocated counter; the
// last copy to go deletes the object through its virtual destructor.
//
//   RefCountPtr<IStorable> session(new Session("alice", 42));
//   cache->set(session, 3600);                  // the cache holds a share now
//   RefCountPtr<IStorable> again = cache->get("alice", Session::fromBytes);
//   // again.get() == session.get(): the same object, not a copy
//
// Every pointer, a null one too, owns a share of a counter: making a new
// pointer allocates a counter set to 1; copying allocates nothing.
//
// The counter is a plain integer: copies of one pointer must not be made or
// released on two threads at once.
#ifndef LOGINSTORAGE_STORAGE_REFCOUNTPTR_H
#define LOGINSTORAGE_STORAGE_REFCOUNTPTR_H

#include <cstddef>

namespace VelLogin {

template <typename T>
class RefCountPtr {
 public:
  // Takes ownership of object (which may be null). Implicit, so that a
  // factory may `return new Session(...)` or `return nullptr`.
  RefCountPtr(T* object = nullptr)  // NOLINT(google-explicit-constructor)
      : m_object(object), m_count(new unsigned(1)) {}

  RefCountPtr(const RefCountPtr& other) : m_object(other.m_object), m_count(other.m_count) {
    share();
  }

  // Shares an object of a derived class, e.g. RefCountPtr<IStorable> from
  // RefCountPtr<Session>.
  template <typename U>
  RefCountPtr(const RefCountPtr<U>& other)  // NOLINT: implicit like T* from U*
      : m_object(other.m_object), m_count(other.m_count) {
    share();
  }

  // Takes a share of other's object before giving up this pointer's own, so
  // that other may live inside the object this pointer releases
  // (`node = node->next` with node holding the last share).
  RefCountPtr& operator=(const RefCountPtr& other) {
    if (&other == this) return *this;
    T* const oldObject = m_object;
    unsigned* const oldCount = m_count;
    m_object = other.m_object;
    m_count = other.m_count;
    share();
    if (oldCount != nullptr && --*oldCount == 0) destroy(oldObject, oldCount);
    return *this;
  }

  ~RefCountPtr() { release(); }

  // Gives up this pointer's share. The last share deletes the object and
  // frees the counter, leaving this pointer null with no counter; a later
  // release() (the destructor's included) then does nothing. While other
  // shares remain, this pointer keeps pointing at the object and the counter,
  // so only call it when this pointer is about to go.
  void release() {
    if (m_count == nullptr) return;
    if (--*m_count == 0) {
      T* const object = m_object;
      unsigned* const count = m_count;
      m_object = nullptr;
      m_count = nullptr;
      destroy(object, count);
    }
  }

  T* get() const { return m_object; }
  T* operator->() const { return m_object; }
  T& operator*() const { return *m_object; }
  explicit operator bool() const { return m_object != nullptr; }
  bool isNull() const { return m_object == nullptr; }

  // The number of pointers sharing the counter; 0 after a final release().
  unsigned getCount() const { return m_count != nullptr ? *m_count : 0; }

 private:
  template <typename U>
  friend class RefCountPtr;

  // Joins the counter copied from another pointer; a pointer copied from one
  // whose counter is gone starts a counter of its own.
  void share() {
    if (m_count != nullptr) {
      ++*m_count;
    } else {
      m_count = new unsigned(1);
    }
  }

  // The last share's cleanup, kept out of line: copies and releases that do
  // not end the object stay small, and compilers do not mistake the shared
  // counter for freed memory in the code of every copy. Static, and called
  // after this pointer has let go of both, so that the object's destructor
  // may reach this pointer (or free it) without meeting a dangling one.
  __attribute__((noinline)) static void destroy(T* object, unsigned* count) {
    delete object;
    delete count;
  }

  T* m_object;
  unsigned* m_count;
};

template <typename T, typename U>
bool operator==(const RefCountPtr<T>& a, const RefCountPtr<U>& b) {
  return a.get() == b.get();
}

template <typename T, typename U>
bool operator!=(const RefCountPtr<T>& a, const RefCountPtr<U>& b) {
  return a.get() != b.get();
}

template <typename T>
bool operator==(const RefCountPtr<T>& a, std::nullptr_t) {
  return a.get() == nullptr;
}

template <typename T>
bool operator==(std::nullptr_t, const RefCountPtr<T>& a) {
  return a.get() == nullptr;
}

template <typename T>
bool operator!=(const RefCountPtr<T>& a, std::nullptr_t) {
  return a.get() != nullptr;
}

template <typename T>
bool operator!=(std::nullptr_t, const RefCountPtr<T>& a) {
  return a.get() != nullptr;
}

}  // namespace VelLogin

#endif
