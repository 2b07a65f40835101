#pragma once

#include <atomic>
#include <cassert>

namespace METRICS {

/// The links of an element of a `LinkedList`; elements derive from it.
template <class T>
struct Linked {
  std::atomic<T*> link_next{nullptr};
  T* link_before = nullptr;
};

/// A list of elements that stand elsewhere, changed and read under a lock of its owner.
///
/// The way from the front is changed by one store each. So the child of a fork finds each element
/// that was in the list, whatever the fork cut on another thread, and `RepairAfterFork` brings the
/// ways back in order.
template <class T>
class LinkedList {
 public:
  T* Front() const { return front_.load(std::memory_order_relaxed); }
  static T* Next(const T& element) { return element.link_next.load(std::memory_order_relaxed); }

  /// REQUIRES: the element is in no list.
  void PushFront(T& element) {
    assert(element.link_before == nullptr && Next(element) == nullptr);
    T* const next = Front();
    element.link_next.store(next, std::memory_order_relaxed);
    front_.store(&element, std::memory_order_release);
    if (next != nullptr) {
      next->link_before = &element;
    }
  }

  /// REQUIRES: the element is in this list.
  void Remove(T& element) {
    T* const next = Next(element);
    (element.link_before != nullptr ? element.link_before->link_next : front_)
        .store(next, std::memory_order_release);
    if (next != nullptr) {
      next->link_before = element.link_before;
    }
    element.link_next.store(nullptr, std::memory_order_relaxed);
    element.link_before = nullptr;
  }

  /// Afterwards the element is in no list. REQUIRES: it is in this one or in none.
  void RemoveIfThere(T& element) {
    T* other = Front();
    while (other != nullptr && other != &element) {
      other = Next(*other);
    }
    if (other != nullptr) {
      Remove(element);
    }
    element.link_next.store(nullptr, std::memory_order_relaxed);
    element.link_before = nullptr;
  }

  void RepairAfterFork() {
    T* before = nullptr;
    for (T* element = Front(); element != nullptr; element = Next(*element)) {
      element->link_before = before;
      before = element;
    }
  }

 private:
  std::atomic<T*> front_{nullptr};
};

}  // namespace METRICS
