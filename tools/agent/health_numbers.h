#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

namespace tidegate::agent {

class HealthNumber;

// Numbers in the order in which they were declared.
class NumberList {
 public:
  NumberList() = default;
  NumberList(const NumberList&) = delete;
  NumberList& operator=(const NumberList&) = delete;

  const HealthNumber* first() const { return first_; }  // null: there is none
  // Of all numbers of a name.
  uint64_t Sum(std::string_view name) const;

 private:
  friend class HealthNumber;
  const HealthNumber* first_ = nullptr;
  HealthNumber* last_ = nullptr;
};

// One number of the agent on itself. Counters never fall.
class HealthNumber : public std::atomic<uint64_t> {
 public:
  enum class Type { kGauge, kCounter };

  // Takes its place at the end of `list`. With a reason, that is its label, and the numbers of one
  // name follow each other.
  HealthNumber(NumberList* list, Type type, std::string_view name, std::string_view help,
               std::string_view reason = {})
      : std::atomic<uint64_t>(0), type_(type), name_(name), help_(help), reason_(reason) {
    (list->last_ == nullptr ? list->first_ : list->last_->next_) = this;
    list->last_ = this;
  }
  using std::atomic<uint64_t>::operator=;

  Type type() const { return type_; }
  std::string_view name() const { return name_; }
  std::string_view help() const { return help_; }
  std::string_view reason() const { return reason_; }
  const HealthNumber* next() const { return next_; }

 private:
  const Type type_;
  const std::string_view name_;
  const std::string_view help_;
  const std::string_view reason_;
  const HealthNumber* next_ = nullptr;
};

// A counter for each reason, by the number of the reason.
template <size_t size>
class ReasonNumbers {
 public:
  ReasonNumbers(NumberList* list, std::string_view name, std::string_view help,
                const std::string_view (&reasons)[size])
      : ReasonNumbers(list, name, help, reasons, std::make_index_sequence<size>()) {}
  HealthNumber& operator[](size_t reason) { return numbers_[reason]; }
  const HealthNumber& operator[](size_t reason) const { return numbers_[reason]; }
  auto begin() const { return numbers_.begin(); }
  auto end() const { return numbers_.end(); }
  uint64_t Sum() const {
    uint64_t sum = 0;
    for (const HealthNumber& number : numbers_) sum += number;
    return sum;
  }

 private:
  template <size_t... i>
  ReasonNumbers(NumberList* list, std::string_view name, std::string_view help,
                const std::string_view (&reasons)[size], std::index_sequence<i...> /*all*/)
      : numbers_{{{list, HealthNumber::Type::kCounter, name, help, reasons[i]}...}} {}

  std::array<HealthNumber, size> numbers_;
};

inline uint64_t NumberList::Sum(std::string_view name) const {
  uint64_t sum = 0;
  for (const HealthNumber* number = first_; number != nullptr; number = number->next()) {
    if (number->name() == name) sum += *number;
  }
  return sum;
}

}  // namespace tidegate::agent
