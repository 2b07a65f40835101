#include "util/event_counter.h"
#include "util/thread_slot.h"

#include <cstddef>
#include <new>

namespace METRICS {

EventCounter::Lines EventCounter::none_{0, nullptr};

EventCounter::EventCounter(uint32_t lines)
    : lines_(lines == 0 ? &none_ : MakeLines(lines, &none_)) {
  if (lines_.load(std::memory_order_relaxed) == nullptr) {
    lines_.store(&none_, std::memory_order_relaxed);
  }
}

EventCounter::~EventCounter() {
  Lines* lines = lines_.load(std::memory_order_relaxed);
  while (lines != &none_) {
    Lines* const older = lines->older;
    ::operator delete(lines, std::align_val_t(alignof(Lines)));
    lines = older;
  }
}

void EventCounter::AddWithoutLine(unsigned long events) {
  const uint32_t slot = ThreadSlot();
  Lines* const lines = lines_.load(std::memory_order_acquire);
  if (slot < lines->count) {
    AddOwn(lines->At(slot), events);
    return;
  }
  common_.fetch_add(events, std::memory_order_relaxed);
  if (slot != kNoThreadSlot && lines_asked_.load(std::memory_order_relaxed) <= slot) {
    lines_asked_.store(slot + 1, std::memory_order_relaxed);  // a lower one that wins asks again
  }
}

void EventCounter::Spread(uint32_t count) {
  Lines* longest = lines_.load(std::memory_order_acquire);
  if (longest->count >= count) {
    return;
  }
  uint32_t lines = kSpreadLines;
  while (lines < count) {
    lines *= 2;
  }
  Lines* const made = MakeLines(lines, longest);
  if (made != nullptr &&
      !lines_.compare_exchange_strong(longest, made, std::memory_order_acq_rel)) {
    ::operator delete(made, std::align_val_t(alignof(Lines)));
  }
}

EventCounter::Lines* EventCounter::MakeLines(uint32_t count, Lines* older) {
  void* const memory = ::operator new(sizeof(Lines) + count * sizeof(Line),
                                      std::align_val_t(alignof(Lines)), std::nothrow);
  if (memory == nullptr) {
    return nullptr;
  }
  auto* const made = new (memory) Lines{count, older};
  for (uint32_t slot = 0; slot < count; ++slot) {
    new (&made->At(slot)) std::atomic<unsigned long>(0);
  }
  return made;
}

}  // namespace METRICS
